#include "queue.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/error.h"
#include "kest/klib.h"

namespace kestondri {
namespace fileindex {
namespace {

constexpr char kHeader[] = "# kestondri queue 2";
// Far above any real queue (every folder of a share, each path at most
// PATH_MAX), and bounded all the same.
constexpr off_t kMaxQueueSize = off_t{256} << 20;

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

std::string FormatQueueText(const std::vector<QueueEntry>& entries) {
  static const char kHex[] = "0123456789abcdef";
  std::string text = std::string(kHeader) + "\n";
  for (const auto& e : entries) {
    text += e.op;
    text += '\t';
    for (const char c : e.path) {
      const auto byte = static_cast<unsigned char>(c);
      if (byte == '\\') {
        text += "\\\\";
      } else if (byte < 0x20 || byte == 0x7f) {
        text += "\\x";
        text += kHex[byte >> 4];
        text += kHex[byte & 15];
      } else {
        text += c;  // bytes of any other value, valid UTF-8 or not, as they are
      }
    }
    text += '\n';
  }
  return text;
}

namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// False for a bad escape or a raw control byte: such a line was not written
// by FormatQueueText.
bool Unescape(const std::string& in, std::string* out) {
  out->clear();
  for (size_t i = 0; i < in.size(); ++i) {
    const auto byte = static_cast<unsigned char>(in[i]);
    if (byte < 0x20 || byte == 0x7f) return false;
    if (byte != '\\') {
      *out += in[i];
      continue;
    }
    if (i + 1 < in.size() && in[i + 1] == '\\') {
      *out += '\\';
      i += 1;
      continue;
    }
    if (i + 3 >= in.size() || in[i + 1] != 'x') return false;
    const int high = HexValue(in[i + 2]);
    const int low = HexValue(in[i + 3]);
    if (high < 0 || low < 0) return false;
    *out += static_cast<char>(high * 16 + low);
    i += 3;
  }
  return true;
}

}  // namespace

size_t ParseQueueText(const std::string& text, std::vector<QueueEntry>* out) {
  // Version 1 wrote paths raw; it is read as it was written.
  static const std::string kHeaderStem = "# kestondri queue ";
  int version = 1;
  size_t refused = 0;
  size_t start = 0;
  for (bool first = true;; first = false) {
    const size_t end = text.find('\n', start);
    if (end == std::string::npos) break;  // the cut end of an interrupted write
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    if (first && line.compare(0, kHeaderStem.size(), kHeaderStem) == 0) {
      const std::string number = line.substr(kHeaderStem.size());
      version = number == "1" ? 1 : number == "2" ? 2 : 0;
      if (version == 0) ++refused;  // a newer writer's format: nothing is guessed
      continue;
    }
    if (line.empty() || line[0] == '#') continue;
    const size_t tab = line.find('\t');
    QueueEntry entry;
    bool ok = version != 0 && tab != std::string::npos;
    if (ok) {
      entry.op = line.substr(0, tab);
      ok = entry.op == kQueueUpdate || entry.op == kQueueReindex || entry.op == kQueueRemove;
    }
    if (ok && version == 1) entry.path = line.substr(tab + 1);
    if (ok && version == 2) ok = Unescape(line.substr(tab + 1), &entry.path);
    ok = ok && !entry.path.empty() && entry.path[0] == '/' &&
         entry.path.find('\0') == std::string::npos;
    if (ok) {
      out->push_back(std::move(entry));
    } else {
      ++refused;
    }
  }
  return refused;
}

void ReadQueueFile(const std::string& file, std::vector<QueueEntry>* out) {
  // Only root writes queue files; still, what is read is never trusted: no
  // link is followed, nothing but a regular file of sane size is read.
  const int fd = open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    if (errno != ENOENT)
      syslog(LOG_ERR, "queue %s: cannot open: %s", file.c_str(), strerror(errno));
    return;
  }
  Fd guard;
  guard.fd = fd;
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxQueueSize) {
    syslog(LOG_ERR, "queue %s: not a regular file of at most %lld bytes; ignored", file.c_str(),
           static_cast<long long>(kMaxQueueSize));
    return;
  }
  std::string text(static_cast<size_t>(st.st_size), '\0');
  size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = read(fd, &text[done], text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  text.resize(done);
  const size_t refused = ParseQueueText(text, out);
  if (refused > 0) {
    syslog(LOG_ERR, "queue %s: %zu malformed lines skipped", file.c_str(), refused);
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

  const std::string text = FormatQueueText(all);

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
