#include "user_access.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#ifndef AT_EACCESS
#define AT_EACCESS 0x200
#endif
#ifndef SYS_faccessat2
#define SYS_faccessat2 439
#endif

namespace kestondri {
namespace daemon {
namespace {

// Raw system calls on purpose: glibc's setgroups() changes every thread of
// the process, the kernel call only the caller.
long ThreadSetGroups(const std::vector<gid_t>& groups) {
  return syscall(SYS_setgroups, groups.size(), groups.empty() ? nullptr : groups.data());
}
uid_t ThreadSetFsUid(uid_t uid) { return static_cast<uid_t>(syscall(SYS_setfsuid, uid)); }
gid_t ThreadSetFsGid(gid_t gid) { return static_cast<gid_t>(syscall(SYS_setfsgid, gid)); }

// Takes the user's file-system identity on this thread; gives back the
// previous one on destruction, whatever happened in between.
class ScopedFsIdentity {
 public:
  ScopedFsIdentity(uid_t uid, gid_t gid, const std::vector<gid_t>& groups) {
    int n = getgroups(0, nullptr);
    if (n >= 0) {
      saved_groups_.resize(static_cast<size_t>(n));
      if (n > 0 && getgroups(n, saved_groups_.data()) < 0) return;
    } else {
      return;
    }
    if (ThreadSetGroups(groups) != 0) return;
    groups_set_ = true;
    saved_gid_ = ThreadSetFsGid(gid);
    saved_uid_ = ThreadSetFsUid(uid);
    // setfsuid() reports no errors; asking again tells whether it took.
    ok_ = ThreadSetFsUid(static_cast<uid_t>(-1)) == uid &&
          ThreadSetFsGid(static_cast<gid_t>(-1)) == gid;
  }
  ~ScopedFsIdentity() {
    if (!groups_set_) return;
    ThreadSetFsUid(saved_uid_);
    ThreadSetFsGid(saved_gid_);
    ThreadSetGroups(saved_groups_);
  }
  ScopedFsIdentity(const ScopedFsIdentity&) = delete;
  ScopedFsIdentity& operator=(const ScopedFsIdentity&) = delete;
  bool ok() const { return ok_; }

 private:
  std::vector<gid_t> saved_groups_;
  uid_t saved_uid_ = 0;
  gid_t saved_gid_ = 0;
  bool groups_set_ = false;
  bool ok_ = false;
};

}  // namespace

UserAccess::UserAccess(uid_t uid, gid_t fallback_gid) : uid_(uid) {
  std::vector<char> buf(16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) == 0 && found) {
    gid_ = pw.pw_gid;
    int n = 64;
    groups_.resize(static_cast<size_t>(n));
    while (getgrouplist(pw.pw_name, pw.pw_gid, groups_.data(), &n) < 0) {
      groups_.resize(static_cast<size_t>(n) + 16);
      n = static_cast<int>(groups_.size());
    }
    groups_.resize(static_cast<size_t>(n));
    known_ = true;
  } else if (fallback_gid != static_cast<gid_t>(-1)) {
    gid_ = fallback_gid;
    groups_.push_back(fallback_gid);
    known_ = true;
  }
}

bool UserAccess::CanRead(const std::string& path) {
  auto it = answers_.find(path);
  if (it != answers_.end()) return it->second;
  CheckAll({path});
  return answers_[path];
}

void UserAccess::CheckAll(const std::vector<std::string>& paths) {
  std::vector<const std::string*> todo;
  for (const auto& path : paths) {
    if (answers_.find(path) == answers_.end()) todo.push_back(&path);
  }
  if (todo.empty()) return;
  if (!known_) {
    for (const auto* path : todo) answers_[*path] = false;
    return;
  }
  int saved_errno = errno;
  {
    ScopedFsIdentity identity(uid_, gid_, groups_);
    for (const auto* path : todo) answers_[*path] = identity.ok() && CheckOne(*path);
  }
  errno = saved_errno;
}

bool UserAccess::CheckOne(const std::string& path) {
  if (path.empty() || path[0] != '/') return false;
  // With AT_EACCESS the kernel checks with the file-system ids just taken
  // (plain access() would use the real ids, which stay root's).
  return syscall(SYS_faccessat2, AT_FDCWD, path.c_str(), R_OK, AT_EACCESS) == 0;
}

}  // namespace daemon
}  // namespace kestondri
