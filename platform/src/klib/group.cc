// Groups from the system's group database (NSS).
#include <algorithm>
#include <string>
#include <vector>

#include "config.h"
#include "errno_keeper.h"
#include "kest/klib.h"
#include "name_service.h"

namespace {

// The user's groups, primary group first.
bool UserGroups(const char* name, std::vector<gid_t>* groups) {
  KLIBUserIdentity identity;
  if (!name || !kest::klib::LookupUser(name, &identity, true)) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return false;
  }
  *groups = std::move(identity.groups);
  return true;
}

}  // namespace

extern "C" const char* KLIBGroupAdminGroupName(void) {
  ErrnoKeeper errno_keeper;
  thread_local std::string name;
  auto config = kest::klib::LoadGlobalConfig();
  // A malformed configuration names no group: nobody is an administrator
  // until it is fixed, rather than the members of a default group.
  name = config ? config->admin_group : "";
  return name.c_str();
}

extern "C" int KLIBGroupIsAdminGroupMem(const char* szUserName, int /*flags*/) {
  ErrnoKeeper errno_keeper;
  auto config = kest::klib::LoadGlobalConfig();
  if (!config) return -1;
  gid_t admin_gid;
  if (!kest::klib::LookupGroupId(config->admin_group, &admin_gid))
    return 0;  // no such group: nobody is in it
  std::vector<gid_t> groups;
  if (!UserGroups(szUserName, &groups)) return -1;
  return std::find(groups.begin(), groups.end(), admin_gid) != groups.end() ? 1 : 0;
}

extern "C" PKLIBCSZLIST KLIBGroupInfoListGet(const char* szUserName, BOOL bWithPrimary) {
  ErrnoKeeper errno_keeper;
  std::vector<gid_t> groups;
  if (!UserGroups(szUserName, &groups)) return nullptr;
  if (!bWithPrimary) groups.erase(groups.begin());
  PKLIBCSZLIST list = KLIBCSzListAlloc(static_cast<int>(groups.size()) + 1);
  if (!list) return nullptr;
  for (gid_t gid : groups) {
    std::string name;
    // A gid without a name in the group database still counts for
    // permissions: keep it as its number.
    if (!kest::klib::LookupGroupName(gid, &name)) name = std::to_string(gid);
    if (KLIBCSzListPush(&list, name.c_str()) < 0) {
      KLIBCSzListFree(list);
      return nullptr;
    }
  }
  return list;
}
