// Groups from the system's group database (NSS).
#include <grp.h>
#include <pwd.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "config.h"
#include "errno_keeper.h"
#include "kest/klib.h"

namespace {

bool LookupUser(const char* name, uid_t* uid, gid_t* gid) {
  std::vector<char> buffer(4096);
  passwd pw{};
  passwd* result = nullptr;
  int rc;
  while ((rc = getpwnam_r(name, &pw, buffer.data(), buffer.size(), &result)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) return false;
  *uid = pw.pw_uid;
  *gid = pw.pw_gid;
  return true;
}

// The user's groups, primary group first.
bool UserGroups(const char* name, std::vector<gid_t>* groups) {
  uid_t uid;
  gid_t primary;
  if (!name || !*name || !LookupUser(name, &uid, &primary)) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return false;
  }
  int count = 32;
  groups->resize(count);
  while (getgrouplist(name, primary, groups->data(), &count) < 0) {
    groups->resize(count + 32);
    count = static_cast<int>(groups->size());
  }
  groups->resize(count);
  auto it = std::find(groups->begin(), groups->end(), primary);
  if (it != groups->end()) groups->erase(it);
  groups->insert(groups->begin(), primary);
  return true;
}

bool GroupName(gid_t gid, std::string* name) {
  std::vector<char> buffer(4096);
  group gr{};
  group* result = nullptr;
  int rc;
  while ((rc = getgrgid_r(gid, &gr, buffer.data(), buffer.size(), &result)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) return false;
  *name = gr.gr_name;
  return true;
}

bool GroupId(const char* name, gid_t* gid) {
  std::vector<char> buffer(4096);
  group gr{};
  group* result = nullptr;
  int rc;
  while ((rc = getgrnam_r(name, &gr, buffer.data(), buffer.size(), &result)) == ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) return false;
  *gid = gr.gr_gid;
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
  if (!GroupId(config->admin_group.c_str(), &admin_gid))
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
    if (!GroupName(gid, &name)) name = std::to_string(gid);
    if (KLIBCSzListPush(&list, name.c_str()) < 0) {
      KLIBCSzListFree(list);
      return nullptr;
    }
  }
  return list;
}
