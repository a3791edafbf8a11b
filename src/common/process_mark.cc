#include "common/process_mark.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kestondri {
namespace {

// Reads a small /proc file whole; false when it cannot be opened or read.
bool ReadProcFile(const std::string& path, std::string* text) {
  const int saved = errno;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  bool ok = fd >= 0;
  char buffer[2048];
  while (ok) {
    const ssize_t n = read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    ok = n >= 0;
    if (n <= 0 || text->size() > 16384) break;
    text->append(buffer, static_cast<size_t>(n));
  }
  if (fd >= 0) close(fd);
  // A process that is gone is an answer, not a failure to log later.
  errno = saved;
  return ok;
}

}  // namespace

bool ReadProcessMark(pid_t pid, ProcessMark* mark) {
  if (pid <= 0) return false;
  const std::string dir = "/proc/" + std::to_string(pid);
  std::string stat;
  std::string status;
  if (!ReadProcFile(dir + "/stat", &stat) || !ReadProcFile(dir + "/status", &status)) return false;

  // The command name in parentheses may hold spaces and ')': the fields
  // that follow start after the last ')'. Field 3 is the state, field 4 the
  // parent, field 22 the start time.
  const size_t close_paren = stat.rfind(')');
  if (close_paren == std::string::npos) return false;
  char state = 0;
  int parent = 0;
  unsigned long long start_time = 0;
  if (3 != std::sscanf(stat.c_str() + close_paren + 1,
                       " %c %d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d "
                       "%*d %llu",
                       &state, &parent, &start_time)) {
    return false;
  }
  if (state == 'Z' || state == 'X') return false;

  // "Uid:\t<real>\t<effective>\t<saved>\t<fs>"
  const size_t uid_line = status.find("\nUid:");
  if (uid_line == std::string::npos) return false;
  unsigned int real = 0;
  unsigned int effective = 0;
  if (2 != std::sscanf(status.c_str() + uid_line + 5, "%u %u", &real, &effective)) return false;

  mark->parent = parent;
  mark->start_time = start_time;
  mark->euid = effective;
  return true;
}

}  // namespace kestondri
