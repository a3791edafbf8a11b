// One request's life on the real system: identity, phases and answers, forked tasks, status.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/sdk/task.h"
#include "kest/json.h"
#include "module/api_runner.h"
#include "webapi/folder.h"
#include "webapi/ondri_api.h"
#include "webapi/status.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::sdk::ForkTask;
using kestondri::webapi::OndriAPI;

constexpr char kPostActionsFile[] = "/tmp/ondri_api_post_actions";
constexpr char kExitHandlerFile[] = "/tmp/task_exit_handler_ran";

struct Script {
  std::string throw_in;  // the phase that throws
  std::function<void()> thrower;
  bool clear_success = false;
} g_script;
std::vector<std::string> g_events;

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
    output_["hits"].append(1);
    set_success_ = !g_script.clear_success;
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
    WriteFile(kPostActionsFile,
              std::to_string(getpid()) + " " + std::to_string(geteuid()) +
                  (action.sa_handler == SIG_DFL && !sigismember(&mask, SIGUSR2) ? " default"
                                                                                : " inherited"));
  }
};

class RequestTest : public ModuleTest {};

// The object acts as the login user (root for an administrator) from its construction; one
// forked child runs PostActions as the user with default signals. A phase's throw is answered
// with its code alone and logged once the object is gone, as the user; an unknown user is 503.
// A forked task leaves with _exit: no exit handlers, no second flush of the parent's output.
TEST_F(RequestTest, OneRequest) {
  const struct {
    Login login;
    const char* throw_in;  // the phase that throws
    std::function<void()> thrower;
    int code;  // of the answer, 0: success
    int line;  // of the log line, with `text`
    std::string text;
    std::string task = "";  // what a forked task logs of the same throw
  } cases[] = {
      {kAnn, "", nullptr, 0, 0, ""},
      {kCarol, "", nullptr, 0, 0, ""},
      {kAnn, "ParseParams", [] { throw Error(static_cast<kestondri::ErrorCode>(4001), "d"); }, 4001,
       52, "Got exception: d", "Failed to execute, 4001 d"},
      {kAnn, "Execute",
       [] {
         errno = ENOENT;
         throw Error(kestondri::kErrExecute, "r");
       },
       121, 52, "Got exception: r [err: No such file or directory]",
       "Failed to execute, 121 r [err: No such file or directory]"},
      {kAnn, "FormOutput", [] { throw std::runtime_error("boom %s"); }, 117, 55,
       "Got std exception: boom %s", "Failed to execute, boom %s"},
      {kAnn, "ParseParams", [] { throw 42; }, 117, 58, "Got unknown exception",
       "Failed to execute"},
      {{"ghost", 54321, false}, "", nullptr, 503, 52, "Got exception: "},
  };
  signal(SIGUSR1, SIG_IGN);
  sigset_t usr2;
  sigemptyset(&usr2);
  sigaddset(&usr2, SIGUSR2);
  sigprocmask(SIG_BLOCK, &usr2, nullptr);
  static const pid_t test_pid = getpid();
  atexit([] {
    if (getpid() != test_pid) WriteFile(kExitHandlerFile, "yes");
  });
  unlink(kExitHandlerFile);
  FILE* out = fopen("/tmp/task_stdio", "w");
  ASSERT_NE(nullptr, out);
  fputs("once", out);
  for (const auto& c : cases) {
    const std::string user = c.login.name;
    const std::string what = user + " " + c.throw_in;
    g_script = {c.throw_in, c.thrower};
    g_events.clear();
    unlink(kPostActionsFile);
    SetUp();
    std::vector<int> children;
    const KEST::APIResponse response = user == "ghost"
                                           ? RunAPIUnguarded<PhaseAPI>(c.login, Json::Value())
                                           : RunAPI<PhaseAPI>(c.login, Json::Value(), &children);
    EXPECT_TRUE(AllExitedZero(children, c.code ? 0 : 1)) << what;
    EXPECT_EQ(0, errno) << what;
    EXPECT_EQ(c.code ? R"({"error":{"code":)" + std::to_string(c.code) + R"(},"success":false})"
                     : R"({"data":{"hits":[1],"total":1},"success":true})",
              Json::toString(response.ToJson()))
        << what;
    std::vector<std::string> log;
    if (user == "ghost") {
      log.push_back(LogLine("credentials.cc", 53, "AsUser",
                            "Failed [!ResetCredentialsByName(target_username)]"));
    }
    if (c.code)
      log.push_back(LogLine(kOndriApiHeader, c.line, "OndriAPIRun", c.text, getpid(),
                            user == "ghost" ? 0 : kAnnUid));
    EXPECT_EQ(log, CapturedLines()) << what;
    const uid_t acts_as = c.login.admin ? 0 : c.login.uid;
    std::vector<std::string> events = {
        "construct as " + std::to_string(acts_as), "ParseParams",
        "uid " + std::to_string(c.login.uid) + " session session-" + user, "Execute", "FormOutput"};
    const auto thrown = std::find(events.begin(), events.end(), c.throw_in);
    if (thrown != events.end()) events.erase(thrown + 1, events.end());
    events.push_back("destroy");
    EXPECT_EQ(user == "ghost" ? std::vector<std::string>{} : events, g_events) << what;
    const std::string post = c.code ? "" : ReadFile(kPostActionsFile);
    if (!c.code) {
      EXPECT_NE(std::to_string(getpid()), post.substr(0, post.find(' '))) << what;
      EXPECT_EQ(" " + std::to_string(acts_as) + " default", post.substr(post.find(' '))) << what;
    }
    EXPECT_EQ(c.code == 0, access(kPostActionsFile, F_OK) == 0) << what;
    BecomeRoot();
    if (!c.thrower) continue;
    // The same thrown in a forked task: logged by the child, with its pid.
    SyslogCapture::Instance().Clear();
    RequestGuard guard;
    ForkTask task(1);
    errno = 0;
    EXPECT_TRUE(task.DoTask(c.thrower));
    EXPECT_TRUE(AllExitedZero(guard.Finish(), 1)) << what;
    EXPECT_EQ(std::vector<std::string>{LogLine(kTaskHeader, 33 + (c.line - 52) * 2 / 3, "DoTask",
                                               c.task, task.pid())},
              CapturedLines())
        << what;
  }

  fclose(out);
  EXPECT_EQ("once", ReadFile("/tmp/task_stdio"));
  EXPECT_NE(0, access(kExitHandlerFile, F_OK)) << "a child ran exit handlers";
  sigprocmask(SIG_UNBLOCK, &usr2, nullptr);
  signal(SIGUSR1, SIG_DFL);

  // The base class answers null; a cleared success flag answers nothing.
  // Both fork the after-answer child.
  std::vector<int> children;
  EXPECT_EQ(R"({"data":null,"success":true})",
            Json::toString(RunAPI<OndriAPI>(kBob, Json::Value(), &children).ToJson()));
  EXPECT_TRUE(AllExitedZero(children, 1));
  g_script.clear_success = true;
  EXPECT_EQ(KEST::APIResponse::State::kUnset,
            RunAPI<PhaseAPI>(kBob, Json::Value(), &children).GetState());
  EXPECT_TRUE(AllExitedZero(children, 1));
  EXPECT_EQ(0, access(kPostActionsFile, F_OK));
}

// The status words on the real indexing library and queue files: "processing" while a queue
// (or its twin) waits in an indexable share, "paused" instead while paused (0: until resumed);
// a vanished share is logged and skipped.
TEST_F(RequestTest, StatusWords) {
  using kestondri::webapi::StatusPauseAPI;
  (void)!system("rm -rf /var/packages/KestOndri /volume1/* /volume1/@kestondri /volume2/*");
  const std::string music = "[music]\npath = /volume2/music\n";
  WriteSharesConf("[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\n" + music);
  for (const char* dir : {"/volume1/photo/a", "/volume1/docs/c", "/volume2/music/d"})
    WriteFile(std::string(dir) + "/keep", "");
  const auto status = [](const char* word) {
    return RunAPI<kestondri::webapi::StatusGetAPI>(kAnn, Json::Value())
        .GetData()["status"][word]
        .asString();
  };
  EXPECT_EQ("finished", status("index"));  // no indexed share at all
  ASSERT_TRUE(RunAPI<kestondri::webapi::FolderAddAPI>(kAnn, ParseJson(R"({"folder": [
      {"path": "/volume1/photo/a"}, {"path": "/volume1/docs/c"}, {"path": "/volume2/music/d"}]})"))
                  .IsSuccess());
  EXPECT_EQ("processing", status("index"));
  for (const char* params : {R"({"length": 0})", R"({"length": 3600})"}) {
    EXPECT_TRUE(RunAPI<StatusPauseAPI>(kCarol, ParseJson(params)).IsSuccess()) << params;
    EXPECT_EQ("paused", status("index"));
  }
  EXPECT_TRUE(RunAPI<kestondri::webapi::StatusResumeAPI>(kCarol, Json::Value()).IsSuccess());
  EXPECT_EQ("processing", status("index"));

  // Only photo's twin left, docs read-only: still pending, then finished,
  // even while paused. Without the checker an absent length reads as 0.
  rename("/volume1/@kestondri/queue/photo.queue", "/volume1/@kestondri/queue/photo.queue.tmp");
  unlink("/volume2/@kestondri/queue/music.queue");
  WriteSharesConf(
      "[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\nread only = yes\n" + music);
  EXPECT_EQ("processing", status("index"));
  unlink("/volume1/@kestondri/queue/photo.queue.tmp");
  EXPECT_TRUE(RunAPI<StatusPauseAPI>(kCarol, ParseJson("{}")).IsSuccess());
  EXPECT_EQ("finished", status("index"));

  // docs vanished: logged and skipped; photo (after it) is still inspected.
  WriteSharesConf("[photo]\npath = /volume1/photo\n" + music);
  WriteFile("/volume1/@kestondri/queue/photo.queue", "# kestondri queue 1\n");
  SyslogCapture::Instance().Clear();
  EXPECT_EQ("paused", status("index"));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(LogLine("status.cc", 43, "IsIndexProcessing",
                                                        "Failed to get status from share[docs]",
                                                        getpid(), kAnnUid)));

  EXPECT_EQ("finished", status("term"));
  WriteFile("/var/packages/KestOndri/etc/updater.term.sugg.pid", std::to_string(getpid()) + "\n");
  EXPECT_EQ("processing", status("term"));
}

}  // namespace
}  // namespace kesttest
