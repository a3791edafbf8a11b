// Failures only the platform double can force: lookups with chosen platform
// error codes, failed switches, a failed fork; and counting that no platform
// call was made.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "common/error.h"
#include "common/sdk/credentials.h"
#include "common/sdk/task.h"
#include "double/platform_double.h"
#include "kest/klib.h"
#include "module/api_runner.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
#include "support/thrown.h"
#include "webapi/ondri_api.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::sdk::ForkTask;
using kestondri::sdk::SDKCredentials;

class DoubleTest : public testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    PlatformDouble::Reset();
    SyslogCapture::Instance().Clear();
    errno = 0;
  }
  void TearDown() override {
    PlatformDouble::Reset();
    BecomeRoot();
  }
};

TEST_F(DoubleTest, GuardThatChangedNothingMakesNoPlatformCall) {
  for (const char* user : {"", "root", "carol"}) {
    BecomeRoot();
    {
      std::unique_ptr<SDKCredentials> credentials(*user ? new SDKCredentials(user)
                                                        : new SDKCredentials());
      PlatformDouble::Reset();
    }
    EXPECT_EQ(0, PlatformDouble::TotalCalls()) << "'" << user << "'";
    EXPECT_EQ(0u, geteuid());
  }
  {
    SDKCredentials credentials("ann");
    PlatformDouble::Reset();
  }
  EXPECT_EQ(1, PlatformDouble::Calls("ResetCredentialsByName"));
}

TEST_F(DoubleTest, LookupFailureMessageSkipsTheErrorCodesWorthOfText) {
  const std::string text = "KESTUserGetByUID failed, err=";
  struct Case {
    int code;
    std::string message;
  };
  const Case cases[] = {
      {0, text}, {3, "TUserGetByUID failed, err="}, {28, "="}, {29, ""},
      {30, ""},  {KLIB_ERR_USER_NOT_FOUND, ""},     {-1, ""},
  };
  const std::string expr = "Failed [0 > KESTUserGetByUID(euid_, &user_info) || !user_info]";
  for (const auto& c : cases) {
    SyslogCapture::Instance().Clear();
    PlatformDouble::FailNext("KESTUserGetByUID", c.code);
    {
      RequestGuard guard;
      EXPECT_EQ("503 " + c.message, Thrown<Error>([] { SDKCredentials credentials; })) << c.code;
    }
    const std::string line = c.message.empty() ? expr : expr + ", reason: " + c.message;
    EXPECT_EQ(std::vector<std::string>{LogLine("credentials.cc", 22, "SDKCredentials", line)},
              CapturedLines())
        << c.code;
  }
  EXPECT_EQ(0, PlatformDouble::Calls("KESTUserFree")) << "nothing to free after a failure";
}

TEST_F(DoubleTest, FailedSwitchBackThrowsUnlessUnwinding) {
  {
    RequestGuard guard;
    guard.ExpectIdentityAfter("ann");
    EXPECT_EQ("503 ", Thrown<Error>([] {
                SDKCredentials credentials;
                credentials.AsUser("ann");
                PlatformDouble::FailNext("ResetCredentialsByName");
              }));
  }
  EXPECT_EQ(std::vector<std::string>{LogLine("credentials.cc", 39, "~SDKCredentials",
                                             "Failed [!ResetCredentialsByName(username_)]",
                                             getpid(), kAnnUid)},
            CapturedLines());

  // Already unwinding: logged, not thrown again (that would terminate).
  BecomeRoot();
  SyslogCapture::Instance().Clear();
  {
    RequestGuard guard;
    guard.ExpectIdentityAfter("ann");
    try {
      SDKCredentials credentials;
      credentials.AsUser("ann");
      PlatformDouble::FailNext("ResetCredentialsByName");
      throw std::runtime_error("first");
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ("first", e.what());
    }
  }
  EXPECT_EQ(1u, CapturedLines().size());
}

TEST_F(DoubleTest, FailedForkRunsNothing) {
  bool ran = false;
  {
    RequestGuard guard;
    PlatformDouble::FailNext("KLIBCProcForkEx");
    ForkTask task(1);
    EXPECT_FALSE(task.DoTask([&] { ran = true; }));
    EXPECT_GT(0, task.pid());
    EXPECT_TRUE(guard.Finish().empty());
  }
  EXPECT_FALSE(ran);
  EXPECT_EQ(0, errno);
  EXPECT_EQ(
      std::vector<std::string>{LogLine(kTaskHeader, 43, "DoTask",
                                       "Failed to fork [err: Resource temporarily unavailable]")},
      CapturedLines());
}

TEST_F(DoubleTest, FailedForkAfterAnswerKeepsTheSuccess) {
  KEST::APIRequest request(Json::Value(Json::objectValue), 0, "carol", "s", true);
  KEST::APIResponse response;
  PlatformDouble::FailNext("KLIBCProcForkEx");
  {
    RequestGuard guard;
    kestondri::webapi::OndriAPIRun<kestondri::webapi::OndriAPI>(&request, &response);
    EXPECT_TRUE(guard.Finish().empty());
  }
  EXPECT_EQ(1, PlatformDouble::Calls("KLIBCProcForkEx"));
  EXPECT_TRUE(response.IsSuccess());
  EXPECT_EQ(
      std::vector<std::string>{LogLine(kTaskHeader, 43, "DoTask",
                                       "Failed to fork [err: Resource temporarily unavailable]")},
      CapturedLines());
}

}  // namespace
}  // namespace kesttest
