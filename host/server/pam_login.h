// Password check through PAM. PAM modules may block for seconds and load
// libraries of their own, so this runs only in a forked worker, never in the
// master that serves everyone; the PAM library itself is loaded there too.
#ifndef KESTONDRI_HOST_SERVER_PAM_LOGIN_H_
#define KESTONDRI_HOST_SERVER_PAM_LOGIN_H_

#include <sys/types.h>

#include <string>

namespace kestondri {
namespace host {

struct PamLoginResult {
  bool ok = false;
  std::string user;  // the account as PAM and the user database name it
  uid_t uid = 0;
  std::string reason;  // why not, for the log only (never for the client)
};

// Authenticates `account` with `password` through the PAM service `service`
// and checks that the account may sign in now (PAM account management) and
// that its uid is at least `min_uid`. PAM's own failure delay is switched
// off: the master delays failed answers without tying up a worker.
PamLoginResult PamLogin(const std::string& service, const std::string& account,
                        const std::string& password, uid_t min_uid);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_PAM_LOGIN_H_
