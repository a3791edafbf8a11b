// The module's platform access layer on the real platform: SDKShare,
// SharePathMgr and User; the test double only where the platform cannot be
// made to fail.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/error.h"
#include "common/sdk/share.h"
#include "common/sdk/share_path.h"
#include "double/platform_double.h"
#include "kest/klib.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "support/thrown.h"

namespace kestondri {
namespace {

using kesttest::WriteSharesConf;

using kesttest::PlatformDouble;
using kesttest::SyslogCapture;
using kesttest::Thrown;
using sdk::SDKShare;
using sdk::SharePathMgr;
using sdk::User;

class SDKShareTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteSharesConf(
        "[global]\nuser home = yes\n"
        "[photo]\npath = /volume1/photo\nhide unreadable = yes\nrecycle bin = yes\n"
        "ftp disable list = yes\nftp disable download = yes\n"
        "[docs]\npath = /volume1/docs\nread only = yes\nwrite list = ann\n"
        "[vault]\npath = /volume2/vault\nencrypted = yes\n"
        "[homes]\npath = /volume1/homes\n");
    PlatformDouble::Reset();
    SyslogCapture::Instance().Clear();
  }
  void TearDown() override { PlatformDouble::Reset(); }
};

TEST_F(SDKShareTest, UnknownShareThrows800WithTheBareName) {
  EXPECT_EQ("800 nosuch", Thrown<Error>([] { SDKShare share("nosuch"); }));
  ASSERT_TRUE(SyslogCapture::Instance().WaitFor("(SDKShare) Failed ["));
  const auto lines = SyslogCapture::Instance().Matching("share.cc:34 (");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos,
            lines[0].text.find("(SDKShare) Failed [0 > KESTShareGet(share_name.c_str(), "
                               "&share_info_) || !share_info_], reason: nosuch"));
}

TEST_F(SDKShareTest, AnswersFromTheConfiguration) {
  SDKShare photo("photo");
  EXPECT_TRUE(photo.IsHideUnReadable());
  EXPECT_TRUE(photo.IsEnableRecycleBin());
  EXPECT_FALSE(photo.IsEncryption());
  EXPECT_TRUE(photo.CanBeIndexed());
  EXPECT_EQ(0x5u, photo.GetFTPPrivilege());
  EXPECT_TRUE(photo.IsSpaceEnough());
  EXPECT_EQ("/volume1/@kestondri/queue/photo.queue", photo.GetQueuePath());
  EXPECT_EQ("/volume1/@kestondri/index/photo", photo.GetDBPath());
  EXPECT_EQ("fileindex_photo", photo.GetDBName());
  EXPECT_EQ(KEST_SHARE_PRIV_RW, photo.GetPrivilege("dave"));

  // Encrypted or read-only: either one keeps a share out of the index.
  EXPECT_FALSE(SDKShare("docs").CanBeIndexed());
  SDKShare vault("vault");
  EXPECT_FALSE(vault.CanBeIndexed());
  EXPECT_TRUE(vault.IsEncryption());
  EXPECT_FALSE(vault.IsHideUnReadable());
  EXPECT_FALSE(vault.IsEnableRecycleBin());

  SDKShare docs("docs");
  EXPECT_EQ(KEST_SHARE_PRIV_RW, docs.GetPrivilege("ann"));
  EXPECT_EQ(KEST_SHARE_PRIV_NA, docs.GetPrivilege("bob"));
  EXPECT_EQ(KEST_SHARE_PRIV_NA, docs.GetPrivilege("nosuchuser"));
}

TEST_F(SDKShareTest, CachedAnswersAskThePlatformOnce) {
  SDKShare photo("photo");
  photo.GetDBPath();
  photo.GetDBPath();
  photo.GetQueuePath();
  photo.GetQueuePath();
  photo.GetDBName();
  photo.GetDBName();
  photo.GetPrivilege("ann");
  photo.GetPrivilege("ann");
  photo.GetPrivilege("bob");
  EXPECT_EQ(1, PlatformDouble::Calls("FILEIDXDBPathCompose"));
  EXPECT_EQ(1, PlatformDouble::Calls("FILEIDXQueuePathCompose"));
  EXPECT_EQ(1, PlatformDouble::Calls("FILEIDXGetIndexID"));
  EXPECT_EQ(2, PlatformDouble::Calls("KESTShareUserPrivCalc"));
}

TEST_F(SDKShareTest, OnlyTwoQuotaCodesMeanNotEnough) {
  struct Case {
    int code;
    bool enough;
  } cases[] = {{0x2900, false}, {0x2400, false}, {0x0300, true}, {0, true}, {0x2000, true}};
  SDKShare photo("photo");
  for (const auto& c : cases) {
    PlatformDouble::FailNext("KESTQuotaIsEnough", c.code);
    EXPECT_EQ(c.enough, photo.IsSpaceEnough()) << std::hex << c.code;
  }
}

TEST_F(SDKShareTest, PlatformFailuresThrowWithTheirTexts) {
  struct Case {
    const char* function;
    int line;
    ErrorCode code;
    const char* reason;
    std::function<void(SDKShare&)> call;
  } cases[] = {
      {"KLIBShareIsEncryptedGet", 73, kErrPlatform, "KLIBShareis_encryptedGet failed, share=photo",
       [](SDKShare& s) { s.CanBeIndexed(); }},
      {"KLIBShareIsReadOnlyGet", 75, kErrPlatform, "KLIBShareis_readonlyGet failed, share=photo",
       [](SDKShare& s) { s.CanBeIndexed(); }},
      {"KLIBShareIsEncryptionGet", 87, kErrPlatform, "KLIBShareIsEncryptionGet failed, share=photo",
       [](SDKShare& s) { s.IsEncryption(); }},
      {"KLIBShareRecycleStatusGet", 99, kErrPlatform,
       "KLIBShareRecycleStatusGet failed, share=photo",
       [](SDKShare& s) { s.IsEnableRecycleBin(); }},
      {"FILEIDXQueuePathCompose", 156, kErrPlatform, "FILEIDXQueuePathCompose failed, share=photo",
       [](SDKShare& s) { s.GetQueuePath(); }},
      {"FILEIDXDBPathCompose", 170, kErrPlatform, "FILEIDXDBPathCompose failed, share=photo",
       [](SDKShare& s) { s.GetDBPath(); }},
      {"FILEIDXGetIndexID", 184, kErrPlatform, "FILEIDXGetIndexID failed, share=photo",
       [](SDKShare& s) { s.GetDBName(); }},
      {"KLIBCSzListAlloc", 54, kErrExecute, "KLIBCSzListAlloc failed",
       [](SDKShare&) { SDKShare::Enum(); }},
      {"KLIBShareEnum", 56, kErrExecute, "KLIBShareEnum failed",
       [](SDKShare&) { SDKShare::Enum(); }},
  };
  for (const auto& c : cases) {
    SDKShare photo("photo");
    SyslogCapture::Instance().Clear();
    PlatformDouble::FailNext(c.function);
    EXPECT_EQ(std::to_string(c.code) + " " + c.reason, Thrown<Error>([&] { c.call(photo); }));
    const std::string site = "share.cc:" + std::to_string(c.line) + " (";
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor(site)) << c.function;
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor(std::string("reason: ") + c.reason));
  }
  // A failure is not cached: the next call asks again and succeeds.
  SDKShare photo("photo");
  PlatformDouble::FailNext("FILEIDXDBPathCompose");
  EXPECT_THROW(photo.GetDBPath(), Error);
  EXPECT_EQ("/volume1/@kestondri/index/photo", photo.GetDBPath());
  // Without the lists of the platform a hidden flag reads as unset.
  PlatformDouble::FailNext("KLIBShareHideUnreadableGet");
  EXPECT_FALSE(photo.IsHideUnReadable());
}

// SharePathMgr: users see "/" + share + rest, and their own home as /home.
class SharePathTest : public SDKShareTest {
 protected:
  static User MakeUser(const char* name, bool home_enabled) {
    User user;
    user.name_ = name;
    user.home_enabled_ = home_enabled;
    return user;
  }
};

TEST_F(SharePathTest, VolumePathsBecomeSharePaths) {
  struct Case {
    const char* vol_path;
    const char* user;
    bool home_enabled;
    const char* expected;
  } cases[] = {
      {"/volume1/photo/trip/a.jpg", "ann", true, "/photo/trip/a.jpg"},
      {"/volume1/photo", "ann", true, "/photo"},
      {"/volume1/homes/ann/docs/a.txt", "ann", true, "/home/docs/a.txt"},
      {"/volume1/homes/ann", "ann", true, "/home"},
      {"/volume1/homes/bob/x", "ann", true, "/homes/bob/x"},
      {"/volume1/homes/ann2/x", "ann", true, "/homes/ann2/x"},
      {"/volume1/homes/ann/x", "ann", false, "/homes/ann/x"},  // no home service
      {"/volume1/homes", "ann", true, "/homes"},
      {"/volume2/vault/k", "dave", true, "/vault/k"},
  };
  for (const auto& c : cases) {
    User user = MakeUser(c.user, c.home_enabled);
    EXPECT_EQ(c.expected, SharePathMgr::GetSharePath(c.vol_path, user)) << c.vol_path;
  }
}

TEST_F(SharePathTest, PathInNoShareIsEmptyWithOneLogLine) {
  User user = MakeUser("ann", true);
  EXPECT_EQ("", SharePathMgr::GetSharePath("/volume1/elsewhere/a", user));
  ASSERT_TRUE(SyslogCapture::Instance().WaitFor("KESTShareNamePathGet failed"));
  SyslogCapture::Instance().Settle();
  const auto lines = SyslogCapture::Instance().Matching("KESTShareNamePathGet failed");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos,
            lines[0].text.find("share_path.cc:15 (" + std::to_string(getpid()) +
                               ", 0) (GetSharePath) KESTShareNamePathGet failed, "
                               "vol_path=/volume1/elsewhere/a"));
}

TEST_F(SharePathTest, HomePathIsAskedOnceAndFailuresThrow) {
  User user = MakeUser("ann", true);
  EXPECT_EQ("/volume1/homes/ann", user.GetHomePath());
  EXPECT_EQ("/volume1/homes/ann", user.GetHomePath());
  EXPECT_EQ(1, PlatformDouble::Calls("KESTServiceHomePathGet"));

  User without = MakeUser("ann", false);
  EXPECT_EQ("", without.GetHomePath());
  EXPECT_EQ(1, PlatformDouble::Calls("KESTServiceHomePathGet"));

  User unknown = MakeUser("nosuchuser", true);
  EXPECT_EQ("502 KESTServiceHomePathGet failed, user=nosuchuser",
            Thrown<Error>([&] { unknown.GetHomePath(); }));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("../../..//src/include/common/sdk/user.h:47 ("));
  // Through GetSharePath the home lookup's failure is the only throw.
  EXPECT_THROW(SharePathMgr::GetSharePath("/volume1/homes/x/y", unknown), Error);
}

}  // namespace
}  // namespace kestondri
