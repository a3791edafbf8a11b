// A scriptable stand-in for the search daemon: listens on the daemon's
// socket inside the sandbox, records every request and plays scripted
// replies, one per connection, chosen by the request's "command".
//
// Replies are lists of steps: framed JSON or arbitrary text, raw bytes
// (a length prefix that lies), a pause, holding the connection until the
// client goes away, or closing early. A command with nothing scripted gets
// its connection closed after the request was read.
//
// Each connection is served on its own thread, so a held or slow reply does
// not hold up another client. The object must outlive every client it
// serves; the destructor releases held replies, joins the threads and
// removes the socket file. Methods are thread-safe.
#ifndef KEST_TESTS_SUPPORT_FAKE_DAEMON_H_
#define KEST_TESTS_SUPPORT_FAKE_DAEMON_H_

#include <json/json.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kesttest {

class DaemonReply {
 public:
  // One framed message holding `message`'s compact text.
  DaemonReply& Message(const Json::Value& message);
  // One framed message holding `text` as it is (need not be JSON).
  DaemonReply& Text(const std::string& text);
  // Bytes written as they are, without a frame.
  DaemonReply& Raw(const std::string& bytes);
  // A frame header announcing `length` bytes; what follows is up to the
  // script (typically fewer bytes, then Close()).
  DaemonReply& Header(uint32_t length);
  DaemonReply& Pause(int milliseconds);
  // Keeps the connection open, sending nothing, until the client closes it
  // (or is killed) or the daemon is destroyed.
  DaemonReply& HoldUntilClientGoes();
  // Closes the connection here; later steps are not played.
  DaemonReply& Close();

  // The usual endings.
  static DaemonReply Success(const Json::Value& data = Json::Value());
  static DaemonReply Failure(int code, const std::string& msg);

  struct Step {
    enum Kind { kBytes, kPause, kHold, kClose } kind;
    std::string bytes;
    int milliseconds = 0;
  };
  const std::vector<Step>& steps() const { return steps_; }

 private:
  std::vector<Step> steps_;
};

class FakeDaemon {
 public:
  static constexpr char kSocketPath[] = "/var/run/kestelasticd.sock";

  explicit FakeDaemon(const std::string& path = kSocketPath);
  ~FakeDaemon();
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;

  // Queues `reply` for the next connection whose request has "command"
  // `command`; "*" matches a request that is not JSON or has no command.
  void On(const std::string& command, DaemonReply reply);

  // Requests received so far, in arrival order: the text as sent, and the
  // parsed value (null when it was not JSON).
  std::vector<std::string> RawRequests();
  std::vector<Json::Value> Requests();
  // Requests with this command.
  std::vector<Json::Value> Requests(const std::string& command);
  int Connections();
  // Waits until `count` requests have arrived; false on time-out.
  bool WaitForRequests(size_t count, int timeout_ms = 10000);
  // Waits until every connection so far has been closed by either side.
  bool WaitIdle(int timeout_ms = 10000);
  // WaitIdle() of every daemon alive in this process: a check of the
  // process's descriptors must not count the daemon's side of a connection
  // that the client has already closed.
  static bool WaitAllIdle(int timeout_ms = 10000);

 private:
  void AcceptLoop();
  void Serve(int fd);

  std::string path_;
  int listen_fd_ = -1;
  int stop_pipe_[2] = {-1, -1};
  std::thread acceptor_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::deque<DaemonReply>> replies_;
  std::vector<std::string> raw_requests_;
  std::vector<std::thread> servers_;
  int connections_ = 0;
  int open_connections_ = 0;
  bool stopping_ = false;
};

// One framed message: the body's length (4 bytes, network order), the body.
std::string Frame(const std::string& body);

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_FAKE_DAEMON_H_
