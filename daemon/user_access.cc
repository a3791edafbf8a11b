#include "user_access.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <map>

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
  // Grouped by folder: each folder is opened once (as the user, so reaching
  // it proves the walk down to it), and each file is then checked by name
  // from there, one path component instead of the whole walk.
  std::map<std::string, std::vector<const std::string*>> by_dir;
  for (const auto& path : paths) {
    if (answers_.count(path)) continue;
    auto slash = path.rfind('/');
    if (!known_ || path.empty() || path[0] != '/' || slash == std::string::npos ||
        slash + 1 == path.size()) {
      answers_[path] = false;
      continue;
    }
    by_dir[path.substr(0, slash == 0 ? 1 : slash)].push_back(&path);
  }
  if (by_dir.empty()) return;
  int saved_errno = errno;
  {
    ScopedFsIdentity identity(uid_, gid_, groups_);
    for (const auto& entry : by_dir) {
      int dir_fd = identity.ok() ? open(entry.first.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC) : -1;
      for (const std::string* path : entry.second) {
        const char* name = path->c_str() + path->rfind('/') + 1;
        // The lookup of `name` in the folder needs search permission on it,
        // checked with the user's ids like the rest.
        answers_[*path] =
            dir_fd >= 0 && syscall(SYS_faccessat2, dir_fd, name, R_OK, AT_EACCESS) == 0;
      }
      if (dir_fd >= 0) close(dir_fd);
    }
  }
  errno = saved_errno;
}

}  // namespace daemon
}  // namespace kestondri
