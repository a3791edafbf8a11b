// Acting as a user. SDKCredentials switches the process's effective identity
// and switches back on destruction when the identity changed in between.
//
// The named constructor stores the *target* name, so its destructor
// re-applies that user rather than the identity the process had before:
// a request never returns to the server's own identity through it. Callers
// that must return to the previous user build the guard with the default
// constructor and call AsUser() inside it.
//
// The identity belongs to the whole process, so every switch and every user
// lookup is serialised by SDKMutex(), held only around the call itself.
#ifndef KESTONDRI_COMMON_SDK_CREDENTIALS_H_
#define KESTONDRI_COMMON_SDK_CREDENTIALS_H_

#include <sys/types.h>

#include <string>

#include "common/mutex.h"

namespace kestondri {
namespace sdk {

// The process-wide, non-recursive platform lock. Never take it twice on one
// thread.
Mutex& SDKMutex();

class SDKCredentials {
 public:
  // Remembers the current effective identity; throws Error 503 when its user
  // cannot be found.
  SDKCredentials();
  // Remembers the current effective ids, then acts as `user_name` (as root
  // for an administrator). Throws Error 503 when the switch fails.
  explicit SDKCredentials(const std::string& user_name);
  // Switches to the remembered user when the effective uid or gid changed;
  // throws Error 503 when that switch fails.
  ~SDKCredentials() noexcept(false);

  SDKCredentials(const SDKCredentials&) = delete;
  SDKCredentials& operator=(const SDKCredentials&) = delete;

  // Acts as `user_name`, or as "root" when the user belongs to the
  // administrators group. Throws Error 503 when the switch fails.
  void AsUser(const std::string& user_name);

 private:
  uid_t euid_;
  gid_t egid_;
  std::string username_;
};

}  // namespace sdk
}  // namespace kestondri

#endif  // KESTONDRI_COMMON_SDK_CREDENTIALS_H_
