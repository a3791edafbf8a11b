// The forked task runner on the real system.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>

#include "common/error.h"
#include "common/sdk/task.h"
#include "module/api_runner.h"
#include "support/request_guard.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::sdk::ForkTask;

pid_t g_test_pid = 0;

// Marks a child that ran the exit handlers it inherited.
void ExitHandlerMark() {
  if (getpid() != g_test_pid) WriteFile("/tmp/task_exit_handler_ran", "yes");
}

class TaskTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    g_test_pid = getpid();
    atexit(ExitHandlerMark);
  }
  void SetUp() override {
    SyslogCapture::Instance().Clear();
    errno = 0;
  }
};

TEST_F(TaskTest, EachThrowKindGivesOneLineAndExitZero) {
  struct Case {
    const char* what;
    std::function<void()> task;
    int line;  // 0: no log line
    std::string text;
  };
  const Case cases[] = {
      {"returns", [] {}, 0, ""},
      {"module error", [] { throw Error(kestondri::kErrShare, "x"); }, 33,
       "Failed to execute, 800 x"},
      {"module error without reason", [] { throw Error(kestondri::kErrExecute); }, 33,
       "Failed to execute, 121 "},
      {"module error with errno",
       [] {
         errno = ENOENT;
         throw Error(kestondri::kErrUser, "owner");
       },
       33, "Failed to execute, 801 owner [err: No such file or directory]"},
      {"standard exception", [] { throw std::runtime_error("boom %s"); }, 35,
       "Failed to execute, boom %s"},
      {"bad_alloc", [] { throw std::bad_alloc(); }, 35, "Failed to execute, std::bad_alloc"},
      {"anything else", [] { throw 42; }, 37, "Failed to execute"},
  };
  for (const auto& c : cases) {
    SyslogCapture::Instance().Clear();
    RequestGuard guard;
    ForkTask task(1);
    EXPECT_TRUE(task.DoTask(c.task)) << c.what;
    const pid_t child = task.pid();
    EXPECT_GT(child, 0) << c.what;
    EXPECT_TRUE(AllExitedZero(guard.Finish(), 1)) << c.what;
    const std::vector<std::string> expected =
        c.line ? std::vector<std::string>{LogLine(kTaskHeader, c.line, "DoTask", c.text, child)}
               : std::vector<std::string>{};
    EXPECT_EQ(expected, CapturedLines()) << c.what;
  }
}

TEST_F(TaskTest, TaskRunsOnlyInTheChildWhichLeavesWithoutCleanUp) {
  const std::string ran = "/tmp/task_ran";
  unlink(ran.c_str());
  unlink("/tmp/task_exit_handler_ran");
  // Buffered output of the parent must not be written a second time by the
  // child.
  FILE* out = fopen("/tmp/task_stdio", "w");
  ASSERT_NE(nullptr, out);
  fputs("once", out);
  {
    RequestGuard guard;
    ForkTask task(1);
    ASSERT_TRUE(task.DoTask([&] { WriteFile(ran, std::to_string(getpid())); }));
    const pid_t child = task.pid();
    EXPECT_TRUE(AllExitedZero(guard.Finish(), 1));
    EXPECT_EQ(std::to_string(child), ReadFile(ran));
    EXPECT_NE(getpid(), child);
  }
  fclose(out);
  EXPECT_EQ("once", ReadFile("/tmp/task_stdio"));
  EXPECT_NE(0, access("/tmp/task_exit_handler_ran", F_OK)) << "the child ran exit handlers";
}

}  // namespace
}  // namespace kesttest
