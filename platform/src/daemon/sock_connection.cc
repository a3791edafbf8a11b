#include "kestdaemon/sock_connection.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace kestdaemon {
namespace {

// Writes all of `data`; resumes after EINTR and partial writes.
bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Reads exactly `size` bytes; false on a closed peer, a time-out or an error.
bool ReadAll(int fd, char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = recv(fd, data, size, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
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
  return WriteAll(fd_, header, sizeof(header)) && WriteAll(fd_, message.data(), message.size());
}

bool SockConnection::Recv(std::string& message) {
  if (fd_ == -1) return false;
  uint32_t length = 0;
  if (!ReadAll(fd_, reinterpret_cast<char*>(&length), sizeof(length))) return false;
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
    if (!ReadAll(fd_, &body[have], want)) return false;
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
  if (timeout > 0) {
    timeval tv{};
    tv.tv_sec = timeout;
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  }
  int rc;
  do {
    rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
  } while (rc != 0 && errno == EINTR);
  if (rc != 0) {
    const int saved = errno;
    close(fd);
    errno = saved;
    return false;
  }
  fd_ = fd;
  return true;
}

}  // namespace kestdaemon
