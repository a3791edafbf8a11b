// Building the exact log lines the module is expected to write, and reading
// what it wrote.
#ifndef KEST_TESTS_MODULE_LOG_LINES_H_
#define KEST_TESTS_MODULE_LOG_LINES_H_

#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/syslog_capture.h"

namespace kesttest {

// "<file>:<line> (<pid>, <euid>) (<func>) <text>".
inline std::string LogLine(const std::string& file, int line, const std::string& func,
                           const std::string& text, pid_t pid = getpid(), uid_t euid = geteuid()) {
  return file + ":" + std::to_string(line) + " (" + std::to_string(pid) + ", " +
         std::to_string(euid) + ") (" + func + ") " + text;
}

// The texts captured since the last Clear(), once the log went quiet.
inline std::vector<std::string> CapturedLines() {
  SyslogCapture::Instance().Settle(50);
  std::vector<std::string> out;
  for (const auto& line : SyslogCapture::Instance().Lines()) out.push_back(line.text);
  return out;
}

constexpr char kTaskHeader[] = "../../..//src/include/common/sdk/task.h";
constexpr char kOndriApiHeader[] = "../../..//src/include/webapi/ondri_api.h";

}  // namespace kesttest

#endif  // KEST_TESTS_MODULE_LOG_LINES_H_
