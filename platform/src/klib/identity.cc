// Switching the effective identity. Only the effective and filesystem ids
// and the supplementary groups change: the real and saved ids stay, so a
// process whose real and saved ids are root can switch again later.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "errno_keeper.h"
#include "kest/klib.h"

bool ResetCredentialsByName(const std::string& user_name, bool with_groups) {
  ErrnoKeeper errno_keeper;
  std::vector<char> buffer(4096);
  passwd pw{};
  passwd* result = nullptr;
  int rc;
  while ((rc = getpwnam_r(user_name.c_str(), &pw, buffer.data(), buffer.size(), &result)) ==
         ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return false;
  }
  const uid_t uid = pw.pw_uid;
  const gid_t gid = pw.pw_gid;

  // Regain root first: changing groups and the gid needs it.
  if (geteuid() != 0 && seteuid(0) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return false;
  }
  if (with_groups) {
    std::vector<gid_t> groups(64);
    int count = static_cast<int>(groups.size());
    while (getgrouplist(user_name.c_str(), gid, groups.data(), &count) < 0) {
      groups.resize(count + 64);
      count = static_cast<int>(groups.size());
    }
    if (setgroups(count, groups.data()) != 0) {
      KLIBCErrSet(KLIB_ERR_SYSTEM);
      errno_keeper.Keep();
      return false;
    }
  }
  if (setegid(gid) != 0 || seteuid(uid) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return false;
  }
  return geteuid() == uid && getegid() == gid;
}
