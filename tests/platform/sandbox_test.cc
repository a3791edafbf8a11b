// The sandbox itself: the fixed paths are private tmpfs and syslog lines are
// captured. The test users are looked up by the C library's tests.
#include <gtest/gtest.h>
#include <sys/statfs.h>
#include <syslog.h>

#include "support/sandbox.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

TEST(SandboxTest, FixedPathsArePrivateTmpfs) {
  for (const char* path : {"/run", "/var/run", "/tmp", "/var/packages", "/volume1", "/etc/kest"}) {
    struct statfs fs;
    ASSERT_EQ(0, statfs(path, &fs)) << path;
    EXPECT_EQ(0x01021994, static_cast<long>(fs.f_type)) << path << " is not tmpfs";
  }
}

TEST(SandboxTest, SyslogIsCaptured) {
  SyslogCapture::Instance().Clear();
  syslog(LOG_ERR, "sandbox probe %d", 42);
  ASSERT_TRUE(SyslogCapture::Instance().WaitFor("sandbox probe 42"));
  auto lines = SyslogCapture::Instance().Matching("sandbox probe");
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("sandbox probe 42", lines[0].text);
  EXPECT_EQ(LOG_ERR, lines[0].priority & 7);
}

}  // namespace
}  // namespace kesttest
