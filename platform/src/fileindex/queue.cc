#include "queue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "common/error.h"
#include "kest/klib.h"

namespace kestondri {
namespace fileindex {
namespace {

constexpr char kHeader[] = "# kestondri queue 1";

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

[[noreturn]] void Fail(const std::string& what) {
  const int saved = errno;
  errno = 0;
  throw Error(kErrPlatform, what + (saved ? std::string(": ") + strerror(saved) : ""));
}

// Folders of the queue are root's and searchable by all, so that anybody
// can see whether a queue file exists (the status method does, as the login
// user); the files themselves hold paths and are root's alone.
void EnsureDir(const std::string& path) {
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISDIR(st.st_mode)) {
      errno = ENOTDIR;
      Fail("queue folder " + path);
    }
    return;
  }
  if (mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) Fail("cannot create " + path);
  if (chown(path.c_str(), 0, 0) != 0 || chmod(path.c_str(), 0755) != 0) {
    Fail("cannot secure " + path);
  }
}

void AddEntry(std::vector<QueueEntry>* entries, const QueueEntry& entry) {
  for (auto it = entries->begin(); it != entries->end();) {
    if (it->op == entry.op && it->path == entry.path) {
      it = entries->erase(it);
    } else {
      ++it;
    }
  }
  entries->push_back(entry);
}

}  // namespace

// Complete lines only: a line without its newline is the cut end of an
// interrupted write.
void ReadQueueFile(const std::string& file, std::vector<QueueEntry>* out) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return;
  std::stringstream buffer;
  buffer << in.rdbuf();
  const std::string text = buffer.str();
  size_t start = 0;
  for (;;) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) break;
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (line.empty() || line[0] == '#') continue;
    const size_t tab = line.find('\t');
    if (tab == std::string::npos) continue;
    QueueEntry entry{line.substr(0, tab), line.substr(tab + 1)};
    const bool known_op =
        entry.op == kQueueUpdate || entry.op == kQueueReindex || entry.op == kQueueRemove;
    if (known_op && !entry.path.empty()) {
      out->push_back(entry);
    }
  }
}

std::string QueuePathOf(const std::string& share_path) {
  char path[4096] = {0};
  if (FILEIDXQueuePathCompose(share_path.c_str(), path, sizeof(path)) < 0) {
    throw Error(kErrPlatform, "FILEIDXQueuePathCompose failed for " + share_path);
  }
  return path;
}

std::vector<QueueEntry> QueueRead(const std::string& share_path) {
  const std::string queue = QueuePathOf(share_path);
  std::vector<QueueEntry> entries;
  ReadQueueFile(queue + ".tmp", &entries);
  ReadQueueFile(queue, &entries);
  return entries;
}

void QueueAppend(const std::string& share_path, const std::vector<QueueEntry>& entries) {
  if (entries.empty()) return;
  const std::string queue = QueuePathOf(share_path);
  const std::string dir = queue.substr(0, queue.rfind('/'));
  EnsureDir(dir.substr(0, dir.rfind('/')));
  EnsureDir(dir);

  Fd lock;
  lock.fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (lock.fd < 0) Fail("cannot open " + dir);
  while (flock(lock.fd, LOCK_EX) != 0) {
    if (errno != EINTR) Fail("cannot lock " + dir);
  }

  // What a rewrite interrupted before its rename left in ".tmp" is not lost:
  // it is read first, the queue itself after it.
  const std::string tmp = queue + ".tmp";
  std::vector<QueueEntry> all;
  ReadQueueFile(tmp, &all);
  std::vector<QueueEntry> current;
  ReadQueueFile(queue, &current);
  for (const auto& e : current) AddEntry(&all, e);
  for (const auto& e : entries) AddEntry(&all, e);

  std::string text = std::string(kHeader) + "\n";
  for (const auto& e : all) text += e.op + "\t" + e.path + "\n";

  Fd out;
  out.fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (out.fd < 0) Fail("cannot write " + tmp);
  if (fchown(out.fd, 0, 0) != 0 || fchmod(out.fd, 0600) != 0) Fail("cannot secure " + tmp);
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(out.fd, text.data() + done, text.size() - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      Fail("cannot write " + tmp);
    }
    done += static_cast<size_t>(n);
  }
  if (fsync(out.fd) != 0) Fail("cannot write " + tmp);
  if (rename(tmp.c_str(), queue.c_str()) != 0) Fail("cannot rename " + tmp);
  fsync(lock.fd);
}

}  // namespace fileindex
}  // namespace kestondri
