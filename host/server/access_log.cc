#include "server/access_log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace kestondri {
namespace host {
namespace {

void MakeParents(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    mkdir(path.substr(0, slash).c_str(), 0750);
  }
}

// Client-chosen text (a path) must not forge extra fields or lines.
std::string Clean(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f || c == '"' || c == '\\') {
      static constexpr char kHex[] = "0123456789abcdef";
      out += "\\x";
      out.push_back(kHex[c >> 4]);
      out.push_back(kHex[c & 0xf]);
    } else {
      out.push_back(static_cast<char>(c));
    }
  }
  return out;
}

}  // namespace

AccessLog::~AccessLog() {
  if (fd_ >= 0) close(fd_);
}

bool AccessLog::Open(const std::string& path, std::string* error) {
  path_ = path;
  if (path.empty()) return true;
  MakeParents(path);
  const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640);
  if (fd < 0) {
    *error = "access log " + path + ": " + strerror(errno);
    return false;
  }
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
  return true;
}

void AccessLog::Write(const AccessRecord& record) {
  if (fd_ < 0) return;
  const std::string line = FormatAccessRecord(record, static_cast<long>(time(nullptr)));
  ssize_t ignored = write(fd_, line.data(), line.size());
  (void)ignored;
}

std::string FormatAccessRecord(const AccessRecord& record, long epoch_seconds) {
  char when[32];
  const time_t t = static_cast<time_t>(epoch_seconds);
  struct tm utc;
  gmtime_r(&t, &utc);
  strftime(when, sizeof(when), "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::string line = when;
  line += " " + record.client;
  line += " " + (record.user.empty() ? std::string("-") : Clean(record.user));
  line += " \"" + Clean(record.http_method) + " " + Clean(record.path) + "\"";
  line += " " + std::to_string(record.status) + " " + std::to_string(record.bytes);
  if (record.api.empty()) {
    line += " -";
  } else {
    line +=
        " " + Clean(record.api) + "/" + Clean(record.method) + "/" + std::to_string(record.version);
  }
  line += record.code == 0 ? std::string(" ok") : " " + std::to_string(record.code);
  line += " " + std::to_string(record.millis) + "ms\n";
  return line;
}

}  // namespace host
}  // namespace kestondri
