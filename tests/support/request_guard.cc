#include "support/request_guard.h"

#include <dirent.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "common/sdk/credentials.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(getgroups(0, nullptr));
  groups.resize(std::max(0, getgroups(static_cast<int>(groups.size()), groups.data())));
  std::sort(groups.begin(), groups.end());
  return groups;
}

// Open descriptors, less the folder store's connection, which the indexing
// library keeps open for the life of the thread on purpose.
int RequestFdCount() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  char target[PATH_MAX];
  while (struct dirent* entry = readdir(dir)) {
    if (entry->d_name[0] == '.' || atoi(entry->d_name) == dirfd(dir)) continue;
    const std::string link = std::string("/proc/self/fd/") + entry->d_name;
    const ssize_t n = readlink(link.c_str(), target, sizeof(target) - 1);
    // Also a connection to a store that a test removed: "... (deleted)".
    constexpr char kStore[] = "/var/packages/KestOndri/var/fileindex/folders.db";
    if (n > 0 && std::string(target, n).rfind(kStore, 0) == 0) continue;
    ++count;
  }
  closedir(dir);
  return count;
}

}  // namespace

RequestGuard::RequestGuard() {
  // The request's log lines depend on errno: leave it as the test set it.
  const int saved_errno = errno;
  // Children of earlier, unguarded work (a request's after-answer child, a
  // stopped helper) may still be on their way out: let them go first, so
  // that the baseline holds only children meant to outlive this request.
  ReapChildren(2000);
  // syslog keeps its connection open after the first line; open it now so
  // that it is part of the baseline.
  openlog(nullptr, LOG_NDELAY, LOG_USER);
  fd_count_ = RequestFdCount();
  children_ = LiveChildren().size();
  euid_ = expected_euid_ = geteuid();
  egid_ = expected_egid_ = getegid();
  groups_ = Groups();
  errno = saved_errno;
}

RequestGuard::~RequestGuard() { Finish(); }

void RequestGuard::ExpectIdentityAfter(uid_t euid, gid_t egid) {
  expected_euid_ = euid;
  expected_egid_ = egid;
}

void RequestGuard::ExpectIdentityAfter(const std::string& user_name) {
  const TestUser& user = UserByName(user_name);
  ExpectIdentityAfter(user.uid, user.gid);
}

const std::vector<int>& RequestGuard::Finish() {
  if (finished_) return statuses_;
  finished_ = true;
  const int saved_errno = errno;
  const int running = ReapChildren(5000, &statuses_);
  EXPECT_EQ(children_, static_cast<size_t>(running)) << "children left running by the request";
  EXPECT_EQ(fd_count_, RequestFdCount()) << "descriptors opened or closed by the request";
  EXPECT_EQ(expected_euid_, geteuid()) << "effective uid after the request";
  EXPECT_EQ(expected_egid_, getegid()) << "effective gid after the request";

  kestondri::Mutex& lock = kestondri::sdk::SDKMutex();
  const bool free = lock.TryLock();
  EXPECT_TRUE(free) << "the platform lock is still held after the request";
  if (free) lock.Unlock();

  // Put back the identity the test had, whatever the request left.
  if (geteuid() != 0 && seteuid(0) != 0) ADD_FAILURE() << "cannot regain root";
  if (setgroups(groups_.size(), groups_.data()) != 0) ADD_FAILURE() << "cannot restore groups";
  if (setegid(egid_) != 0 || seteuid(euid_) != 0) ADD_FAILURE() << "cannot restore the ids";
  errno = saved_errno;
  return statuses_;
}

bool AllExitedZero(const std::vector<int>& statuses, size_t count) {
  if (statuses.size() != count) return false;
  for (int status : statuses) {
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return false;
  }
  return true;
}

}  // namespace kesttest
