#include "server/worker_tasks.h"

#include <syslog.h>

#include "kest/json.h"
#include "kest/klib.h"
#include "kest/webapi.h"
#include "server/error_codes.h"
#include "server/pam_login.h"
#include "server/worker_answer.h"

namespace kestondri {
namespace host {

namespace {

// A module's code for "the module failed in a way it did not report".
constexpr int kModuleUnknownError = 117;

Json::Value RunModuleRequestJson(const Route& route, Json::Value params, const std::string& user,
                                 uid_t uid, const std::string& sid, bool admin) {
  KEST::APIRequest request(std::move(params), uid, user, sid, admin);
  KEST::APIResponse response;
  try {
    if (route.checker && !route.checker(&request, &response)) {
      return response.ToJson(kModuleUnknownError);
    }
    if (!route.handler) return ErrorAnswer(kErrUnknownMethod);
    route.handler(&request, &response);
  } catch (...) {
    syslog(LOG_ERR, "a module let an exception escape; answering %d", kModuleUnknownError);
    response.SetError(kModuleUnknownError);
  }
  return response.ToJson(kModuleUnknownError);
}

}  // namespace

// The user's group list walks every name service and costs more than the
// rest of a light request, so sessions reuse a lookup for a while.
std::string RunModuleRequest(const Route& route, Json::Value params, const std::string& user,
                             uid_t uid, const std::string& sid, int known_admin,
                             const KLIBUserIdentity* known_identity) {
  AnswerHeader header;
  bool admin = known_admin == 1;
  if (known_admin < 0) {
    header.has_identity = KLIBUserIdentityGet(user, &header.identity);
    if (header.has_identity) KLIBUserIdentityPrime(header.identity);
    admin = KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    header.admin = admin ? 1 : 0;
  } else if (known_identity) {
    KLIBUserIdentityPrime(*known_identity);
  }
  Json::Value answer = RunModuleRequestJson(route, std::move(params), user, uid, sid, admin);
  // File names and file contents are any bytes; the answer is labelled
  // UTF-8 and strict clients refuse a whole page over one bad byte.
  Json::makeValidUtf8(answer);
  header.code = AnswerCode(answer);
  return EncodeAnswer(header, Json::toString(answer));
}

std::string RunLogin(const std::string& service, const std::string& account,
                     const std::string& password, uid_t min_uid) {
  const PamLoginResult result = PamLogin(service, account, password, min_uid);
  Json::Value answer(Json::objectValue);
  answer["ok"] = result.ok;
  answer["user"] = result.user;
  answer["uid"] = static_cast<Json::UInt>(result.uid);
  answer["reason"] = result.reason;
  KLIBUserIdentity identity;
  if (result.ok && KLIBUserIdentityGet(result.user, &identity)) {
    KLIBUserIdentityPrime(identity);
    answer["gid"] = static_cast<Json::UInt>(identity.gid);
    Json::Value& groups = answer["groups"] = Json::Value(Json::arrayValue);
    for (gid_t gid : identity.groups) groups.append(static_cast<Json::UInt>(gid));
  }
  answer["is_admin"] = result.ok && KLIBGroupIsAdminGroupMem(result.user.c_str(), 0) == 1;
  return EncodeAnswer(AnswerHeader(), Json::toString(answer));
}

}  // namespace host
}  // namespace kestondri
