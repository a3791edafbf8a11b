// Connections to the package's daemons over local stream sockets.
//
// Framing: one message is a 4-byte unsigned length in network byte order
// followed by that many bytes (UTF-8 JSON text). A declared length over
// kMaxMessageSize makes Recv fail. Sends never raise SIGPIPE; interrupted
// calls are resumed.
//
// A connection that reads ahead (the default for DomainSockConnection)
// takes from the socket whatever has arrived, up to 64 KiB a call, and
// keeps the bytes past the current message for the next Recv: a reply of
// many small messages costs a few reads rather than two per message. One
// built on a bare descriptor reads exactly one message at a time, so that
// bytes after it stay in the socket for whoever reads the descriptor next.
// Not thread-safe: one thread uses a connection at a time.
#ifndef KESTDAEMON_SOCK_CONNECTION_H_
#define KESTDAEMON_SOCK_CONNECTION_H_

#include <cstddef>
#include <string>

namespace kestdaemon {

constexpr size_t kMaxMessageSize = 64u << 20;

class CallDeadline;  // internal: the time bound of one call

class SockConnection {
 public:
  SockConnection() = default;
  explicit SockConnection(int fd) : fd_(fd) {}
  SockConnection(const SockConnection&) = delete;
  SockConnection& operator=(const SockConnection&) = delete;
  virtual ~SockConnection();
  // Closes the descriptor and drops unread bytes; does nothing when not
  // connected.
  virtual void Disconnect();

  // Sends `message` as one framed message. False on any failure.
  bool Send(const std::string& message);
  // Receives one whole message into `*message`. False on a short read, a
  // closed peer, a time-out or a declared length over kMaxMessageSize.
  bool Recv(std::string& message);

  // The descriptor. Reading it directly skips what Recv has read ahead.
  int fd() const { return fd_; }

 protected:
  int fd_ = -1;
  bool read_ahead_ = false;

 private:
  // Reads until `need` unread bytes are buffered; false on a closed peer, a
  // time-out or an error.
  bool Fill(size_t need, CallDeadline& deadline);

  std::string in_;     // bytes read from the socket...
  size_t in_pos_ = 0;  // ...of which those before this offset are used
};

class DomainSockConnection : public SockConnection {
 public:
  explicit DomainSockConnection(std::string path) : path_(std::move(path)) { read_ahead_ = true; }
  ~DomainSockConnection() override;
  // Connects within `timeout` seconds; the same bound then applies to each
  // Send and Recv. False on failure.
  bool Connect(long timeout);

 private:
  std::string path_;
};

}  // namespace kestdaemon

#endif  // KESTDAEMON_SOCK_CONNECTION_H_
