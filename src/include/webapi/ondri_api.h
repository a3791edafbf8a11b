// The base of every API handler class and the handler template that the
// module's table points at.
//
// One object serves one request: the constructor switches the process to the
// login user (root for an administrator) for the object's whole life, Run()
// calls ParseParams(), Execute() and FormOutput(), answers with output_, and
// forks a child for PostActions() so that after-response work never delays
// the reply.
#ifndef KESTONDRI_WEBAPI_ONDRI_API_H_
#define KESTONDRI_WEBAPI_ONDRI_API_H_

#include <cxxabi.h>
#include <json/json.h>
#include <sys/types.h>

#include <exception>
#include <string>

#include "common/error.h"
#include "common/log.h"
#include "common/sdk/credentials.h"
#include "kest/webapi.h"

namespace kestondri {
namespace webapi {

class OndriAPI {
 public:
  // Throws what the credentials guard throws (Error 503).
  OndriAPI(KEST::APIRequest* request, KEST::APIResponse* response);
  // May throw Error 503 when switching back to the login user fails.
  virtual ~OndriAPI() noexcept(false);
  OndriAPI(const OndriAPI&) = delete;
  OndriAPI& operator=(const OndriAPI&) = delete;

  // The fixed sequence; subclasses do not override it. Exceptions of the
  // phases pass to the caller, skipping the answer and the fork.
  virtual void Run();

 protected:
  virtual void ParseParams() {}
  virtual void Execute() {}
  virtual void FormOutput() {}
  // Runs in the forked child after the answer was set.
  virtual void PostActions() {}

  KEST::APIRequest* request_;
  KEST::APIResponse* response_;
  // Cleared only by a subclass that answers the response itself.
  bool set_success_;
  uid_t uid_;
  std::string session_id_;
  sdk::SDKCredentials credentials_;
  Json::Value output_;
};

// The handler of one table row: builds a Class for the request, runs it, and
// maps whatever it throws onto an error code with null data.
template <typename Class>
void OndriAPIRun(KEST::APIRequest* request, KEST::APIResponse* response) {
  static constexpr char kFile[] = "../../..//src/include/webapi/ondri_api.h";
  try {
    Class api(request, response);
    api.Run();
  } catch (const Error& e) {
    LogError({kFile, 52, "OndriAPIRun"}, "Got exception: %s", e.what());
    response->SetError(e.code(), Json::Value());
  } catch (const std::exception& e) {
    LogError({kFile, 55, "OndriAPIRun"}, "Got std exception: %s", e.what());
    response->SetError(kErrUnknown, Json::Value());
  } catch (abi::__forced_unwind&) {
    throw;
  } catch (...) {
    LogError({kFile, 58, "OndriAPIRun"}, "Got unknown exception");
    response->SetError(kErrUnknown, Json::Value());
  }
}

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_ONDRI_API_H_
