// Connections to the package's daemons over local stream sockets.
//
// Framing: one message is a 4-byte unsigned length in network byte order
// followed by that many bytes (UTF-8 JSON text). A declared length over
// kMaxMessageSize makes Recv fail. Sends never raise SIGPIPE; interrupted
// calls are resumed.
#ifndef KESTDAEMON_SOCK_CONNECTION_H_
#define KESTDAEMON_SOCK_CONNECTION_H_

#include <cstddef>
#include <string>

namespace kestdaemon {

constexpr size_t kMaxMessageSize = 64u << 20;

class SockConnection {
 public:
  SockConnection() = default;
  explicit SockConnection(int fd) : fd_(fd) {}
  SockConnection(const SockConnection&) = delete;
  SockConnection& operator=(const SockConnection&) = delete;
  virtual ~SockConnection();
  // Closes the descriptor; does nothing when not connected.
  virtual void Disconnect();

  // Sends `message` as one framed message. False on any failure.
  bool Send(const std::string& message);
  // Receives one whole message into `*message`. False on a short read, a
  // closed peer, a time-out or a declared length over kMaxMessageSize.
  bool Recv(std::string& message);

  int fd() const { return fd_; }

 protected:
  int fd_ = -1;
};

class DomainSockConnection : public SockConnection {
 public:
  explicit DomainSockConnection(std::string path) : path_(std::move(path)) {}
  ~DomainSockConnection() override;
  // Connects within `timeout` seconds; the same bound then applies to each
  // Send and Recv. False on failure.
  bool Connect(long timeout);

 private:
  std::string path_;
};

}  // namespace kestdaemon

#endif  // KESTDAEMON_SOCK_CONNECTION_H_
