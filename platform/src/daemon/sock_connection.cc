#include "kestdaemon/sock_connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>

namespace kestdaemon {

using Clock = std::chrono::steady_clock;

// The bound of one Send or Recv call: the time-out given to Connect, kept on
// the socket itself (SO_RCVTIMEO) so that the object stays one descriptor.
// A connection built from a bare descriptor has no bound. The call starts
// its clock at once but reads the time-out only when it first has to wait:
// most calls find their bytes, or room for them, already there.
class CallDeadline {
 public:
  explicit CallDeadline(int fd) : fd_(fd), start_(Clock::now()) {}
  Clock::time_point At() {
    if (!known_) {
      // Beyond ten years "no bound" is meant; it also keeps the sum in range.
      constexpr time_t kForever = 10L * 365 * 86400;
      timeval tv{};
      socklen_t len = sizeof(tv);
      if (getsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, &len) != 0 ||
          (tv.tv_sec == 0 && tv.tv_usec == 0) || tv.tv_sec > kForever) {
        at_ = Clock::time_point::max();
      } else {
        at_ = start_ + std::chrono::seconds(tv.tv_sec) + std::chrono::microseconds(tv.tv_usec);
      }
      known_ = true;
    }
    return at_;
  }

 private:
  int fd_;
  Clock::time_point start_;
  Clock::time_point at_;
  bool known_ = false;
};

namespace {

// What one read asks for when reading ahead: a whole page of search hits
// in one go.
constexpr size_t kReadAhead = 64u << 10;
// The most one read adds to the buffer: a peer that declares a large length
// costs only what it really sends.
constexpr size_t kMaxRead = 1u << 20;
// A buffer left this large by a big message is given back once used up.
constexpr size_t kKeepBuffer = 1u << 20;

// Waits until `fd` is ready for `events` or the deadline passes; resumes
// after signals. False on time-out (errno ETIMEDOUT) or error.
bool WaitReady(int fd, short events, CallDeadline& deadline) {
  const Clock::time_point at = deadline.At();
  for (;;) {
    int wait_ms = -1;
    if (at != Clock::time_point::max()) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(at - Clock::now()).count();
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

// Writes all of `iov` (modified) by the deadline; resumes after signals and
// partial writes, and waits only when the socket is full. MSG_NOSIGNAL: a
// peer that went away fails the call instead of killing the process with
// SIGPIPE.
bool WriteAll(int fd, iovec* iov, size_t count, CallDeadline& deadline) {
  while (count > 0 && iov->iov_len == 0) ++iov, --count;
  while (count > 0) {
    msghdr msg{};
    msg.msg_iov = iov;
    msg.msg_iovlen = count;
    const ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN && errno != EWOULDBLOCK) return false;
      if (!WaitReady(fd, POLLOUT, deadline)) return false;
      continue;
    }
    size_t sent = static_cast<size_t>(n);
    while (count > 0 && sent >= iov->iov_len) {
      sent -= iov->iov_len;
      ++iov;
      --count;
    }
    if (count > 0) {
      iov->iov_base = static_cast<char*>(iov->iov_base) + sent;
      iov->iov_len -= sent;
    }
  }
  return true;
}

// Reads at most `size` bytes, at least one, by the deadline; waits only when
// nothing has arrived. The count read, or -1 on a closed peer, a time-out or
// an error.
ssize_t ReadSome(int fd, char* data, size_t size, CallDeadline& deadline) {
  for (;;) {
    const ssize_t n = recv(fd, data, size, MSG_DONTWAIT);
    if (n > 0) return n;
    if (n == 0) return -1;
    if (errno == EINTR) continue;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return -1;
    if (!WaitReady(fd, POLLIN, deadline)) return -1;
  }
}

}  // namespace

SockConnection::~SockConnection() {
  if (fd_ != -1) close(fd_);
}

void SockConnection::Disconnect() {
  in_.clear();
  in_pos_ = 0;
  if (fd_ == -1) return;
  close(fd_);
  fd_ = -1;
}

bool SockConnection::Send(const std::string& message) {
  if (fd_ == -1 || message.size() > kMaxMessageSize) return false;
  const uint32_t length = htonl(static_cast<uint32_t>(message.size()));
  char header[sizeof(length)];
  memcpy(header, &length, sizeof(length));
  // Header and body leave in one call: a peer waiting for the request wakes
  // once, with the whole of a small one there to read.
  iovec iov[2] = {{header, sizeof(header)}, {const_cast<char*>(message.data()), message.size()}};
  CallDeadline deadline(fd_);
  return WriteAll(fd_, iov, 2, deadline);
}

bool SockConnection::Fill(size_t need, CallDeadline& deadline) {
  while (in_.size() - in_pos_ < need) {
    if (in_pos_ > 0) {
      in_.erase(0, in_pos_);
      in_pos_ = 0;
    }
    const size_t have = in_.size();
    // Without read-ahead, never past the bytes the current frame still lacks.
    size_t want = need - have;
    if (read_ahead_) want = std::max(want, kReadAhead);
    want = std::min(want, kMaxRead);
    in_.resize(have + want);
    const ssize_t n = ReadSome(fd_, &in_[have], want, deadline);
    in_.resize(have + static_cast<size_t>(std::max<ssize_t>(n, 0)));
    if (n < 0) return false;
  }
  return true;
}

bool SockConnection::Recv(std::string& message) {
  if (fd_ == -1) return false;
  CallDeadline deadline(fd_);
  uint32_t length = 0;
  if (!Fill(sizeof(length), deadline)) return false;
  memcpy(&length, in_.data() + in_pos_, sizeof(length));
  length = ntohl(length);
  if (length > kMaxMessageSize) return false;
  if (!Fill(sizeof(length) + length, deadline)) return false;
  if (length > kKeepBuffer && in_pos_ == 0 && in_.size() == sizeof(length) + length) {
    // A large message alone in the buffer is handed over rather than copied.
    in_.erase(0, sizeof(length));
    message.swap(in_);
    std::string().swap(in_);
    return true;
  }
  message.assign(in_, in_pos_ + sizeof(length), length);
  in_pos_ += sizeof(length) + length;
  if (in_pos_ == in_.size()) {
    in_pos_ = 0;
    in_.clear();
    if (in_.capacity() > kKeepBuffer) std::string().swap(in_);
  }
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
