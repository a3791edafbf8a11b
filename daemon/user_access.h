// Whether one user may read a file, decided by the kernel on the live file
// system: the calling thread takes the user's file-system uid, gid and
// supplementary groups for the length of one check, so modes, POSIX ACLs and
// every folder on the way are evaluated exactly as for the user's own
// processes, and a chmod or setfacl is seen by the very next check.
//
// Linux keeps these ids per thread and the calls below touch only the
// calling thread, so checks on different threads do not disturb each other.
// The process must run as root (it does: it serves every user's indices);
// when it cannot take the user's ids every check answers false.
//
// Not thread-safe: one UserAccess belongs to one thread for one request.
#ifndef KESTONDRI_DAEMON_USER_ACCESS_H_
#define KESTONDRI_DAEMON_USER_ACCESS_H_

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace kestondri {
namespace daemon {

class UserAccess {
 public:
  // The user's groups come from the user database; `fallback_gid` is used as
  // the primary group when the uid has no entry there (a peer may run with a
  // uid unknown to NSS). With no entry and no fallback every check fails.
  explicit UserAccess(uid_t uid, gid_t fallback_gid = static_cast<gid_t>(-1));
  UserAccess(const UserAccess&) = delete;
  UserAccess& operator=(const UserAccess&) = delete;

  // For each of `paths`, in order, under one switch of identity: true when
  // the user may read it (and search every folder leading to it).
  // With `identities` (one per path, index::FileIdentity form), a path also
  // has to name that very file, looked up after the permission check from
  // the same folder handle: a file put in its place since then, or an empty
  // identity, answers false. `stop`, asked now and then, ends the checks
  // early: the paths not checked yet answer false.
  std::vector<bool> CheckAll(const std::vector<std::string>& paths,
                             const std::vector<std::string>* identities = nullptr,
                             const std::function<bool()>& stop = nullptr);

  uid_t uid() const { return uid_; }

 private:
  uid_t uid_;
  gid_t gid_ = static_cast<gid_t>(-1);
  std::vector<gid_t> groups_;
  bool known_ = false;
};

// What of the shared folder `share_name` the user may search by the share's
// own rules (read and write lists, invalid users; docs/shares-conf.md), the
// same rules the web API applies before it asks the daemon: nullopt for
// nothing, "" for all of it, else only what lies within the folder returned
// (the user's own home, in "homes"). Administrators may search every share.
// Reads /etc/kest/shares.conf; a share it cannot read is nothing.
std::optional<std::string> ShareScope(const std::string& share_name, uid_t uid);

// True when `path` is `dir` or lies below it.
bool PathWithin(const std::string& path, const std::string& dir);

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_USER_ACCESS_H_
