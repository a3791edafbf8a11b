// Switching the effective identity. Only the effective and filesystem ids
// and the supplementary groups change: the real and saved ids stay, so a
// process whose real and saved ids are root can switch again later.
#include <grp.h>
#include <unistd.h>

#include <cerrno>

#include "errno_keeper.h"
#include "kest/klib.h"
#include "name_service.h"

bool ResetCredentialsByName(const std::string& user_name, bool with_groups) {
  ErrnoKeeper errno_keeper;
  KLIBUserIdentity identity;
  if (!kest::klib::LookupUser(user_name, &identity, with_groups)) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return false;
  }
  // Regain root first: changing groups and the gid needs it.
  if (geteuid() != 0 && seteuid(0) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return false;
  }
  if (with_groups && setgroups(identity.groups.size(), identity.groups.data()) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return false;
  }
  if (setegid(identity.gid) != 0 || seteuid(identity.uid) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return false;
  }
  return geteuid() == identity.uid && getegid() == identity.gid;
}
