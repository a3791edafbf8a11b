// One request's life on the real system: acting as the login user, the
// handler template's phases and answers, and the forked after-answer child.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/sdk/task.h"
#include "kest/json.h"
#include "kest/klib.h"
#include "module/api_runner.h"
#include "support/thrown.h"
#include "webapi/ondri_api.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::sdk::ForkTask;
using kestondri::webapi::OndriAPI;
using kestondri::webapi::OndriAPIRun;

constexpr char kPostActionsFile[] = "/tmp/ondri_api_post_actions";
constexpr char kExitHandlerFile[] = "/tmp/task_exit_handler_ran";

// What the test subclass does, set by each test before the request.
struct Script {
  std::string throw_in;  // the phase that throws
  std::function<void()> thrower;
  bool clear_success = false;
} g_script;
std::vector<std::string> g_events;
pid_t g_test_pid = 0;

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
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    const bool reset = action.sa_handler == SIG_DFL && !sigismember(&mask, SIGUSR2);
    WriteFile(kPostActionsFile, std::to_string(getpid()) + " " + std::to_string(geteuid()) +
                                    (reset ? " default" : " inherited"));
  }
};

class RequestTest : public ModuleTest {
 protected:
  static void SetUpTestSuite() {
    g_test_pid = getpid();
    // Marks a child that ran the exit handlers it inherited.
    atexit([] {
      if (getpid() != g_test_pid) WriteFile(kExitHandlerFile, "yes");
    });
  }
  void SetUp() override {
    g_script = Script();
    g_events.clear();
    unlink(kPostActionsFile);
    ModuleTest::SetUp();  // last: a clean log and errno
  }

  // Runs PhaseAPI (or `Class`) for `user` under a RequestGuard; returns the
  // wait statuses of the children it forked.
  template <typename Class = PhaseAPI>
  std::vector<int> Run(const std::string& user, KEST::APIResponse* response) {
    const uid_t uid = user == "ghost" ? 54321 : UserByName(user).uid;
    KEST::APIRequest request(Json::Value(Json::objectValue), uid, user, "sess-" + user,
                             user == "carol");
    RequestGuard guard;
    if (user == "carol") {
      guard.ExpectIdentityAfter(0, 0);
    } else if (user != "ghost") {
      guard.ExpectIdentityAfter(user);
    }
    OndriAPIRun<Class>(&request, response);
    return guard.Finish();
  }
};

TEST_F(RequestTest, PhasesInOrderThenSuccessThenOneChild) {
  for (const char* user : {"ann", "carol"}) {
    SetUp();
    const uid_t acts_as = std::string(user) == "carol" ? 0 : kAnnUid;
    signal(SIGUSR1, SIG_IGN);
    sigset_t usr2, old_mask;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    sigprocmask(SIG_BLOCK, &usr2, &old_mask);
    KEST::APIResponse response;
    EXPECT_TRUE(AllExitedZero(Run(user, &response), 1)) << user;
    sigprocmask(SIG_SETMASK, &old_mask, nullptr);
    signal(SIGUSR1, SIG_DFL);
    const std::vector<std::string> expected = {
        "construct as " + std::to_string(acts_as),
        "ParseParams",
        "uid " + std::to_string(UserByName(user).uid) + " session sess-" + user,
        "Execute",
        "FormOutput",
        "destroy"};
    EXPECT_EQ(expected, g_events) << user;
    EXPECT_EQ(R"({"data":{"hits":[1],"total":1},"success":true})",
              Json::toString(response.ToJson()));
    // PostActions ran in a child, as the user, with default signal handling
    // and nothing blocked.
    const std::string post = ReadFile(kPostActionsFile);
    EXPECT_NE(std::to_string(getpid()), post.substr(0, post.find(' ')));
    EXPECT_EQ(" " + std::to_string(acts_as) + " default", post.substr(post.find(' ')));
    EXPECT_TRUE(CapturedLines().empty());
  }
}

// The base class answers null; a cleared success flag answers nothing. Both
// fork the after-answer child.
TEST_F(RequestTest, DefaultsAndAClearedSuccessFlag) {
  g_script.clear_success = true;
  KEST::APIResponse base;
  EXPECT_TRUE(AllExitedZero(Run<OndriAPI>("bob", &base), 1));
  EXPECT_EQ(R"({"data":null,"success":true})", Json::toString(base.ToJson()));
  KEST::APIResponse cleared;
  EXPECT_TRUE(AllExitedZero(Run("bob", &cleared), 1));
  EXPECT_EQ(KEST::APIResponse::State::kUnset, cleared.GetState());
  EXPECT_EQ(0, access(kPostActionsFile, F_OK));
}

TEST_F(RequestTest, LoginUserThatCannotBeActedAsAnswers503) {
  KEST::APIResponse response;
  EXPECT_TRUE(Run("ghost", &response).empty());
  EXPECT_TRUE(g_events.empty()) << "no phase ran";
  EXPECT_EQ(R"({"error":{"code":503},"success":false})", Json::toString(response.ToJson()));
  EXPECT_EQ(
      (std::vector<std::string>{LogLine("credentials.cc", 53, "AsUser",
                                        "Failed [!ResetCredentialsByName(target_username)]"),
                                LogLine(kOndriApiHeader, 52, "OndriAPIRun", "Got exception: ")}),
      CapturedLines());
}

// What is thrown, in each phase in turn, as the handler answers and logs it
// (the later phases, the answer and the fork skipped) and as a forked task
// logs it; nothing of the reason reaches the client. (An empty reason: the
// login user that cannot be acted as.)
TEST_F(RequestTest, WhatIsThrownIsMappedAndLogged) {
  const struct {
    std::function<void()> thrower;
    int code;
    int handler_line;
    std::string handler_text;
    int task_line;
    std::string task_text;
  } cases[] = {
      {[] { throw Error(static_cast<kestondri::ErrorCode>(4001), "d"); }, 4001, 52,
       "Got exception: d", 33, "Failed to execute, 4001 d"},
      {[] {
         errno = ENOENT;
         throw Error(kestondri::kErrExecute, "r");
       },
       121, 52, "Got exception: r [err: No such file or directory]", 33,
       "Failed to execute, 121 r [err: No such file or directory]"},
      {[] { throw std::runtime_error("boom %s"); }, 117, 55, "Got std exception: boom %s", 35,
       "Failed to execute, boom %s"},
      {[] { throw 42; }, 117, 58, "Got unknown exception", 37, "Failed to execute"},
  };
  const std::vector<std::string> order = {"ParseParams", "Execute", "FormOutput"};
  size_t phase = 0;
  for (const auto& c : cases) {
    SetUp();
    g_script.throw_in = order[phase++ % order.size()];
    g_script.thrower = c.thrower;
    KEST::APIResponse response;
    EXPECT_TRUE(Run("ann", &response).empty()) << c.handler_text;
    EXPECT_EQ(0, errno) << c.handler_text;
    const auto thrown = std::find(g_events.begin(), g_events.end(), g_script.throw_in);
    EXPECT_EQ((std::vector<std::string>{g_script.throw_in, "destroy"}),
              std::vector<std::string>(thrown, g_events.end()))
        << c.handler_text;
    EXPECT_NE(0, access(kPostActionsFile, F_OK));
    errno = 0;  // the task below logs it
    EXPECT_EQ(R"({"error":{"code":)" + std::to_string(c.code) + R"(},"success":false})",
              Json::toString(response.ToJson()));
    // Logged once the object is gone, hence as the login user.
    EXPECT_EQ(std::vector<std::string>{LogLine(kOndriApiHeader, c.handler_line, "OndriAPIRun",
                                               c.handler_text, getpid(), kAnnUid)},
              CapturedLines());

    BecomeRoot();
    SyslogCapture::Instance().Clear();
    RequestGuard guard;
    ForkTask task(1);
    EXPECT_TRUE(task.DoTask(c.thrower));
    EXPECT_TRUE(AllExitedZero(guard.Finish(), 1)) << c.task_text;
    EXPECT_EQ(std::vector<std::string>{LogLine(kTaskHeader, c.task_line, "DoTask", c.task_text,
                                               task.pid())},
              CapturedLines());
  }
}

// The task runs in the child only, which leaves with _exit: no exit handlers
// and no second flush of the parent's buffered output.
TEST_F(RequestTest, TaskRunsOnlyInTheChildWhichLeavesWithoutCleanUp) {
  const std::string ran = "/tmp/task_ran";
  unlink(ran.c_str());
  unlink(kExitHandlerFile);
  FILE* out = fopen("/tmp/task_stdio", "w");
  ASSERT_NE(nullptr, out);
  fputs("once", out);
  RequestGuard guard;
  ForkTask task(1);
  ASSERT_TRUE(task.DoTask([&] { WriteFile(ran, std::to_string(getpid())); }));
  EXPECT_TRUE(AllExitedZero(guard.Finish(), 1));
  EXPECT_NE(getpid(), task.pid());
  EXPECT_EQ(std::to_string(task.pid()), ReadFile(ran));
  fclose(out);
  EXPECT_EQ("once", ReadFile("/tmp/task_stdio"));
  EXPECT_NE(0, access(kExitHandlerFile, F_OK)) << "the child ran exit handlers";
  EXPECT_TRUE(CapturedLines().empty());
}

}  // namespace
}  // namespace kesttest
