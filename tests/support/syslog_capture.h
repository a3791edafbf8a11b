// Captures what the process and its children write to syslog: inside the
// sandbox /dev/log is a datagram socket read by a background thread.
#ifndef KEST_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
#define KEST_TESTS_SUPPORT_SYSLOG_CAPTURE_H_

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kesttest {

struct SyslogLine {
  int priority;      // facility | level as sent
  std::string text;  // the message after syslog's own header
};

class SyslogCapture {
 public:
  static SyslogCapture& Instance();

  // Binds /dev/log and starts the reader. Called by the sandbox.
  void Start();
  // Forgets everything captured so far.
  void Clear();
  // Everything captured since the last Clear().
  std::vector<SyslogLine> Lines();
  // Lines whose text contains `needle`.
  std::vector<SyslogLine> Matching(const std::string& needle);
  // Waits until `count` lines contain `needle`; true when they did in time.
  bool WaitFor(const std::string& needle, size_t count = 1, int timeout_ms = 3000);
  // Waits until no line has arrived for `quiet_ms`.
  void Settle(int quiet_ms = 50);

 private:
  SyslogCapture() = default;
  void ReadLoop();

  int fd_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<SyslogLine> lines_;
  long generation_ = 0;
};

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_SYSLOG_CAPTURE_H_
