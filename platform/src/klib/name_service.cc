#include "name_service.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "errno_keeper.h"

namespace kest {
namespace klib {
namespace {

std::unique_ptr<KLIBUserIdentity>& Primed() {
  static std::unique_ptr<KLIBUserIdentity> primed;
  return primed;
}

// Calls a reentrant lookup with a buffer that grows until the record fits.
template <typename Record, typename Call>
bool Fetch(Record* record, std::vector<char>* buffer, Call call) {
  buffer->resize(4096);
  Record* result = nullptr;
  int rc;
  while ((rc = call(record, buffer->data(), buffer->size(), &result)) == ERANGE) {
    buffer->resize(buffer->size() * 2);
  }
  return rc == 0 && result;
}

}  // namespace

bool LookupUser(const std::string& name, KLIBUserIdentity* identity, bool with_groups) {
  if (name.empty()) return false;
  const auto& primed = Primed();
  if (primed && primed->name == name) {
    *identity = *primed;
    return true;
  }
  passwd pw{};
  std::vector<char> buffer;
  if (!Fetch(&pw, &buffer, [&](passwd* p, char* b, size_t n, passwd** r) {
        return getpwnam_r(name.c_str(), p, b, n, r);
      })) {
    return false;
  }
  identity->name = name;
  identity->uid = pw.pw_uid;
  identity->gid = pw.pw_gid;
  identity->groups.clear();
  if (!with_groups) return true;
  int count = 32;
  identity->groups.resize(count);
  while (getgrouplist(name.c_str(), pw.pw_gid, identity->groups.data(), &count) < 0) {
    identity->groups.resize(count + 32);
    count = static_cast<int>(identity->groups.size());
  }
  identity->groups.resize(count);
  auto& groups = identity->groups;
  groups.erase(std::remove(groups.begin(), groups.end(), pw.pw_gid), groups.end());
  groups.insert(groups.begin(), pw.pw_gid);
  return true;
}

bool LookupGroupId(const std::string& name, gid_t* gid) {
  if (name.empty()) return false;
  group gr{};
  std::vector<char> buffer;
  if (!Fetch(&gr, &buffer, [&](group* g, char* b, size_t n, group** r) {
        return getgrnam_r(name.c_str(), g, b, n, r);
      })) {
    return false;
  }
  *gid = gr.gr_gid;
  return true;
}

bool LookupGroupName(gid_t gid, std::string* name) {
  group gr{};
  std::vector<char> buffer;
  if (!Fetch(&gr, &buffer,
             [&](group* g, char* b, size_t n, group** r) { return getgrgid_r(gid, g, b, n, r); })) {
    return false;
  }
  *name = gr.gr_name;
  return true;
}

}  // namespace klib
}  // namespace kest

bool KLIBUserIdentityGet(const std::string& user_name, KLIBUserIdentity* identity) {
  ErrnoKeeper errno_keeper;
  // Always the name services: this is what a caller primes others with.
  auto primed = std::move(kest::klib::Primed());
  const bool found = kest::klib::LookupUser(user_name, identity, true);
  kest::klib::Primed() = std::move(primed);
  if (!found) KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
  return found;
}

void KLIBUserIdentityPrime(const KLIBUserIdentity& identity) {
  auto& primed = kest::klib::Primed();
  if (identity.name.empty()) {
    primed.reset();
    return;
  }
  primed = std::make_unique<KLIBUserIdentity>(identity);
  // The list always leads with the primary group, as a lookup gives it.
  auto& groups = primed->groups;
  groups.erase(std::remove(groups.begin(), groups.end(), identity.gid), groups.end());
  groups.insert(groups.begin(), identity.gid);
}
