// Runs one web API request through the module's handler template, as the
// server does, for one of the sandbox's test users.
#ifndef KEST_TESTS_MODULE_API_RUNNER_H_
#define KEST_TESTS_MODULE_API_RUNNER_H_

#include <json/json.h>
#include <sys/types.h>

#include <string>

#include "kest/webapi.h"
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

// The request leaves the process acting as the login user (that is the
// module's way); the runner returns to root so that the test goes on as it
// began.
template <typename Class>
KEST::APIResponse RunAPI(const Login& login, const Json::Value& params) {
  KEST::APIRequest request(params, login.uid, login.name, "session-" + std::string(login.name),
                           login.admin);
  KEST::APIResponse response;
  kestondri::webapi::OndriAPIRun<Class>(&request, &response);
  BecomeRoot();
  return response;
}

}  // namespace kesttest

#endif  // KEST_TESTS_MODULE_API_RUNNER_H_
