// File and string utilities on real files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/util.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "support/thrown.h"

namespace kestondri {
namespace {

using kesttest::SyslogCapture;
using kesttest::Thrown;
using kesttest::WriteFile;

TEST(PathTextTest, SplittingAndExtensions) {
  struct Case {
    const char* path;
    const char* base;
    const char* dir;
    const char* ext;
  } cases[] = {
      {"/a/b/c.txt", "c.txt", "/a/b", "txt"},
      {"file", "file", "file", ""},  // no '/': the whole path, not "."
      {"/file", "file", "", ""},
      {"/a/b/", "", "/a/b", ""},
      {"/a.b/c", "c", "/a.b", ""},  // only the last component counts
      {"/x/archive.tar.GZ", "archive.tar.GZ", "/x", "GZ"},
      {"/home/.bashrc", ".bashrc", "/home", "bashrc"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.base, Basename(c.path)) << c.path;
    EXPECT_EQ(c.dir, Dirname(c.path)) << c.path;
    EXPECT_EQ(c.ext, GetFileExtension(c.path, false)) << c.path;
  }
  EXPECT_EQ("gz", GetFileExtension("/x/archive.tar.GZ", true));
}

TEST(PathTextTest, StringsAndPrefixes) {
  EXPECT_TRUE(StringStartWith("/volume1/x", "/volume1"));
  EXPECT_TRUE(StringStartWith("abc", ""));
  EXPECT_FALSE(StringStartWith("x/volume1", "/volume1"));
  EXPECT_FALSE(StringStartWith("ab", "abc"));
  EXPECT_EQ("a b", Trim(" \t a b\n\v"));
  EXPECT_EQ("", Trim(" \t\r\n "));
  EXPECT_EQ("a ", LTrim("  a "));
  EXPECT_EQ("  a", RTrim("  a \n"));
  EXPECT_EQ("abc\xc3\x89", ToLower("AbC\xc3\x89"));  // bytes above 127 stay
  EXPECT_EQ(GetErrnoStr(ENOENT), std::string(strerror(ENOENT)));
}

TEST(FileTest, KindsOfFiles) {
  WriteFile("/volume1/util/f", "x");
  mkdir("/volume1/util/d", 0755);
  symlink("/volume1/util/f", "/volume1/util/lf");
  symlink("/volume1/util/d", "/volume1/util/ld");
  symlink("ld", "/volume1/util/rel");  // relative: resolved from the cwd
  EXPECT_TRUE(IsFileExist("/volume1/util/f"));
  EXPECT_FALSE(IsFileExist("/volume1/util/lf"));
  EXPECT_FALSE(IsFileExist("/volume1/util/d"));
  EXPECT_TRUE(IsDirExist("/volume1/util/d", false));
  EXPECT_FALSE(IsDirExist("/volume1/util/ld", false));
  EXPECT_TRUE(IsDirExist("/volume1/util/ld", true));
  EXPECT_FALSE(IsDirExist("/volume1/util/lf", true));
  EXPECT_FALSE(IsDirExist("/volume1/util/rel", true));
  EXPECT_FALSE(IsDirExist("/volume1/util/none", true));
  EXPECT_EQ("/volume1/util/d", RealPath("/volume1/util/ld"));
  EXPECT_EQ("", RealPath("/volume1/util/none"));
  EXPECT_TRUE(IsMountPoint("/volume2"));
  EXPECT_FALSE(IsMountPoint("/volume1/util/d"));
  EXPECT_TRUE(CheckACLPerm("/volume1/util/f", 4));
  EXPECT_FALSE(CheckACLPerm("/volume1/util/f", 1));
  EXPECT_FALSE(CheckACLPerm("/volume1/util/none", 7));
}

TEST(FileTest, DirentTypes) {
  struct dirent64 entry {};
  entry.d_type = DT_DIR;
  EXPECT_TRUE(IsDirentDir(&entry, "/volume1"));
  entry.d_type = DT_REG;
  EXPECT_FALSE(IsDirentDir(&entry, "/volume1"));
  entry.d_type = DT_UNKNOWN;  // never a folder, even for one
  EXPECT_FALSE(IsDirentDir(&entry, "/volume1"));
}

TEST(FileTest, UnlinkCopyMoveChown) {
  WriteFile("/volume1/util2/a", "data");
  EXPECT_TRUE(CPFile("/volume1/util2/a", "/volume1/util2/b"));
  EXPECT_EQ("data", kesttest::ReadFile("/volume1/util2/b"));
  EXPECT_TRUE(MVFile("/volume1/util2/b", "/volume2/b"));
  EXPECT_FALSE(IsFileExist("/volume1/util2/b"));
  EXPECT_TRUE(IsFileExist("/volume2/b"));
  EXPECT_FALSE(CPFile("/volume1/util2/none", "/volume1/util2/c"));
  EXPECT_TRUE(Unlink("/volume2/b"));
  EXPECT_TRUE(Unlink("/volume2/b"));  // missing counts as removed
  mkdir("/volume1/util2/dir", 0755);
  EXPECT_FALSE(Unlink("/volume1/util2/dir"));

  EXPECT_TRUE(ChownKestOndri("/volume1/util2/a"));
  struct stat st;
  ASSERT_EQ(0, stat("/volume1/util2/a", &st));
  EXPECT_EQ(kesttest::kServiceUid, st.st_uid);
  EXPECT_EQ(kesttest::kServiceUid, st.st_gid);
  EXPECT_FALSE(ChownKestOndri("/volume1/util2/none"));
}

TEST(ProcessDirTest, WalksDepthFirstAndSurvivesCallbackErrors) {
  WriteFile("/volume1/walk/a/x", "");
  WriteFile("/volume1/walk/a/b/y", "");
  WriteFile("/volume1/walk/z", "");
  symlink("/volume1/walk/a", "/volume1/walk/link");  // not followed
  std::vector<std::string> seen;
  ProcessDir("/volume1/walk", [&seen](const std::string& path) {
    seen.push_back(path);
    if (path == "/volume1/walk/z") throw std::runtime_error("boom");
    if (path == "/volume1/walk/a/x") throw 42;
  });
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(
      (std::vector<std::string>{"/volume1/walk/a", "/volume1/walk/a/b", "/volume1/walk/a/b/y",
                                "/volume1/walk/a/x", "/volume1/walk/link", "/volume1/walk/z"}),
      seen);
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      "(ProcessDir) ProcessDir failed on /volume1/walk/z, reason=boom"));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("util.cc:189 (", 1));
  // A directory is visited before what it holds.
  std::vector<std::string> order;
  ProcessDir("/volume1/walk/a", [&order](const std::string& p) { order.push_back(p); });
  auto pos = [&order](const std::string& p) {
    return std::find(order.begin(), order.end(), p) - order.begin();
  };
  EXPECT_LT(pos("/volume1/walk/a/b"), pos("/volume1/walk/a/b/y"));

  EXPECT_EQ("502 Failed to open dir: /volume1/walk/none",
            Thrown<Error>([] { ProcessDir("/volume1/walk/none", [](const std::string&) {}); }));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      "util.cc:177 (" + std::to_string(getpid()) +
      ", 0) (ProcessDir) Failed [nullptr == (dir = "
      "opendir(full_path.c_str()))], reason: Failed to open dir: /volume1/walk/none"));
}

}  // namespace
}  // namespace kestondri
