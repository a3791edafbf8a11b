// Users from the system's user database (NSS).
#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "errno_keeper.h"
#include "kest/klib.h"

namespace {

constexpr uid_t kFirstOrdinaryUid = 1000;

int FillRecord(const passwd& pw, PKESTUSER* ppUser) {
  auto* user = static_cast<PKESTUSER>(calloc(1, sizeof(KESTUSER)));
  if (!user) {
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  user->szName = strdup(pw.pw_name);
  user->szGecos = strdup(pw.pw_gecos ? pw.pw_gecos : "");
  user->szShell = strdup(pw.pw_shell ? pw.pw_shell : "");
  user->nUID = pw.pw_uid;
  user->nGID = pw.pw_gid;
  // Accounts below the first ordinary uid (root, services) get no home
  // folder from the home service; "nobody" neither.
  if (pw.pw_uid < kFirstOrdinaryUid || pw.pw_uid == 65534) user->fFlags |= KEST_USER_FLAG_SYSTEM;
  if (!user->szName || !user->szGecos || !user->szShell) {
    KESTUserFree(user);
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  *ppUser = user;
  return 0;
}

template <typename Lookup>
int GetUser(Lookup lookup, PKESTUSER* ppUser) {
  ErrnoKeeper errno_keeper;
  if (!ppUser) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  *ppUser = nullptr;
  std::vector<char> buffer(4096);
  passwd pw{};
  passwd* result = nullptr;
  int rc;
  while ((rc = lookup(&pw, buffer.data(), buffer.size(), &result)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) {
    KLIBCErrSet(rc != 0 ? KLIB_ERR_SYSTEM : KLIB_ERR_USER_NOT_FOUND);
    if (rc != 0) {
      errno_keeper.Keep();
      errno = rc;
    }
    return -1;
  }
  return FillRecord(pw, ppUser);
}

}  // namespace

extern "C" int KESTUserGet(const char* szUserName, PKESTUSER* ppUser) {
  if (!szUserName || !*szUserName) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  return GetUser(
      [szUserName](passwd* pw, char* buf, size_t len, passwd** result) {
        return getpwnam_r(szUserName, pw, buf, len, result);
      },
      ppUser);
}

extern "C" int KESTUserGetByUID(uid_t uid, PKESTUSER* ppUser) {
  return GetUser([uid](passwd* pw, char* buf, size_t len,
                       passwd** result) { return getpwuid_r(uid, pw, buf, len, result); },
                 ppUser);
}

extern "C" void KESTUserFree(PKESTUSER pUser) {
  if (!pUser) return;
  free(pUser->szName);
  free(pUser->szGecos);
  free(pUser->szShell);
  free(pUser);
}
