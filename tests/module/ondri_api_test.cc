// The request lifecycle and the handler template, with test subclasses, on
// the real system.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/error.h"
#include "kest/json.h"
#include "module/api_runner.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
#include "webapi/ondri_api.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::webapi::OndriAPI;
using kestondri::webapi::OndriAPIRun;

// What the test subclass does, set by each test before the request.
struct Script {
  std::string throw_in;  // phase that throws
  std::function<void()> thrower;
  bool clear_success = false;
};
Script g_script;
std::vector<std::string> g_events;

constexpr char kPostActionsFile[] = "/tmp/ondri_api_post_actions";

class PhaseAPI : public OndriAPI {
 public:
  PhaseAPI(KEST::APIRequest* request, KEST::APIResponse* response) : OndriAPI(request, response) {
    g_events.push_back("construct as " + std::to_string(geteuid()));
  }
  ~PhaseAPI() override { g_events.push_back("destroy"); }

 protected:
  void Phase(const std::string& name) {
    g_events.push_back(name);
    if (g_script.throw_in == name) g_script.thrower();
  }
  void ParseParams() override {
    Phase("ParseParams");
    g_events.push_back("uid " + std::to_string(uid_) + " session " + session_id_);
  }
  void Execute() override {
    Phase("Execute");
    output_["hits"] = Json::Value(Json::arrayValue);
    output_["hits"].append(1);
    if (g_script.clear_success) set_success_ = false;
  }
  void FormOutput() override {
    Phase("FormOutput");
    output_["total"] = 1;
  }
  void PostActions() override {
    struct sigaction action {};
    sigaction(SIGUSR1, nullptr, &action);
    WriteFile(kPostActionsFile, std::to_string(getpid()) + " " + std::to_string(geteuid()) +
                                    (action.sa_handler == SIG_DFL ? " default" : " inherited"));
  }
};

class OndriAPITest : public testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    g_script = Script();
    g_events.clear();
    unlink(kPostActionsFile);
    SyslogCapture::Instance().Clear();
    errno = 0;
  }
  void TearDown() override { BecomeRoot(); }

  KEST::APIRequest Request(const std::string& user) {
    const uid_t uid = user == "ghost" ? 54321 : UserByName(user).uid;
    return KEST::APIRequest(Json::Value(Json::objectValue), uid, user, "sess-" + user,
                            user == "carol");
  }
};

TEST_F(OndriAPITest, PhasesInOrderThenSuccessThenOneChild) {
  struct Case {
    const char* user;
    uid_t acts_as;
  };
  for (const Case& c : {Case{"ann", kAnnUid}, Case{"carol", 0}}) {
    SetUp();
    signal(SIGUSR1, SIG_IGN);
    KEST::APIRequest request = Request(c.user);
    KEST::APIResponse response;
    {
      RequestGuard guard;
      guard.ExpectIdentityAfter(c.acts_as, c.acts_as);
      OndriAPIRun<PhaseAPI>(&request, &response);
      EXPECT_TRUE(AllExitedZero(guard.Finish(), 1)) << c.user;
    }
    signal(SIGUSR1, SIG_DFL);
    const std::vector<std::string> expected = {
        "construct as " + std::to_string(c.acts_as),
        "ParseParams",
        "uid " + std::to_string(UserByName(c.user).uid) + " session sess-" + c.user,
        "Execute",
        "FormOutput",
        "destroy"};
    EXPECT_EQ(expected, g_events) << c.user;
    ASSERT_TRUE(response.IsSuccess()) << c.user;
    EXPECT_EQ(R"({"hits":[1],"total":1})", Json::toString(response.GetData()));
    // PostActions ran in a child, as the user, with default signal handling.
    const std::string post = ReadFile(kPostActionsFile);
    EXPECT_NE(std::to_string(getpid()), post.substr(0, post.find(' ')));
    EXPECT_EQ(" " + std::to_string(c.acts_as) + " default", post.substr(post.find(' ')));
    EXPECT_TRUE(CapturedLines().empty());
  }
}

TEST_F(OndriAPITest, ThrowInAPhaseSkipsTheRestTheAnswerAndTheFork) {
  for (const char* phase : {"ParseParams", "Execute", "FormOutput"}) {
    SetUp();
    g_script.throw_in = phase;
    g_script.thrower = [] { throw Error(kestondri::kErrInvalidParam, "bad"); };
    KEST::APIRequest request = Request("ann");
    KEST::APIResponse response;
    {
      RequestGuard guard;
      guard.ExpectIdentityAfter("ann");
      OndriAPIRun<PhaseAPI>(&request, &response);
      EXPECT_TRUE(guard.Finish().empty()) << phase << ": no child";
    }
    ASSERT_FALSE(g_events.empty());
    EXPECT_EQ("destroy", g_events.back());
    const std::vector<std::string> order = {"ParseParams", "Execute", "FormOutput"};
    for (size_t i = std::find(order.begin(), order.end(), phase) - order.begin() + 1;
         i < order.size(); ++i) {
      EXPECT_EQ(g_events.end(), std::find(g_events.begin(), g_events.end(), order[i]))
          << order[i] << " ran after a throw in " << phase;
    }
    EXPECT_TRUE(response.IsError());
    EXPECT_EQ(120, response.GetErrorCode());
    EXPECT_TRUE(response.GetErrorData().isNull());
    EXPECT_NE(0, access(kPostActionsFile, F_OK));
  }
}

// The base class answers null; a cleared success flag answers nothing. Both
// fork the after-answer child.
TEST_F(OndriAPITest, DefaultsAndAClearedSuccessFlag) {
  for (const bool base : {true, false}) {
    SetUp();
    g_script.clear_success = true;
    KEST::APIRequest request = Request("bob");
    KEST::APIResponse response;
    {
      RequestGuard guard;
      guard.ExpectIdentityAfter("bob");
      if (base) {
        OndriAPIRun<OndriAPI>(&request, &response);
      } else {
        OndriAPIRun<PhaseAPI>(&request, &response);
      }
      EXPECT_TRUE(AllExitedZero(guard.Finish(), 1)) << base;
    }
    if (base) {
      EXPECT_EQ(R"({"data":null,"success":true})", Json::toString(response.ToJson()));
    } else {
      EXPECT_EQ(KEST::APIResponse::State::kUnset, response.GetState());
      EXPECT_EQ(0, access(kPostActionsFile, F_OK));
    }
  }
}

TEST_F(OndriAPITest, HandlerMapsWhatIsThrownOntoCodes) {
  struct Case {
    const char* what;
    std::function<void()> thrower;
    int code;
    int line;
    std::string text;
  };
  const Case cases[] = {
      {"module error", [] { throw Error(kestondri::kErrShare, "no share photo"); }, 800, 52,
       "Got exception: no share photo"},
      {"module error without reason", [] { throw Error(kestondri::kErrCredentials); }, 503, 52,
       "Got exception: "},
      {"daemon code passed through",
       [] { throw Error(static_cast<kestondri::ErrorCode>(4001), "d"); }, 4001, 52,
       "Got exception: d"},
      {"module error with errno",
       [] {
         errno = ENOENT;
         throw Error(kestondri::kErrExecute, "r");
       },
       121, 52, "Got exception: r [err: No such file or directory]"},
      {"standard exception", [] { throw std::runtime_error("boom"); }, 117, 55,
       "Got std exception: boom"},
      {"bad_alloc", [] { throw std::bad_alloc(); }, 117, 55, "Got std exception: std::bad_alloc"},
      {"anything else", [] { throw 42; }, 117, 58, "Got unknown exception"},
      {"a string", [] { throw "text"; }, 117, 58, "Got unknown exception"},
  };
  for (const auto& c : cases) {
    SetUp();
    g_script.throw_in = "Execute";
    g_script.thrower = c.thrower;
    KEST::APIRequest request = Request("ann");
    KEST::APIResponse response;
    {
      RequestGuard guard;
      guard.ExpectIdentityAfter("ann");
      OndriAPIRun<PhaseAPI>(&request, &response);
      EXPECT_TRUE(guard.Finish().empty()) << c.what;
    }
    EXPECT_EQ(0, errno) << c.what;
    ASSERT_TRUE(response.IsError()) << c.what;
    EXPECT_EQ(c.code, response.GetErrorCode()) << c.what;
    EXPECT_TRUE(response.GetErrorData().isNull()) << c.what << ": nothing of the reason leaks";
    EXPECT_EQ(R"({"error":{"code":)" + std::to_string(c.code) + R"(},"success":false})",
              Json::toString(response.ToJson()));
    // Logged once the object is gone, hence as the login user.
    EXPECT_EQ(std::vector<std::string>{LogLine(kOndriApiHeader, c.line, "OndriAPIRun", c.text,
                                               getpid(), kAnnUid)},
              CapturedLines())
        << c.what;
  }
}

TEST_F(OndriAPITest, LoginUserThatCannotBeActedAsAnswers503) {
  KEST::APIRequest request = Request("ghost");
  KEST::APIResponse response;
  {
    RequestGuard guard;
    OndriAPIRun<PhaseAPI>(&request, &response);
    EXPECT_TRUE(guard.Finish().empty());
  }
  EXPECT_TRUE(g_events.empty()) << "no phase ran";
  ASSERT_TRUE(response.IsError());
  EXPECT_EQ(503, response.GetErrorCode());
  EXPECT_TRUE(response.GetErrorData().isNull());
  EXPECT_EQ(
      (std::vector<std::string>{LogLine("credentials.cc", 53, "AsUser",
                                        "Failed [!ResetCredentialsByName(target_username)]"),
                                LogLine(kOndriApiHeader, 52, "OndriAPIRun", "Got exception: ")}),
      CapturedLines());
}

}  // namespace
}  // namespace kesttest
