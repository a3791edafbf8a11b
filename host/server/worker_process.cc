#include "server/worker_process.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/close_range.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

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

int g_passed_fd = -1;

// The first byte carries the descriptor, when there is one: on a stream
// socket the descriptor arrives with the byte it was sent with.
bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (g_passed_fd >= 0 && !data.empty()) {
    char control[CMSG_SPACE(sizeof(int))] = {};
    iovec iov{const_cast<char*>(data.data()), 1};
    msghdr message{};
    message.msg_iov = &iov;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    memcpy(CMSG_DATA(header), &g_passed_fd, sizeof(int));
    const ssize_t n = sendmsg(fd, &message, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n != 1) return false;
    done = 1;
    break;
  }
  while (done < data.size()) {
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
  if (this != &other) Reset(other.Release());
  return *this;
}

void UniqueFd::Reset(int fd) {
  if (fd_ >= 0) close(fd_);
  fd_ = fd;
}

void PassDescriptorWithAnswer(int fd) { g_passed_fd = fd; }

ssize_t ReadAnswerChunk(int channel, std::string* received, UniqueFd* passed) {
  char chunk[65536];
  char control[CMSG_SPACE(4 * sizeof(int))];
  iovec iov{chunk, sizeof(chunk)};
  msghdr message{};
  message.msg_iov = &iov;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof(control);
  const ssize_t n = recvmsg(channel, &message, MSG_CMSG_CLOEXEC);
  if (n < 0) return n;
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    const size_t count = (header->cmsg_len - CMSG_LEN(0)) / sizeof(int);
    for (size_t i = 0; i < count; ++i) {
      int fd;
      memcpy(&fd, CMSG_DATA(header) + i * sizeof(int), sizeof(int));
      if (passed->get() < 0) {
        passed->Reset(fd);
      } else {
        close(fd);
      }
    }
  }
  received->append(chunk, static_cast<size_t>(n));
  return n;
}

pid_t ForkWorker(const std::function<std::string()>& work, const std::string& failure_answer,
                 const std::string& log_ident, int* answer_fd) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return -1;
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
  // The master only reads; the worker's end is the one that writes.
  shutdown(fds[0], SHUT_WR);
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
