#include "service/watcher.h"

#include <dirent.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace kestondri {
namespace indexer {
namespace {

constexpr uint32_t kMask = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                           IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB | IN_ONLYDIR |
                           IN_DONT_FOLLOW | IN_EXCL_UNLINK;
// Past this many changed paths of one share, the folders are walked instead.
constexpr size_t kMaxPendingPaths = 10000;
constexpr auto kFlushDelay = std::chrono::milliseconds(200);

bool Skipped(const char* name) {
  return strncmp(name, "@kestondri", 10) == 0 || strcmp(name, "@eaDir") == 0;
}

}  // namespace

Watcher::Watcher(Sink sink) : sink_(std::move(sink)) {
  fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  wake_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (fd_ < 0 || wake_fd_ < 0) {
    const std::string reason = strerror(errno);
    if (fd_ >= 0) close(fd_);
    if (wake_fd_ >= 0) close(wake_fd_);
    throw std::runtime_error("cannot start inotify: " + reason);
  }
}

Watcher::~Watcher() {
  close(fd_);
  close(wake_fd_);
}

void Watcher::SetFolders(std::shared_ptr<const FolderTable> folders) {
  Request(std::move(folders), false, true);
}

void Watcher::Rescan() { Request(nullptr, true, true); }

void Watcher::Request(std::shared_ptr<const FolderTable> folders, bool rescan, bool wait) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (folders) next_folders_ = std::move(folders);
  rescan_ = rescan_ || rescan;
  const uint64_t mine = ++requested_;
  const uint64_t one = 1;
  (void)!write(wake_fd_, &one, sizeof one);
  if (wait) applied_cv_.wait(lock, [&] { return applied_ >= mine || stop_; });
}

void Watcher::Stop() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  applied_cv_.notify_all();
  const uint64_t one = 1;
  (void)!write(wake_fd_, &one, sizeof one);
}

void Watcher::AddTree(const std::string& root) {
  std::vector<std::string> dirs{root};
  while (!dirs.empty()) {
    const std::string dir = dirs.back();
    dirs.pop_back();
    const int wd = inotify_add_watch(fd_, dir.c_str(), kMask);
    if (wd < 0) {
      if (errno == ENOSPC && !warned_limit_) {
        warned_limit_ = true;
        syslog(LOG_WARNING,
               "index: inotify watch limit reached at %s; changes below are found by the "
               "periodic check (raise fs.inotify.max_user_watches)",
               dir.c_str());
      }
      continue;
    }
    auto old = dirs_.find(wd);
    if (old != dirs_.end() && old->second != dir) watches_.erase(old->second);
    dirs_[wd] = dir;
    watches_[dir] = wd;
    DIR* d = opendir(dir.c_str());
    if (!d) continue;
    while (struct dirent* e = readdir(d)) {
      if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 || Skipped(e->d_name)) {
        continue;
      }
      const std::string child = dir + "/" + e->d_name;
      struct stat st;
      if (e->d_type == DT_DIR ||
          (e->d_type == DT_UNKNOWN && lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))) {
        dirs.push_back(child);
      }
    }
    closedir(d);
  }
}

void Watcher::RemoveTree(const std::string& root) {
  for (auto it = watches_.lower_bound(root); it != watches_.end();) {
    if (!PathWithin(it->first, root)) {
      if (it->first.compare(0, root.size(), root) != 0) break;
      ++it;
      continue;
    }
    inotify_rm_watch(fd_, it->second);
    dirs_.erase(it->second);
    it = watches_.erase(it);
  }
}

// Picks up a new folder table: new folders are watched, watches no folder
// needs any more are dropped.
void Watcher::Apply() {
  std::shared_ptr<const FolderTable> next;
  bool rescan;
  uint64_t requested;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    next = std::move(next_folders_);
    rescan = rescan_;
    rescan_ = false;
    requested = requested_;
  }
  if (next) {
    std::shared_ptr<const FolderTable> old = folders_;
    folders_ = next;
    for (const auto& f : folders_->folders()) {
      bool known = false;
      if (old) {
        for (const auto& o : old->folders()) known = known || PathWithin(f.path, o.path);
      }
      if (!known) AddTree(f.path);
    }
    for (auto it = watches_.begin(); it != watches_.end();) {
      if (!folders_->Governing(it->first)) {
        inotify_rm_watch(fd_, it->second);
        dirs_.erase(it->second);
        it = watches_.erase(it);
      } else {
        ++it;
      }
    }
  }
  if (rescan && folders_) {
    warned_limit_ = false;
    for (const auto& f : folders_->folders()) AddTree(f.path);
  }
  if (requested == applied_) return;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    applied_ = requested;
  }
  applied_cv_.notify_all();
}

void Watcher::Note(const std::string& path) {
  if (!folders_) return;
  const IndexedFolder* folder = folders_->Governing(path);
  if (!folder) return;
  auto& paths = pending_[folder->share_path];
  if (paths.size() < kMaxPendingPaths) {
    paths.insert(path);
  } else {
    overflowed_ = true;
  }
}

void Watcher::Flush() {
  if (overflowed_ && folders_) {
    // What changed is no longer known: every folder is walked again.
    for (const auto& f : folders_->folders()) pending_[f.share_path].insert(f.path);
    overflowed_ = false;
  }
  if (pending_.empty()) return;
  std::map<std::string, std::vector<std::string>> out;
  for (auto& share : pending_) {
    std::vector<std::string>& paths = out[share.first];
    // A path below another pending folder path is kept: a folder's walk
    // only looks again at what changed in size, time or owner.
    paths.assign(share.second.begin(), share.second.end());
  }
  pending_.clear();
  sink_(out);
}

void Watcher::HandleEvents() {
  alignas(struct inotify_event) char buffer[64 * 1024];
  for (;;) {
    const ssize_t n = read(fd_, buffer, sizeof buffer);
    if (n <= 0) return;
    for (char* p = buffer; p < buffer + n;) {
      const auto* ev = reinterpret_cast<const struct inotify_event*>(p);
      p += sizeof(struct inotify_event) + ev->len;
      if (ev->mask & IN_Q_OVERFLOW) {
        syslog(LOG_WARNING, "index: inotify queue overflowed; folders are checked again");
        overflowed_ = true;
        Request(nullptr, true, false);  // applied by this thread's next Apply()
        continue;
      }
      auto it = dirs_.find(ev->wd);
      if (it == dirs_.end()) continue;
      const std::string dir = it->second;
      if (ev->mask & IN_IGNORED) {
        // The folder went away, or its volume was unmounted. A folder made
        // again under the same name may have its own watch already.
        auto watch = watches_.find(dir);
        if (watch != watches_.end() && watch->second == ev->wd) watches_.erase(watch);
        dirs_.erase(it);
        continue;
      }
      if (ev->len == 0 || ev->name[0] == '\0') {
        if (ev->mask & (IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF)) Note(dir);
        continue;
      }
      if (Skipped(ev->name)) continue;
      const std::string path = dir + "/" + ev->name;
      if (ev->mask & IN_ISDIR) {
        if (ev->mask & (IN_CREATE | IN_MOVED_TO)) AddTree(path);
        if (ev->mask & (IN_MOVED_FROM | IN_DELETE)) RemoveTree(path);
      }
      Note(path);
    }
  }
}

void Watcher::Run() {
  auto next_flush = std::chrono::steady_clock::time_point::max();
  while (!stop_) {
    Apply();
    int timeout = 1000;
    if (!pending_.empty() || overflowed_) {
      const auto now = std::chrono::steady_clock::now();
      if (next_flush == std::chrono::steady_clock::time_point::max())
        next_flush = now + kFlushDelay;
      if (now >= next_flush) {
        Flush();
        next_flush = std::chrono::steady_clock::time_point::max();
        continue;
      }
      timeout = static_cast<int>(
          std::chrono::duration_cast<std::chrono::milliseconds>(next_flush - now).count() + 1);
    }
    struct pollfd fds[2] = {{fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    if (poll(fds, 2, timeout) < 0 && errno != EINTR) break;
    if (fds[1].revents & POLLIN) {
      uint64_t value;
      (void)!read(wake_fd_, &value, sizeof value);
    }
    if (fds[0].revents & POLLIN) HandleEvents();
  }
  Flush();
  // Nothing applies requests any more: whoever waits for one must not hang.
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stop_ = true;
  }
  applied_cv_.notify_all();
}

}  // namespace indexer
}  // namespace kestondri
