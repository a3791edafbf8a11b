#include "kestdaemon/sock_connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>

namespace kestdaemon {
namespace {

using Clock = std::chrono::steady_clock;

// The bound of one Send or Recv call: the time-out given to Connect, kept on
// the socket itself (SO_RCVTIMEO) so that the object stays one descriptor.
// A connection built from a bare descriptor has no bound.
Clock::time_point Deadline(int fd) {
  // Beyond ten years "no bound" is meant; it also keeps the sum in range.
  constexpr time_t kForever = 10L * 365 * 86400;
  timeval tv{};
  socklen_t len = sizeof(tv);
  if (getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, &len) != 0 ||
      (tv.tv_sec == 0 && tv.tv_usec == 0) || tv.tv_sec > kForever) {
    return Clock::time_point::max();
  }
  return Clock::now() + std::chrono::seconds(tv.tv_sec) + std::chrono::microseconds(tv.tv_usec);
}

// Waits until `fd` is ready for `events` or the deadline passes; resumes
// after signals. False on time-out (errno ETIMEDOUT) or error.
bool WaitReady(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    int wait_ms = -1;
    if (deadline != Clock::time_point::max()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        errno = ETIMEDOUT;
        return false;
      }
      wait_ms = left > INT32_MAX ? INT32_MAX : static_cast<int>(left);
    }
    pollfd pfd{fd, events, 0};
    const int rc = poll(&pfd, 1, wait_ms);
    if (rc > 0) return true;  // errors and hang-ups surface in the next call
    if (rc < 0 && errno != EINTR) return false;
  }
}

// Writes all of `data` by the deadline; resumes after signals and partial
// writes. MSG_NOSIGNAL: a peer that went away fails the call instead of
// killing the process with SIGPIPE.
bool WriteAll(int fd, const char* data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    if (!WaitReady(fd, POLLOUT, deadline)) return false;
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads exactly `size` bytes by the deadline; false on a closed peer, a
// time-out or an error.
bool ReadAll(int fd, char* data, size_t size, Clock::time_point deadline) {
  while (size > 0) {
    if (!WaitReady(fd, POLLIN, deadline)) return false;
    const ssize_t n = recv(fd, data, size, MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      return false;
    }
    if (n == 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

SockConnection::~SockConnection() {
  if (fd_ != -1) close(fd_);
}

void SockConnection::Disconnect() {
  if (fd_ == -1) return;
  close(fd_);
  fd_ = -1;
}

bool SockConnection::Send(const std::string& message) {
  if (fd_ == -1 || message.size() > kMaxMessageSize) return false;
  const uint32_t length = htonl(static_cast<uint32_t>(message.size()));
  char header[sizeof(length)];
  memcpy(header, &length, sizeof(length));
  const auto deadline = Deadline(fd_);
  return WriteAll(fd_, header, sizeof(header), deadline) &&
         WriteAll(fd_, message.data(), message.size(), deadline);
}

bool SockConnection::Recv(std::string& message) {
  if (fd_ == -1) return false;
  const auto deadline = Deadline(fd_);
  uint32_t length = 0;
  if (!ReadAll(fd_, reinterpret_cast<char*>(&length), sizeof(length), deadline)) return false;
  length = ntohl(length);
  if (length > kMaxMessageSize) return false;
  // Grow as bytes arrive rather than trusting the declared length up front:
  // a peer that lies about a large length costs only what it really sends.
  std::string body;
  constexpr size_t kChunk = 1 << 20;
  while (body.size() < length) {
    const size_t want = std::min<size_t>(kChunk, length - body.size());
    const size_t have = body.size();
    body.resize(have + want);
    if (!ReadAll(fd_, &body[have], want, deadline)) return false;
  }
  message.swap(body);
  return true;
}

DomainSockConnection::~DomainSockConnection() = default;

bool DomainSockConnection::Connect(long timeout) {
  Disconnect();
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(addr.sun_path)) return false;
  memcpy(addr.sun_path, path_.c_str(), path_.size() + 1);

  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  bool ok = true;
  if (timeout > 0) {
    // SO_SNDTIMEO bounds a connect that waits for a full backlog; SO_RCVTIMEO
    // carries the bound on to each Send and Recv.
    timeval tv{};
    tv.tv_sec = timeout;
    ok = setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) == 0 &&
         setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) == 0;
  }
  int rc = -1;
  while (ok) {
    rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    if (rc == 0 || errno != EINTR) break;
  }
  // A connect resumed after a signal may find the first attempt completed.
  if (ok && rc != 0 && errno == EISCONN) rc = 0;
  if (!ok || rc != 0) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return false;
  }
  fd_ = fd;
  return true;
}

}  // namespace kestdaemon
