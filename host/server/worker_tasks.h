// The work a worker process does for one request, run after the fork: a
// module's checker and handler, or a password check. Each returns the frame
// body to send back (see worker_answer.h) and never throws.
#ifndef KESTONDRI_HOST_SERVER_WORKER_TASKS_H_
#define KESTONDRI_HOST_SERVER_WORKER_TASKS_H_

#include <json/json.h>
#include <sys/types.h>

#include <string>

#include "kest/klib.h"
#include "server/module_registry.h"

namespace kestondri {
namespace host {

// Builds the request object for the login user, runs the route's checker (a
// refusal is the whole answer) and then its handler. A route without a
// handler answers 103 once its checker passed; an exception that escapes
// the module, or a response left unset, answers 117. `known_admin` is the
// session's administrator flag, or -1 to look the user up (and report the
// flag and identity found); `known_identity`, when not null, is handed to
// the platform so that the module's identity switch and group questions
// about the user skip the name services.
std::string RunModuleRequest(const Route& route, Json::Value params, const std::string& user,
                             uid_t uid, const std::string& sid, int known_admin,
                             const KLIBUserIdentity* known_identity);

// Opens the file at `path` for a download as the login user (an
// administrator as root), when it lies below an indexed folder the user may
// see, in a share the user has a privilege on (in "homes", the user's own
// home only). The descriptor goes to the master with the answer
// {"size", "mtime", "etag"}; refusals answer 116 or 118. `known_admin` and
// `known_identity` as for RunModuleRequest.
std::string RunFileOpen(const std::string& path, const std::string& user, int known_admin,
                        const KLIBUserIdentity* known_identity);

// PAM, then the account's uid, administrator flag and groups: an object
// {"ok", "user", "uid", "is_admin", "reason"[, "gid", "groups"]}.
std::string RunLogin(const std::string& service, const std::string& account,
                     const std::string& password, uid_t min_uid);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_WORKER_TASKS_H_
