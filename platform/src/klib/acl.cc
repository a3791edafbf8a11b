// Permission words from POSIX ACLs and mode bits.
//
// KESTACLPermCalc evaluates for a user who is not the caller, so it cannot
// ask the kernel; it repeats the kernel's algorithm (fs/posix_acl.c) per bit:
//   - root gets read and write, and execute on a directory or on a file with
//     any execute bit (what CAP_DAC_OVERRIDE grants);
//   - the file's owner gets the owner entry, and nothing else counts;
//   - when the group class bits (the mask) are all clear the ACL is not
//     looked at: the owning group gets nothing, everybody else "other";
//   - a named-user entry for the user gets its bits, limited by the mask;
//   - otherwise, if the owning group or a named group is among the user's
//     groups, the union of those entries, limited by the mask;
//   - otherwise the "other" entry.
// Without an ACL the mode bits are the three entries and there is no mask.
// The user also needs search (execute) on every folder above the file, as
// the kernel's path walk does. The file and its folders are looked at with
// the filesystem identity of root, for this thread alone, so that the answer
// about a user never depends on what the calling identity can reach.
// KESTACLPermGet is about the caller, so it asks the kernel itself.
#include <acl/libacl.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "errno_keeper.h"
#include "kest/klib.h"

namespace {

struct AclFree {
  void operator()(acl_t acl) const { acl_free(acl); }
};

int EntryBits(acl_entry_t entry) {
  acl_permset_t permset;
  if (acl_get_permset(entry, &permset) != 0) return 0;
  return (acl_get_perm(permset, ACL_READ) == 1 ? 4 : 0) |
         (acl_get_perm(permset, ACL_WRITE) == 1 ? 2 : 0) |
         (acl_get_perm(permset, ACL_EXECUTE) == 1 ? 1 : 0);
}

bool InGroups(const std::vector<gid_t>& groups, gid_t gid) {
  return std::find(groups.begin(), groups.end(), gid) != groups.end();
}

int FromMode(const struct stat& st, uid_t uid, const std::vector<gid_t>& groups) {
  if (uid == st.st_uid) return (st.st_mode >> 6) & 7;
  if (InGroups(groups, st.st_gid)) return (st.st_mode >> 3) & 7;
  return st.st_mode & 7;
}

// -1 when the ACL cannot be read (errno tells), else the word.
int FromAcl(const char* path, const struct stat& st, uid_t uid, const std::vector<gid_t>& groups) {
  // The kernel looks at the ACL only when the group class bits (the mask)
  // grant something; with a mask of --- named entries fall back to the mode.
  if (uid == st.st_uid || (st.st_mode & S_IRWXG) == 0) return FromMode(st, uid, groups);
  std::unique_ptr<struct __acl_ext, AclFree> acl(acl_get_file(path, ACL_TYPE_ACCESS));
  if (!acl) {
    if (errno == ENOTSUP || errno == ENOSYS) {
      errno = 0;
      return FromMode(st, uid, groups);
    }
    return -1;
  }
  int owner = 0, other = 0, group_union = 0, named_user = -1;
  int mask = 7;
  bool group_matched = false;
  acl_entry_t entry;
  for (int which = ACL_FIRST_ENTRY; acl_get_entry(acl.get(), which, &entry) == 1;
       which = ACL_NEXT_ENTRY) {
    acl_tag_t tag;
    if (acl_get_tag_type(entry, &tag) != 0) continue;
    const int bits = EntryBits(entry);
    switch (tag) {
      case ACL_USER_OBJ:
        owner = bits;
        break;
      case ACL_USER: {
        auto* qualifier = static_cast<uid_t*>(acl_get_qualifier(entry));
        if (qualifier && *qualifier == uid) named_user = bits;
        acl_free(qualifier);
        break;
      }
      case ACL_GROUP_OBJ:
        if (InGroups(groups, st.st_gid)) {
          group_matched = true;
          group_union |= bits;
        }
        break;
      case ACL_GROUP: {
        auto* qualifier = static_cast<gid_t*>(acl_get_qualifier(entry));
        if (qualifier && InGroups(groups, *qualifier)) {
          group_matched = true;
          group_union |= bits;
        }
        acl_free(qualifier);
        break;
      }
      case ACL_MASK:
        mask = bits;
        break;
      case ACL_OTHER:
        other = bits;
        break;
      default:
        break;
    }
  }
  if (uid == st.st_uid) return owner;
  if (named_user >= 0) return named_user & mask;
  if (group_matched) return group_union & mask;
  return other;
}

// Looks with the filesystem identity of root for as long as it lives, on the
// calling thread only. A process whose saved uid is root (every service that
// switches identities) may always do so; elsewhere nothing changes and the
// calling identity's reach applies.
class RootFilesystemIdentity {
 public:
  RootFilesystemIdentity() : previous_(static_cast<uid_t>(setfsuid(0))) {}
  ~RootFilesystemIdentity() { setfsuid(previous_); }
  RootFilesystemIdentity(const RootFilesystemIdentity&) = delete;
  RootFilesystemIdentity& operator=(const RootFilesystemIdentity&) = delete;

 private:
  uid_t previous_;
};

// Whether the user may search every folder above `real_path` (a resolved
// absolute path); -1 when a folder's ACL cannot be read.
int CanWalkTo(const std::string& real_path, uid_t uid, const std::vector<gid_t>& groups) {
  for (size_t slash = real_path.find('/', 1); slash != std::string::npos;
       slash = real_path.find('/', slash + 1)) {
    const std::string folder = real_path.substr(0, slash);
    struct stat st;
    if (stat(folder.c_str(), &st) != 0) return -1;
    const int perm = FromAcl(folder.c_str(), st, uid, groups);
    if (perm < 0) return -1;
    if (!(perm & 1)) return 0;
  }
  // "/" itself: every user may search it on any system this runs on, but
  // ask all the same.
  struct stat st;
  if (stat("/", &st) != 0) return -1;
  const int perm = FromAcl("/", st, uid, groups);
  return perm < 0 ? -1 : (perm & 1);
}

}  // namespace

extern "C" int KESTACLPermCalc(const char* szUserName, PKLIBCSZLIST pGroupList, const char* szPath,
                               int* pPerm) {
  ErrnoKeeper errno_keeper;
  if (!szUserName || !szPath || !pPerm) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  uid_t uid;
  std::vector<gid_t> groups;
  const bool known = pGroupList ? kest::klib::UserId(szUserName, &uid)
                                : kest::klib::UserIds(szUserName, &uid, &groups);
  if (!known) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return -1;
  }
  if (pGroupList) {
    // The caller's list is the truth about the user's groups; names that no
    // longer resolve designate nothing.
    for (int i = 0; i < pGroupList->nItem; ++i) {
      gid_t gid;
      if (kest::klib::GroupIdByName(pGroupList->ppszItem[i], &gid)) groups.push_back(gid);
    }
  }
  RootFilesystemIdentity root_view;
  struct stat st;
  char real_path[PATH_MAX];
  if (stat(szPath, &st) != 0 || !realpath(szPath, real_path)) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  if (uid == 0) {
    *pPerm = 4 | 2 | ((S_ISDIR(st.st_mode) || (st.st_mode & 0111)) ? 1 : 0);
    return 0;
  }
  const int walk = CanWalkTo(real_path, uid, groups);
  const int perm = walk <= 0 ? walk : FromAcl(real_path, st, uid, groups);
  if (perm < 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  *pPerm = perm;
  return 0;
}

extern "C" int KESTACLPermGet(const char* szPath, int* pPerm) {
  ErrnoKeeper errno_keeper;
  if (!szPath || !pPerm) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  struct stat st;
  if (stat(szPath, &st) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  int perm = 0;
  const int saved = errno;
  if (faccessat(AT_FDCWD, szPath, R_OK, AT_EACCESS) == 0) perm |= 4;
  if (faccessat(AT_FDCWD, szPath, W_OK, AT_EACCESS) == 0) perm |= 2;
  if (faccessat(AT_FDCWD, szPath, X_OK, AT_EACCESS) == 0) perm |= 1;
  errno = saved;  // a denied bit is an answer, not a failure
  *pPerm = perm;
  return 0;
}
