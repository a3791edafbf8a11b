// Privilege for the moment of one change. The serving process's real and
// saved uid are root while its effective uid is the login user's; the
// store's files belong to root and are never writable by ordinary users, so
// the library takes effective root just around the code that touches them
// and gives it back before returning. Everything the caller may or may not
// see is decided before, under the caller's own identity.
//
// The effective uid belongs to the whole process: callers must not run the
// library concurrently with other threads that depend on the effective
// identity (the web API module serialises requests that switch identity).
#ifndef KESTONDRI_FILEINDEX_PRIVILEGE_H_
#define KESTONDRI_FILEINDEX_PRIVILEGE_H_

#include <sys/types.h>

namespace kestondri {
namespace fileindex {

class PrivilegeScope {
 public:
  // Throws Error 502 when root cannot be taken (the real and saved ids are
  // not root).
  PrivilegeScope();
  // Gives the caller's effective uid back; aborts the process if that is
  // impossible, since going on as root for a user is never acceptable.
  ~PrivilegeScope();
  PrivilegeScope(const PrivilegeScope&) = delete;
  PrivilegeScope& operator=(const PrivilegeScope&) = delete;

 private:
  uid_t saved_euid_;
  bool switched_;
};

}  // namespace fileindex
}  // namespace kestondri

#endif  // KESTONDRI_FILEINDEX_PRIVILEGE_H_
