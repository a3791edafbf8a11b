#include "service/queue_file.h"

#include "kestondri/fileindex.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kestondri {
namespace indexer {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  throw std::runtime_error(what + ": " + strerror(errno));
}

void MakeDir(const std::string& path) {
  if (mkdir(path.c_str(), 0755) != 0) {
    if (errno == EEXIST) return;
    Fail("cannot create " + path);
  }
  if (chown(path.c_str(), 0, 0) != 0) Fail("cannot secure " + path);
}

void ReadInto(const std::string& file, std::vector<QueueItem>* out) {
  std::vector<fileindex::QueueEntry> entries;
  fileindex::ReadQueueFile(file, &entries);
  for (const auto& entry : entries) {
    out->push_back(QueueItem{entry.op, entry.path});  // absolute paths only
  }
}

void AddMoving(std::vector<QueueItem>* items, const QueueItem& item) {
  items->erase(std::remove(items->begin(), items->end(), item), items->end());
  items->push_back(item);
}

}  // namespace

class QueueFile::Lock {
 public:
  explicit Lock(const std::string& dir) {
    std::string volume_dir = dir.substr(0, dir.rfind('/'));
    MakeDir(volume_dir);
    MakeDir(dir);
    fd_ = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) Fail("cannot open " + dir);
    while (flock(fd_, LOCK_EX) != 0) {
      if (errno != EINTR) {
        close(fd_);
        Fail("cannot lock " + dir);
      }
    }
  }
  ~Lock() { close(fd_); }
  int fd() const { return fd_; }

 private:
  int fd_ = -1;
};

QueueFile::QueueFile(std::string queue_path)
    : path_(std::move(queue_path)), dir_(path_.substr(0, path_.rfind('/'))) {}

bool QueueFile::HasWork() const {
  struct stat st;
  return lstat(path_.c_str(), &st) == 0 || lstat((path_ + ".tmp").c_str(), &st) == 0;
}

QueueFile::Stamp QueueFile::StampNow() const {
  Stamp stamp;
  struct stat st;
  if (lstat(path_.c_str(), &st) == 0) {
    stamp.ino = st.st_ino;
    stamp.size = st.st_size;
    stamp.mtime_ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  }
  return stamp;
}

std::vector<QueueItem> QueueFile::ReadLocked() const {
  std::vector<QueueItem> raw;
  ReadInto(path_ + ".tmp", &raw);
  ReadInto(path_, &raw);
  std::vector<QueueItem> items;
  for (const auto& item : raw) AddMoving(&items, item);
  return items;
}

void QueueFile::WriteLocked(const std::vector<QueueItem>& items) {
  const std::string tmp = path_ + ".tmp";
  if (items.empty()) {
    unlink(path_.c_str());
    unlink(tmp.c_str());
    known_ = StampNow();
    return;
  }
  std::vector<fileindex::QueueEntry> entries;
  for (const auto& item : items) entries.push_back({item.op, item.path});
  const std::string text = fileindex::FormatQueueText(entries);
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) Fail("cannot write " + tmp);
  size_t done = 0;
  bool ok = fchown(fd, 0, 0) == 0 && fchmod(fd, 0600) == 0;
  while (ok && done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
      break;
    }
    done += static_cast<size_t>(n);
  }
  ok = ok && fsync(fd) == 0;
  const int saved = errno;
  close(fd);
  errno = saved;
  if (!ok) Fail("cannot write " + tmp);
  if (rename(tmp.c_str(), path_.c_str()) != 0) Fail("cannot rename " + tmp);
  known_ = StampNow();
}

void QueueFile::Append(const std::vector<QueueItem>& items) {
  if (items.empty()) return;
  std::lock_guard<std::mutex> guard(mutex_);
  Lock lock(dir_);
  const bool untouched = StampNow() == known_;
  std::vector<QueueItem> all = ReadLocked();
  for (const auto& item : items) {
    AddMoving(&all, item);
    appended_since_take_.insert(item);
  }
  WriteLocked(all);
  // Somebody else wrote since we last did: the stamp no longer tells that
  // only we changed the file.
  if (!untouched) known_ = Stamp();
}

std::vector<QueueItem> QueueFile::Take() {
  std::lock_guard<std::mutex> guard(mutex_);
  Lock lock(dir_);
  taken_ = ReadLocked();
  appended_since_take_.clear();
  known_ = StampNow();
  return taken_;
}

void QueueFile::Finish(const std::vector<QueueItem>& done) {
  std::lock_guard<std::mutex> guard(mutex_);
  Lock lock(dir_);
  const std::set<QueueItem> finished(done.begin(), done.end());
  std::vector<QueueItem> current = ReadLocked();
  const bool only_ours = StampNow() == known_;
  std::vector<QueueItem> left;
  if (only_ours) {
    for (const auto& item : current) {
      const bool was_taken = std::find(taken_.begin(), taken_.end(), item) != taken_.end();
      if (was_taken && finished.count(item) && !appended_since_take_.count(item)) continue;
      left.push_back(item);
    }
  } else {
    // Another writer changed the file. Entries it did not touch keep their
    // order, ahead of anything queued since; so the leading run of taken
    // entries in their taken order is ours. When that run is the whole
    // file, its last entry may have been queued again in its own place: it
    // stays, to be worked on once more.
    size_t run = 0;
    size_t next = 0;
    while (run < current.size()) {
      auto it =
          std::find(taken_.begin() + static_cast<std::ptrdiff_t>(next), taken_.end(), current[run]);
      if (it == taken_.end()) break;
      next = static_cast<size_t>(it - taken_.begin()) + 1;
      ++run;
    }
    if (run == current.size() && run > 0) --run;
    for (size_t i = 0; i < current.size(); ++i) {
      const auto& item = current[i];
      if (i < run && finished.count(item) && !appended_since_take_.count(item)) continue;
      left.push_back(item);
    }
  }
  if (left != current || (left.empty() && HasWork())) WriteLocked(left);
  taken_.clear();
  appended_since_take_.clear();
}

}  // namespace indexer
}  // namespace kestondri
