#include "support/syslog_capture.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kesttest {

SyslogCapture& SyslogCapture::Instance() {
  // Never destroyed: the reader thread runs until the process exits.
  static SyslogCapture* capture = new SyslogCapture();
  return *capture;
}

void SyslogCapture::Start() {
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, "/dev/log", sizeof(addr.sun_path) - 1);
  unlink(addr.sun_path);
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    perror("test sandbox: bind /dev/log");
    exit(2);
  }
  chmod("/dev/log", 0666);
  int size = 4 << 20;
  setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  reader_ = std::thread([this] { ReadLoop(); });
  reader_.detach();
}

void SyslogCapture::ReadLoop() {
  std::vector<char> buffer(65536);
  for (;;) {
    const ssize_t n = recv(fd_, buffer.data(), buffer.size(), 0);
    if (n <= 0) continue;
    std::string raw(buffer.data(), n);
    while (!raw.empty() && (raw.back() == '\n' || raw.back() == '\0')) raw.pop_back();
    SyslogLine line{0, raw};
    // "<PRI>Mmm dd hh:mm:ss tag[pid]: text": the timestamp holds no ": ".
    if (raw.size() > 1 && raw[0] == '<') {
      const auto close = raw.find('>');
      line.priority = atoi(raw.c_str() + 1);
      const auto colon = raw.find(": ", close == std::string::npos ? 0 : close + 16);
      if (colon != std::string::npos) line.text = raw.substr(colon + 2);
    }
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(std::move(line));
    ++generation_;
    arrived_.notify_all();
  }
}

void SyslogCapture::Clear() {
  Settle(20);
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::vector<SyslogLine> SyslogCapture::Lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<SyslogLine> SyslogCapture::Matching(const std::string& needle) {
  std::vector<SyslogLine> out;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& line : lines_) {
    if (line.text.find(needle) != std::string::npos) out.push_back(line);
  }
  return out;
}

bool SyslogCapture::WaitFor(const std::string& needle, size_t count, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    size_t found = 0;
    for (const auto& line : lines_) found += line.text.find(needle) != std::string::npos;
    if (found >= count) return true;
    if (arrived_.wait_until(lock, deadline) == std::cv_status::timeout) return false;
  }
}

void SyslogCapture::Settle(int quiet_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    const long before = generation_;
    arrived_.wait_for(lock, std::chrono::milliseconds(quiet_ms));
    // A line already sent (say, by a child that has exited) sits in the
    // socket until the reader takes it, however long a loaded machine keeps
    // the reader from running: quiet is not enough while any is queued.
    int queued = 0;
    if (ioctl(fd_, SIOCINQ, &queued) == 0 && queued > 0) continue;
    if (generation_ == before) return;
  }
}

}  // namespace kesttest
