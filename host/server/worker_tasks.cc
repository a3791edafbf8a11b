#include "server/worker_tasks.h"

#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "kest/json.h"
#include "kest/klib.h"
#include "kest/webapi.h"
#include "kestondri/fileindex.h"
#include "server/error_codes.h"
#include "server/file_access.h"
#include "server/pam_login.h"
#include "server/static_files.h"
#include "server/worker_answer.h"
#include "server/worker_process.h"

namespace kestondri {
namespace host {

namespace {

// A module's code for "the module failed in a way it did not report".
constexpr int kModuleUnknownError = 117;

Json::Value RunModuleRequestJson(const Route& route, Json::Value params, const std::string& user,
                                 uid_t uid, const std::string& sid, bool admin) {
  KEST::APIRequest request(std::move(params), uid, user, sid, admin);
  KEST::APIResponse response;
  // The module logs errno as the cause of a failure it reports; what the
  // server's own calls left there is no cause of the module's.
  errno = 0;
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

// The session's administrator flag, looked up afresh when `known_admin` is
// -1 (and reported in `*header`); the identity is handed to the platform.
bool PrepareIdentity(const std::string& user, int known_admin,
                     const KLIBUserIdentity* known_identity, AnswerHeader* header) {
  if (known_admin < 0) {
    header->has_identity = KLIBUserIdentityGet(user, &header->identity);
    if (header->has_identity) KLIBUserIdentityPrime(header->identity);
    const bool admin = KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    header->admin = admin ? 1 : 0;
    return admin;
  }
  if (known_identity) KLIBUserIdentityPrime(*known_identity);
  return known_admin == 1;
}

// Whether the share rules let `user` reach `path`, as the search applies
// them: some privilege on the share, and in "homes" only the own home.
bool ShareAllows(const std::string& user, const std::string& path) {
  char share_name[256], share_path[4096];
  if (KESTShareNamePathGet(path.c_str(), share_name, sizeof(share_name), share_path,
                           sizeof(share_path)) < 0) {
    return false;
  }
  if (std::string(share_name) == "homes") {
    char home[4096];
    return KESTServiceHomePathGet(user.c_str(), home, sizeof(home)) >= 0 &&
           PathBelowAny(path, {home});
  }
  PKESTSHARE share = nullptr;
  if (KESTShareGet(share_name, &share) < 0) return false;
  const int privilege = KESTShareUserPrivCalc(user.c_str(), share);
  KESTShareFree(share);
  return privilege > 0 && privilege != KEST_SHARE_PRIV_NA;
}

// The folders of the index that the current identity may see.
std::vector<std::string> VisibleFolders() {
  Json::Value list;
  fileindex::FolderList(list, 0, UINT64_MAX, "path", "asc", "all", "", Json::Value());
  std::vector<std::string> folders;
  for (const Json::Value& folder : list["folders"]) folders.push_back(folder["path"].asString());
  return folders;
}

Json::Value OpenForDownload(const std::string& path, const std::string& user, bool admin) {
  // Everything from here on is judged as the user: the folder store's view
  // and the open itself.
  if (!admin && !ResetCredentialsByName(user)) {
    syslog(LOG_ERR, "download: cannot act as \"%s\"", user.c_str());
    return ErrorAnswer(kErrInternal);
  }
  std::vector<std::string> folders;
  try {
    folders = VisibleFolders();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "download: cannot list the indexed folders: %s", e.what());
    return ErrorAnswer(kErrInternal);
  }
  if (!PathBelowAny(path, folders) || (!admin && !ShareAllows(user, path))) {
    return ErrorAnswer(kErrNoSuchFile);
  }
  int fd = -1;
  switch (OpenRegularFileNoLinks(path, &fd)) {
    case FileOpenResult::kOpened:
      break;
    case FileOpenResult::kDenied:
      return ErrorAnswer(kErrFileDenied);
    case FileOpenResult::kNotFound:
      return ErrorAnswer(kErrNoSuchFile);
  }
  struct stat st;
  fstat(fd, &st);
  PassDescriptorWithAnswer(fd);
  Json::Value data(Json::objectValue);
  data["size"] = static_cast<Json::UInt64>(st.st_size);
  data["mtime"] = static_cast<Json::Int64>(st.st_mtim.tv_sec);
  data["etag"] = FileETag(st);
  return SuccessAnswer(data);
}

}  // namespace

// The user's group list walks every name service and costs more than the
// rest of a light request, so sessions reuse a lookup for a while.
std::string RunModuleRequest(const Route& route, Json::Value params, const std::string& user,
                             uid_t uid, const std::string& sid, int known_admin,
                             const KLIBUserIdentity* known_identity) {
  AnswerHeader header;
  const bool admin = PrepareIdentity(user, known_admin, known_identity, &header);
  Json::Value answer = RunModuleRequestJson(route, std::move(params), user, uid, sid, admin);
  // File names and file contents are any bytes; the answer is labelled
  // UTF-8 and strict clients refuse a whole page over one bad byte.
  Json::makeValidUtf8(answer);
  header.code = AnswerCode(answer);
  return EncodeAnswer(header, Json::toString(answer));
}

std::string RunFileOpen(const std::string& path, const std::string& user, int known_admin,
                        const KLIBUserIdentity* known_identity) {
  AnswerHeader header;
  const bool admin = PrepareIdentity(user, known_admin, known_identity, &header);
  const Json::Value answer = OpenForDownload(path, user, admin);
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
