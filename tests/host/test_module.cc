// A module library for the server's tests: handlers that answer, fail with a
// code, crash, throw, sleep, fork children that outlive them, and overtake
// each other like searches of one query id. Built three times: as a good
// module, without the entry points (KEST_TEST_NO_EXPORTS), and with a
// malformed handler table (KEST_TEST_BAD_TABLE).
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>

#include "kest/webapi.h"
#include "kest/webapi_module.h"

namespace {

Json::Value OpenDescriptors() {
  Json::Value fds(Json::arrayValue);
  DIR* dir = opendir("/proc/self/fd");
  const int own = dirfd(dir);
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.') continue;
    const int fd = atoi(entry->d_name);
    if (fd != own) fds.append(fd);
  }
  closedir(dir);
  return fds;
}

// Reports who the worker is, then acts as the login user the way the real
// module does, so that a later request would see it if identity leaked.
void Echo(KEST::APIRequest* request, KEST::APIResponse* response) {
  Json::Value data(Json::objectValue);
  data["params"] = request->GetParams();
  data["uid"] = static_cast<Json::UInt>(request->GetLoginUID());
  data["user"] = request->GetLoginUserName();
  data["sid"] = request->GetSessionID();
  data["is_admin"] = request->IsAdmin();
  data["euid"] = static_cast<Json::UInt>(geteuid());
  data["pid"] = getpid();
  data["fds"] = OpenDescriptors();
  if (seteuid(request->GetLoginUID()) != 0) data["seteuid_failed"] = true;
  response->SetSuccess(data);
}

void Fail(KEST::APIRequest* request, KEST::APIResponse* response) {
  response->SetError(request->GetAndCheckInt("code", KEST::APIRequest::PARAM_REQUIRED).Get(),
                     request->GetParams()["data"]);
}

void Crash(KEST::APIRequest*, KEST::APIResponse*) { abort(); }

void Throw(KEST::APIRequest*, KEST::APIResponse*) { throw std::runtime_error("escaped"); }

void Sleep(KEST::APIRequest* request, KEST::APIResponse* response) {
  sleep(request->GetAndCheckInt("seconds", KEST::APIRequest::PARAM_OPTIONAL).Get(1));
  response->SetSuccess(Json::Value("slept"));
}

// Like the module's after-response child: forked after answering, never
// waited for, holding every descriptor the worker had.
void Fork(KEST::APIRequest* request, KEST::APIResponse* response) {
  const int seconds = request->GetAndCheckInt("seconds", KEST::APIRequest::PARAM_OPTIONAL).Get(1);
  response->SetSuccess(Json::Value("forked"));
  if (fork() == 0) {
    sleep(seconds);
    _exit(0);
  }
}

// Like a search: a newer request of the same id kills the process serving
// the older one.
void Query(KEST::APIRequest* request, KEST::APIResponse* response) {
  const std::string id = request->GetAndCheckString("id", KEST::APIRequest::PARAM_REQUIRED).Get();
  const std::string path = "/tmp/test_query_" + id + ".pid";
  std::ifstream in(path);
  pid_t older = 0;
  if (in >> older && older > 0) kill(older, SIGKILL);
  std::ofstream(path, std::ios::trunc) << getpid();
  sleep(request->GetAndCheckInt("seconds", KEST::APIRequest::PARAM_OPTIONAL).Get(0));
  unlink(path.c_str());
  response->SetSuccess(Json::Value("done"));
}

void Big(KEST::APIRequest* request, KEST::APIResponse* response) {
  const int size = request->GetAndCheckInt("size", KEST::APIRequest::PARAM_REQUIRED).Get();
  response->SetSuccess(Json::Value(std::string(static_cast<size_t>(size), 'x')));
}

bool CheckX(KEST::APIRequest* request, KEST::APIResponse* response) {
  if (request->GetAndCheckInt("x", KEST::APIRequest::PARAM_REQUIRED).IsInvalid()) {
    Json::Value errors(Json::objectValue);
    errors["name"] = "x";
    errors["reason"] = "required";
    response->SetError(120, errors);
    return false;
  }
  return true;
}

bool CheckPass(KEST::APIRequest*, KEST::APIResponse*) { return true; }

#define TEST_API "KEST.Test.Host"

// The malformed build loses the name of its second row.
#ifdef KEST_TEST_BAD_TABLE
#define SECOND_METHOD nullptr
#else
#define SECOND_METHOD "echo"
#endif

const KEST::APIHandlerRow kTable[] = {
    {TEST_API, 1, "echo", Echo},    {TEST_API, 2, SECOND_METHOD, Echo},
    {TEST_API, 1, "fail", Fail},    {TEST_API, 1, "crash", Crash},
    {TEST_API, 1, "throw", Throw},  {TEST_API, 1, "sleep", Sleep},
    {TEST_API, 1, "fork", Fork},    {TEST_API, 1, "query", Query},
    {TEST_API, 1, "big", Big},      {TEST_API, 1, "checked", Echo},
    {nullptr, 0, nullptr, nullptr},
};

const KEST::APICheckRow kChecks[] = {
    {TEST_API, 1, "checked", CheckX, nullptr, nullptr},
    {"KEST.Test.CheckedOnly", 1, "run", CheckX, nullptr, nullptr},
    {"KEST.Test.CheckedOnly", 1, "pass", CheckPass, nullptr, nullptr},
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
#else
extern "C" __attribute__((visibility("default"))) const void* SomethingElse() { return kTable; }
extern "C" __attribute__((visibility("default"))) const void* SomethingMore() { return kChecks; }
#endif
