// Acting as the login user on the real system.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "common/error.h"
#include "common/sdk/credentials.h"
#include "kest/klib.h"
#include "module/api_runner.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
#include "support/thrown.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::sdk::SDKCredentials;

class CredentialsTest : public testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    SyslogCapture::Instance().Clear();
    errno = 0;
  }
  void TearDown() override { BecomeRoot(); }
};

TEST_F(CredentialsTest, NamedGuardActsAsTheUserOrAsRootForAdministrators) {
  struct Case {
    const char* user;
    uid_t acts_as_uid;
    gid_t acts_as_gid;
  };
  const Case cases[] = {
      {"ann", kAnnUid, kAnnUid},
      {"bob", kBobUid, kBobUid},
      {"dave", kDaveUid, kDaveUid},
      {"KestOndri", kServiceUid, kServiceUid},
      {"carol", 0, 0},
  };
  for (const auto& c : cases) {
    RequestGuard guard;
    // The guard re-applies its target: the process stays the user.
    guard.ExpectIdentityAfter(c.acts_as_uid, c.acts_as_gid);
    {
      SDKCredentials credentials(c.user);
      EXPECT_EQ(c.acts_as_uid, geteuid()) << c.user;
      EXPECT_EQ(c.acts_as_gid, getegid()) << c.user;
    }
    guard.Finish();
  }
  EXPECT_TRUE(CapturedLines().empty());
}

TEST_F(CredentialsTest, DefaultGuardRestoresThePreviousUser) {
  for (const char* outer : {"root", "bob"}) {
    ASSERT_TRUE(ResetCredentialsByName(outer));
    const uid_t before = geteuid();
    {
      SDKCredentials credentials;
      credentials.AsUser("ann");
      EXPECT_EQ(kAnnUid, geteuid());
      credentials.AsUser("carol");
      EXPECT_EQ(0u, geteuid());
      credentials.AsUser("dave");
      EXPECT_EQ(kDaveUid, geteuid());
    }
    EXPECT_EQ(before, geteuid()) << outer;
    EXPECT_EQ(before, getegid()) << outer;
    BecomeRoot();
  }
}

TEST_F(CredentialsTest, DestructorReappliesOnlyWhenTheIdentityChanged) {
  struct Case {
    const char* what;
    const char* guard_user;  // null: default guard
    const char* switch_inside;
    uid_t after;
  };
  const Case cases[] = {
      // A named guard re-applies its target, not the identity before it.
      {"named, switched away", "ann", "bob", kAnnUid},
      {"named, switched back to the start", "ann", "root", 0},
      {"named administrator", "carol", nullptr, 0},
      // ... and the login user's own account, even for an administrator.
      {"named administrator, switched away", "carol", "dave", kCarolUid},
      {"default, switched away", nullptr, "bob", 0},
      {"default, untouched", nullptr, nullptr, 0},
  };
  for (const auto& c : cases) {
    BecomeRoot();
    {
      std::unique_ptr<SDKCredentials> credentials(c.guard_user ? new SDKCredentials(c.guard_user)
                                                               : new SDKCredentials());
      if (c.switch_inside) {
        ASSERT_TRUE(ResetCredentialsByName(c.switch_inside)) << c.what;
      }
    }
    EXPECT_EQ(c.after, geteuid()) << c.what;
    EXPECT_EQ(c.after, getegid()) << c.what;
  }
}

// An unknown login user is answered 503 by the handler (ondri_api_test); a
// failed switch keeps the identity and releases the platform lock.
TEST_F(CredentialsTest, FailedSwitchKeepsTheIdentity) {
  SDKCredentials credentials;
  credentials.AsUser("ann");
  EXPECT_THROW(credentials.AsUser(""), Error);
  EXPECT_EQ(kAnnUid, geteuid());
  EXPECT_TRUE(kestondri::sdk::SDKMutex().TryLock()) << "lock released after the failure";
  kestondri::sdk::SDKMutex().Unlock();
}

TEST_F(CredentialsTest, EffectiveUidWithoutUserFailsWith503) {
  ASSERT_EQ(0, seteuid(54321));
  errno = 0;
  // The platform's code (user not found) is longer than the text: nothing of
  // the text is left.
  EXPECT_EQ("503 ", Thrown<Error>([] { SDKCredentials credentials; }));
  EXPECT_EQ(std::vector<std::string>{LogLine(
                "credentials.cc", 22, "SDKCredentials",
                "Failed [0 > KESTUserGetByUID(euid_, &user_info) || !user_info]", getpid(), 54321)},
            CapturedLines());
}

}  // namespace
}  // namespace kesttest
