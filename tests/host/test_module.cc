// The server tests' module, built three times (see CMakeLists.txt).
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "kest/json.h"
#include "kest/webapi.h"
#include "kest/webapi_module.h"

namespace {

using KEST::APIRequest;
using KEST::APIResponse;
namespace fs = std::filesystem;

int IntParam(APIRequest* request, const char* name, int fallback = 0) {
  return request->GetAndCheckInt(name, APIRequest::PARAM_OPTIONAL).Get(fallback);
}

// Reports who the worker is (with "size" bytes of padding), then acts as the login user as
// the real module does: a later request would see it if identity leaked.
void Echo(APIRequest* request, APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["pad"] = std::string(IntParam(request, "size"), 'x');
  data["params"] = request->GetParams();
  data["uid"] = static_cast<Json::UInt>(request->GetLoginUID());
  data["user"] = request->GetLoginUserName();
  data["sid"] = request->GetSessionID();
  data["is_admin"] = request->IsAdmin();
  data["euid"] = static_cast<Json::UInt>(geteuid());
  data["pid"] = getpid();
  // Less the listing's own descriptor.
  data["fds"] = static_cast<int>(std::distance(fs::directory_iterator("/proc/self/fd"), {})) - 1;
  if (seteuid(request->GetLoginUID()) != 0) data["seteuid_failed"] = true;
  response->SetSuccess(data);
}

void Fail(APIRequest* request, APIResponse* response) {
  response->SetError(IntParam(request, "code"), request->GetParams()["data"]);
}

void Die(APIRequest* request, APIResponse*) { kill(getpid(), IntParam(request, "signal")); }

void Throw(APIRequest*, APIResponse*) { throw std::runtime_error("escaped"); }

void Sleep(APIRequest* request, APIResponse* response) {
  sleep(IntParam(request, "seconds", 1));
  response->SetSuccess(Json::Value("slept"));
}

// Like the module's after-answer child: a sleeper never waited for, holding the worker's fds.
void Fork(APIRequest* request, APIResponse* response) {
  if (fork() == 0) _exit(sleep(IntParam(request, "seconds", 1)));
  response->SetSuccess(Json::Value("forked"));
}

bool CheckX(APIRequest* request, APIResponse* response) {
  if (!request->GetAndCheckInt("x", APIRequest::PARAM_REQUIRED).IsInvalid()) return true;
  Json::Value errors;
  Json::fromString(errors, R"({"name": "x", "reason": "required"})");
  response->SetError(120, errors);
  return false;
}

#define TEST_API "KEST.Test.Host"

// The malformed build loses the name of its second row.
#ifdef KEST_TEST_BAD_TABLE
#define SECOND_METHOD nullptr
#else
#define SECOND_METHOD "echo"
#endif

const KEST::APIHandlerRow kTable[] = {
    {TEST_API, 1, "echo", Echo}, {TEST_API, 2, SECOND_METHOD, Echo}, {TEST_API, 1, "fail", Fail},
    {TEST_API, 1, "die", Die},   {TEST_API, 1, "throw", Throw},      {TEST_API, 1, "sleep", Sleep},
    {TEST_API, 1, "fork", Fork}, {TEST_API, 1, "checked", Echo},     {nullptr, 0, nullptr, nullptr},
};

const KEST::APICheckRow kChecks[] = {
    {TEST_API, 1, "checked", CheckX, nullptr, nullptr},
    {"KEST.Test.CheckedOnly", 1, "run", CheckX, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace

#ifndef KEST_TEST_NO_EXPORTS
extern "C" __attribute__((visibility("default"))) const KEST::APIHandlerRow* GetAPITable() {
  return kTable;
}

extern "C" __attribute__((visibility("default"))) const KEST::APICheckRow* GetAPICheckTable() {
  return kChecks;
}
#endif
