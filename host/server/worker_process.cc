#include "server/worker_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

#include <cstdint>

namespace kestondri {
namespace host {
namespace {

void CloseFrom(unsigned first, unsigned last) {
  if (first > last) return;
  if (syscall(SYS_close_range, first, last, 0) == 0) return;
  // Kernels without close_range: walk the open descriptors instead.
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return;
  const int own = dirfd(dir);
  while (struct dirent* entry = readdir(dir)) {
    const long fd = strtol(entry->d_name, nullptr, 10);
    if (entry->d_name[0] == '.' || fd == own) continue;
    if (fd >= static_cast<long>(first) && fd <= static_cast<long>(last))
      close(static_cast<int>(fd));
  }
  closedir(dir);
}

// The worker starts from the master's state; none of the master's signal
// handling, descriptors or log connection may reach the module's code.
void ShedMasterState(int keep_fd, const std::string& log_ident) {
  // The master catches these (the event loop) or ignores them; every other
  // disposition is still the default, and fault handlers of sanitizer
  // builds stay in place to report crashes.
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGCHLD, SIGPIPE}) sigaction(sig, &action, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);

  closelog();
  CloseFrom(3, static_cast<unsigned>(keep_fd) - 1);
  CloseFrom(static_cast<unsigned>(keep_fd) + 1, UINT_MAX);
  // The ident must outlive every syslog call; the worker never frees it.
  openlog((new std::string(log_ident))->c_str(), LOG_PID, LOG_DAEMON);
  // Its own process group, so a time-out can end it with all it forked.
  setpgid(0, 0);
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = write(fd, data.data() + done, data.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

pid_t ForkWorker(const std::function<std::string()>& work, const std::string& failure_answer,
                 const std::string& log_ident, int* answer_fd) {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return -1;
  const pid_t pid = fork();
  if (pid < 0) {
    const int saved = errno;
    close(fds[0]);
    close(fds[1]);
    errno = saved;
    return -1;
  }
  if (pid == 0) {
    ShedMasterState(fds[1], log_ident);
    std::string answer;
    try {
      answer = work();
    } catch (...) {
      answer = failure_answer;
    }
    if (answer.size() > kMaxAnswerSize) answer = failure_answer;
    WriteAll(fds[1], EncodeFrame(answer));
    _exit(0);
  }
  close(fds[1]);
  fcntl(fds[0], F_SETFL, fcntl(fds[0], F_GETFL) | O_NONBLOCK);
  *answer_fd = fds[0];
  return pid;
}

FrameState DecodeFrame(const std::string& received, std::string* text) {
  if (received.size() < 4) return FrameState::kIncomplete;
  const auto* bytes = reinterpret_cast<const unsigned char*>(received.data());
  const size_t length = (size_t{bytes[0]} << 24) | (size_t{bytes[1]} << 16) |
                        (size_t{bytes[2]} << 8) | size_t{bytes[3]};
  if (length > kMaxAnswerSize) return FrameState::kBad;
  if (received.size() < 4 + length) return FrameState::kIncomplete;
  if (received.size() > 4 + length) return FrameState::kBad;
  text->assign(received, 4, length);
  return FrameState::kComplete;
}

std::string EncodeFrame(const std::string& text) {
  const auto length = static_cast<uint32_t>(text.size());
  std::string frame;
  frame.reserve(4 + text.size());
  frame.push_back(static_cast<char>(length >> 24));
  frame.push_back(static_cast<char>(length >> 16));
  frame.push_back(static_cast<char>(length >> 8));
  frame.push_back(static_cast<char>(length));
  frame += text;
  return frame;
}

}  // namespace host
}  // namespace kestondri
