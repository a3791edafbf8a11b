// The one place where the C library asks the system's name services (NSS)
// about users and groups.
//
// A user's group list is the expensive question: getgrouplist() asks every
// source of the "group" line, and a systemd or directory source answers
// slowly even when it knows nothing about the user. A process may therefore
// be handed the identity of one user, looked up shortly before by someone it
// trusts (KLIBUserIdentityPrime); questions about that user are then answered
// from it. Not thread-safe, like the rest of the library.
#ifndef KEST_KLIB_NAME_SERVICE_H_
#define KEST_KLIB_NAME_SERVICE_H_

#include <sys/types.h>

#include <string>
#include <vector>

#include "kest/klib.h"

namespace kest {
namespace klib {

// The user's ids and, when `with_groups`, every group, the primary one
// first. False for an unknown user or an empty name.
bool LookupUser(const std::string& name, KLIBUserIdentity* identity, bool with_groups);
bool LookupGroupId(const std::string& name, gid_t* gid);
bool LookupGroupName(gid_t gid, std::string* name);

}  // namespace klib
}  // namespace kest

#endif  // KEST_KLIB_NAME_SERVICE_H_
