#include "user_access.h"

#include <fcntl.h>
#include <grp.h>
#include <kest/klib.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

#include "index_schema.h"

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

std::vector<bool> UserAccess::CheckAll(const std::vector<std::string>& paths,
                                       const std::vector<std::string>* identities,
                                       const std::function<bool()>& stop) {
  std::vector<bool> result(paths.size(), false);
  if (!known_) return result;
  // Grouped by folder: each folder is opened once (as the user, so reaching
  // it proves the walk down to it), and each file is then checked by name
  // from there, one path component instead of the whole walk.
  std::vector<size_t> order;
  std::vector<std::string_view> dirs(paths.size());
  order.reserve(paths.size());
  for (size_t i = 0; i < paths.size(); ++i) {
    const std::string& path = paths[i];
    auto slash = path.rfind('/');
    if (path.empty() || path[0] != '/' || slash + 1 == path.size()) continue;
    dirs[i] = std::string_view(path).substr(0, slash == 0 ? 1 : slash);
    order.push_back(i);
  }
  if (order.empty()) return result;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) { return dirs[a] < dirs[b]; });
  int saved_errno = errno;
  {
    ScopedFsIdentity identity(uid_, gid_, groups_);
    if (identity.ok()) {
      int dir_fd = -1;
      std::string_view open_dir;
      bool have_dir = false;
      size_t checked = 0;
      for (size_t i : order) {
        if (stop && ++checked % 1024 == 0 && stop()) break;
        if (!have_dir || dirs[i] != open_dir) {
          if (dir_fd >= 0) close(dir_fd);
          open_dir = dirs[i];
          have_dir = true;
          dir_fd = open(std::string(open_dir).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        }
        if (dir_fd < 0) continue;
        const char* name = paths[i].c_str() + paths[i].rfind('/') + 1;
        // The lookup of `name` in the folder needs search permission on it,
        // checked with the user's ids like the rest.
        result[i] = syscall(SYS_faccessat2, dir_fd, name, R_OK, AT_EACCESS) == 0;
        // Looked up after the check: a file moved in and out again in
        // between does not keep its change time, so it cannot pass for the
        // indexed one.
        struct stat st;
        if (result[i] && identities) {
          result[i] = !(*identities)[i].empty() &&
                      fstatat(dir_fd, name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                      index::FileIdentity(st) == (*identities)[i];
        }
      }
      if (dir_fd >= 0) close(dir_fd);
    }
  }
  errno = saved_errno;
  return result;
}

bool PathWithin(const std::string& path, const std::string& dir) {
  if (dir == "/") return !path.empty() && path[0] == '/';
  return path.size() >= dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

std::optional<std::string> ShareScope(const std::string& share_name, uid_t uid) {
  std::vector<char> buf(16384);
  struct passwd pw;
  struct passwd* found = nullptr;
  // The platform's rules name users: a uid without a name has no share.
  if (getpwuid_r(uid, &pw, buf.data(), buf.size(), &found) != 0 || !found) return std::nullopt;
  const std::string name = pw.pw_name;
  if (KLIBGroupIsAdminGroupMem(name.c_str(), 0) == 1) return std::string();
  PKESTSHARE raw = nullptr;
  if (KESTShareGet(share_name.c_str(), &raw) < 0 || !raw) return std::nullopt;
  std::unique_ptr<KESTSHARE, void (*)(PKESTSHARE)> share(raw, KESTShareFree);
  if (KESTShareUserPrivCalc(name.c_str(), share.get()) != KEST_SHARE_PRIV_NA) {
    return std::string();
  }
  // Every user keeps their own home, whatever the "homes" share's lists say.
  char home[4096];
  if (share_name == "homes" && KESTServiceHomePathGet(name.c_str(), home, sizeof home) >= 0) {
    return std::string(home);
  }
  return std::nullopt;
}

}  // namespace daemon
}  // namespace kestondri
