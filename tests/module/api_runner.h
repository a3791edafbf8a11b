// Runs one web API request through the module's handler template, as the
// server does, for one of the sandbox's test users.
#ifndef KEST_TESTS_MODULE_API_RUNNER_H_
#define KEST_TESTS_MODULE_API_RUNNER_H_

#include <json/json.h>
#include <sys/types.h>

#include <string>
#include <vector>

#include "kest/webapi.h"
#include "support/fake_daemon.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
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

// Runs the request under a RequestGuard: descriptors, children, identity and
// the platform lock are checked afterwards, and the children the request
// forked are reaped; their wait statuses go to `children` when given. The
// process is root again when this returns.
template <typename Class>
KEST::APIResponse RunAPI(const Login& login, const Json::Value& params,
                         std::vector<int>* children = nullptr) {
  KEST::APIRequest request(params, login.uid, login.name, "session-" + std::string(login.name),
                           login.admin);
  KEST::APIResponse response;
  {
    FakeDaemon::WaitAllIdle();
    RequestGuard guard;
    // The request leaves the process acting as its login user (root for an
    // administrator): that is the module's way.
    if (login.admin) {
      guard.ExpectIdentityAfter(0, 0);
    } else {
      guard.ExpectIdentityAfter(login.name);
    }
    kestondri::webapi::OndriAPIRun<Class>(&request, &response);
    FakeDaemon::WaitAllIdle();
    if (children) *children = guard.Finish();
  }
  BecomeRoot();
  return response;
}

// The same without the guard, for a request whose process is killed or that
// runs beside children the test owns.
template <typename Class>
KEST::APIResponse RunAPIUnguarded(const Login& login, const Json::Value& params) {
  KEST::APIRequest request(params, login.uid, login.name, "session-" + std::string(login.name),
                           login.admin);
  KEST::APIResponse response;
  kestondri::webapi::OndriAPIRun<Class>(&request, &response);
  BecomeRoot();
  return response;
}

}  // namespace kesttest

#endif  // KEST_TESTS_MODULE_API_RUNNER_H_
