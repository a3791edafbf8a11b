// What the module's tests share: login users, one request run as the server runs it, exact log
// lines, the search shares, the fixture every module test starts from.
#ifndef KEST_TESTS_MODULE_API_RUNNER_H_
#define KEST_TESTS_MODULE_API_RUNNER_H_

#include <gtest/gtest.h>
#include <json/json.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "kest/webapi.h"
#include "kestondri/fileindex.h"
#include "support/fake_daemon.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "webapi/ondri_api.h"

namespace kesttest {

struct Login {
  const char* name;
  uid_t uid;
  bool admin;
};
constexpr Login kAnn{"ann", kAnnUid, false};
constexpr Login kBob{"bob", kBobUid, false};
constexpr Login kCarol{"carol", kCarolUid, true};
constexpr Login kDave{"dave", kDaveUid, false};

constexpr char kTaskHeader[] = "../../..//src/include/common/sdk/task.h";
constexpr char kOndriApiHeader[] = "../../..//src/include/webapi/ondri_api.h";

// "<file>:<line> (<pid>, <euid>) (<func>) <text>".
inline std::string LogLine(const std::string& file, int line, const std::string& func,
                           const std::string& text, pid_t pid = getpid(), uid_t euid = geteuid()) {
  return file + ":" + std::to_string(line) + " (" + std::to_string(pid) + ", " +
         std::to_string(euid) + ") (" + func + ") " + text;
}

// The texts logged since the last Clear(), once the log went quiet.
inline std::vector<std::string> CapturedLines() {
  SyslogCapture::Instance().Settle(50);
  std::vector<std::string> out;
  for (const auto& line : SyslogCapture::Instance().Lines()) out.push_back(line.text);
  return out;
}

// Runs the request as the server does; it leaves the process acting as its login user, as
// the module does. Unguarded: for a process that is killed or owns children.
template <typename Class>
KEST::APIResponse RunAPIUnguarded(const Login& login, const Json::Value& params) {
  KEST::APIRequest request(params, login.uid, login.name, "session-" + std::string(login.name),
                           login.admin);
  KEST::APIResponse response;
  kestondri::webapi::OndriAPIRun<Class>(&request, &response);
  return response;
}

// The same under a RequestGuard, its children's wait statuses to `children`; root on return.
template <typename Class>
KEST::APIResponse RunAPI(const Login& login, const Json::Value& params,
                         std::vector<int>* children = nullptr) {
  KEST::APIResponse response;
  {
    FakeDaemon::WaitAllIdle();
    RequestGuard guard;
    login.admin ? guard.ExpectIdentityAfter(0, 0) : guard.ExpectIdentityAfter(login.name);
    response = RunAPIUnguarded<Class>(login, params);
    FakeDaemon::WaitAllIdle();
    if (children) *children = guard.Finish();
  }
  BecomeRoot();
  return response;
}

// docs (open to staff) holding open.txt and bob's closed.txt (0600), the
// homes of ann and bob (dave refused), private (bob's) holding p.txt.
inline void MakeSearchShares() {
  WriteSharesConf(
      "[global]\nuser home = yes\n"
      "[docs]\npath = /volume1/docs\nread list = @staff\n"
      "[homes]\npath = /volume1/homes\ninvalid users = dave\n"
      "[private]\npath = /volume1/private\nread list = bob\n");
  for (const char* dir : {"/volume1/docs", "/volume1/private", "/volume1/homes",
                          "/volume1/homes/ann", "/volume1/homes/bob"}) {
    mkdir(dir, 0755);
  }
  WriteFile("/volume1/docs/open.txt", "x", 0644);
  WriteFile("/volume1/docs/closed.txt", "x", 0600);
  (void)!chown("/volume1/docs/closed.txt", kBobUid, kBobUid);
  WriteFile("/volume1/private/p.txt", "x", 0644);
}

// Starts as root with an empty log and errno 0 (log lines report it); ends
// as root with the children left reaped.
class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    SyslogCapture::Instance().Clear();
    errno = 0;
  }
  void TearDown() override {
    BecomeRoot();
    ReapChildren();
  }
};

}  // namespace kesttest

#endif  // KEST_TESTS_MODULE_API_RUNNER_H_
