// The failure log: exact line text, the errno rule.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>

#include "common/log.h"
#include "module/api_runner.h"
#include "support/syslog_capture.h"

namespace kestondri {
namespace {

using kesttest::SyslogCapture;

std::string Prefix(const char* file, int line, const char* func) {
  return kesttest::LogLine(file, line, func, "");
}

// Runs `write` with errno set to `errno_before` and returns the one line it
// logged (a test failure when it logged another number of lines).
std::string OneLine(int errno_before, const std::function<void()>& write, int* errno_after) {
  SyslogCapture::Instance().Clear();
  errno = errno_before;
  write();
  *errno_after = errno;
  SyslogCapture::Instance().Settle(50);
  const auto lines = SyslogCapture::Instance().Lines();
  EXPECT_EQ(1u, lines.size());
  if (lines.size() != 1) return "";
  EXPECT_EQ(3, lines[0].priority & 7) << "error priority";
  return lines[0].text;
}

TEST(LogTest, LinesAndTheErrnoRule) {
  const LogSite site{"share.cc", 34, "SDKShare"};
  const std::string prefix = Prefix("share.cc", 34, "SDKShare");
  struct Case {
    const char* what;
    std::function<void()> write;
    int errno_before;
    std::string text;
  };
  const Case cases[] = {
      {"plain", [&] { LogError(site, "Failed to fork"); }, 0, "Failed to fork"},
      {"formatted", [&] { LogError(site, "Failed to execute, %d %s", 800, "x"); }, 0,
       "Failed to execute, 800 x"},
      {"with errno", [&] { LogError(site, "Failed to fork"); }, ENOENT,
       "Failed to fork [err: No such file or directory]"},
      {"failed",
       [&] { LogFailed(site, "0 > KLIBShareIsEncryptedGet(share_info_, &is_encrypted)"); }, 0,
       "Failed [0 > KLIBShareIsEncryptedGet(share_info_, &is_encrypted)]"},
      {"failed with errno", [&] { LogFailed(site, "!conn.Connect(kElasticdConnectTimeout)"); },
       EACCES, "Failed [!conn.Connect(kElasticdConnectTimeout)] [err: Permission denied]"},
      {"failed with reason", [&] { LogFailed(site, "!ok", "no share, name: photo"); }, 0,
       "Failed [!ok], reason: no share, name: photo"},
      {"reason holds format characters", [&] { LogFailed(site, "%s%n", "100% %s %m done"); }, 0,
       "Failed [%s%n], reason: 100% %s %m done"},
      {"reason with errno", [&] { LogFailed(site, "!ok", "r"); }, EIO,
       "Failed [!ok], reason: r [err: Input/output error]"},
  };
  for (const auto& c : cases) {
    int errno_after = -1;
    EXPECT_EQ(prefix + c.text, OneLine(c.errno_before, c.write, &errno_after)) << c.what;
    EXPECT_EQ(0, errno_after) << c.what << ": errno is reset (or stays 0)";
  }
}

TEST(LogTest, ThrowFailedLogsThenThrows) {
  struct Case {
    Error error;
    std::string text;
  };
  const Case cases[] = {
      {Error(kErrShare, "photo"), "Failed [0 > KESTShareGet(name, &info)], reason: photo"},
      {Error(kErrCredentials), "Failed [0 > KESTShareGet(name, &info)]"},
  };
  for (const auto& c : cases) {
    int errno_after = -1;
    const std::string line = OneLine(
        0,
        [&] {
          try {
            ThrowFailed({"share.cc", 60, "SDKShare"}, "0 > KESTShareGet(name, &info)", c.error);
            ADD_FAILURE() << "did not throw";
          } catch (const Error& e) {
            EXPECT_EQ(c.error.code(), e.code());
            EXPECT_EQ(c.error.reason(), e.reason());
          }
        },
        &errno_after);
    EXPECT_EQ(Prefix("share.cc", 60, "SDKShare") + c.text, line);
  }
}

TEST(LogTest, LongTextIsNotCut) {
  const std::string reason(3000, 'r');
  int errno_after = -1;
  const std::string line = OneLine(
      0,
      [&] {
        LogFailed({"a.cc", 1, "F"}, "e", reason);
      },
      &errno_after);
  EXPECT_NE(std::string::npos, line.find(reason));
}

}  // namespace
}  // namespace kestondri
