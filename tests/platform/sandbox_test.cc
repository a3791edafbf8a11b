// The sandbox itself: the fixed paths are private tmpfs, the test users
// exist, and syslog lines are captured.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
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

TEST(SandboxTest, TestUsersExist) {
  for (const auto& user : TestUsers()) {
    passwd* pw = getpwnam(user.name);
    ASSERT_NE(nullptr, pw) << user.name;
    EXPECT_EQ(user.uid, pw->pw_uid);
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
