// The sandbox itself: the fixed paths every test writes are private tmpfs,
// never the machine's own. (Every exact log line of the other tests shows
// that syslog is captured; the C library's tests look the test users up.)
#include <gtest/gtest.h>
#include <sys/statfs.h>

namespace {

TEST(SandboxTest, FixedPathsArePrivateTmpfs) {
  for (const char* path : {"/run", "/var/run", "/tmp", "/var/packages", "/volume1", "/etc/kest"}) {
    struct statfs fs;
    ASSERT_EQ(0, statfs(path, &fs)) << path;
    EXPECT_EQ(0x01021994, static_cast<long>(fs.f_type)) << path << " is not tmpfs";
  }
}

}  // namespace
