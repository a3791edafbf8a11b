#include "extract/extract_worker.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "extract/worker_protocol.h"

extern char** environ;

namespace kestondri {
namespace indexer {

namespace {

constexpr int kWorkerFd = 3;  // the socket's number in the worker
constexpr size_t kResultOverhead = 64 * 1024;
// Answers are framed with a 32-bit length: text beyond this is cut anyway.
constexpr size_t kMaxWorkerText = size_t{1} << 30;

bool IsExecutable(const std::string& path) { return access(path.c_str(), X_OK) == 0; }

std::string Dirname(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

}  // namespace

std::string DefaultWorkerPath() {
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (n > 0) {
    self[n] = '\0';
    const std::string dir = Dirname(self);
    for (const std::string& candidate :
         {dir + "/kest-extract-worker", dir + "/../libexec/kestondri/kest-extract-worker"}) {
      if (IsExecutable(candidate)) return candidate;
    }
  }
  errno = 0;
  return KEST_EXTRACT_WORKER_INSTALLED;
}

ExtractWorker::ExtractWorker(WorkerOptions options) : options_(std::move(options)) {
  if (options_.worker_path.empty()) options_.worker_path = DefaultWorkerPath();
  if (options_.uid == static_cast<uid_t>(-1)) {
    struct passwd pw;
    struct passwd* found = nullptr;
    char buf[4096];
    if (getpwnam_r("nobody", &pw, buf, sizeof(buf), &found) == 0 && found != nullptr) {
      options_.uid = pw.pw_uid;
      options_.gid = pw.pw_gid;
    } else {
      options_.uid = 65534;
      options_.gid = 65534;
    }
    errno = 0;
  }
}

ExtractWorker::~ExtractWorker() { Stop(); }

bool ExtractWorker::Start(uint64_t memory_bytes, std::string* error) {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    *error = std::string("socketpair: ") + std::strerror(errno);
    return false;
  }
  int child_end = fds[1];
  // Out of the way of the descriptors the child sets up: the standard
  // streams (a daemon may have closed them, so the pair may have got 0 or 1)
  // and its socket's number (dup2 onto itself would keep close-on-exec).
  if (child_end <= kWorkerFd) {
    child_end = fcntl(fds[1], F_DUPFD_CLOEXEC, kWorkerFd + 1);
    close(fds[1]);
    if (child_end < 0) {
      *error = std::string("fcntl: ") + std::strerror(errno);
      close(fds[0]);
      return false;
    }
  }
  const std::vector<std::string> args = {
      options_.worker_path,
      "--socket-fd=" + std::to_string(kWorkerFd),
      "--memory=" + std::to_string(memory_bytes),
      "--uid=" + std::to_string(options_.uid),
      "--gid=" + std::to_string(options_.gid),
      "--parent=" + std::to_string(getpid()),
  };
  std::vector<char*> argv;
  for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, child_end, kWorkerFd);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, all;
  sigemptyset(&none);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  pid_t pid = 0;
  const int rc =
      posix_spawn(&pid, options_.worker_path.c_str(), &actions, &attr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  close(child_end);
  if (rc != 0) {
    close(fds[0]);
    *error = "cannot start " + options_.worker_path + ": " + std::strerror(rc);
    return false;
  }
  pid_ = pid;
  sock_ = fds[0];
  memory_bytes_ = memory_bytes;
  ++starts_;
  return true;
}

void ExtractWorker::Stop() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = 0;
  }
  if (sock_ >= 0) close(sock_);
  sock_ = -1;
  errno = 0;
}

ExtractStatus ExtractWorker::Reap(std::string* detail) {
  int status = 0;
  pid_t done = 0;
  // It closed its end, so it is on its way out; do not wait for ever if not.
  for (int i = 0; i < 100 && done == 0; ++i) {
    done = waitpid(pid_, &status, WNOHANG);
    if (done == 0) usleep(10000);
  }
  if (done == 0) {
    kill(pid_, SIGKILL);
    done = waitpid(pid_, &status, 0);
  }
  pid_ = 0;
  close(sock_);
  sock_ = -1;
  errno = 0;
  if (done > 0 && WIFSIGNALED(status)) {
    const int sig = WTERMSIG(status);
    *detail =
        std::string("worker killed by signal ") + std::to_string(sig) + " (" + strsignal(sig) + ")";
    if (sig == SIGXCPU) return ExtractStatus::kCpuLimit;
    return ExtractStatus::kCrashed;
  }
  if (done > 0 && WIFEXITED(status)) {
    *detail = "worker exited with status " + std::to_string(WEXITSTATUS(status));
    return ExtractStatus::kCrashed;
  }
  *detail = "worker lost";
  return ExtractStatus::kCrashed;
}

ExtractResult ExtractWorker::Run(int fd, DocFormat format, const ExtractLimits& limits) {
  ExtractResult result;
  result.format = DocFormatName(format);
  // The address-space limit is the worker's, set once when it starts.
  if (pid_ > 0 && memory_bytes_ != limits.max_memory_bytes) Stop();
  // A worker that died since the last file (killed from outside) is not to
  // be blamed on this one.
  if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == pid_) {
    pid_ = 0;
    Stop();
  }
  // A worker may have died between two files (killed from outside): one
  // fresh start is worth trying before the file is given up.
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (pid_ == 0) {
      std::string error;
      if (!Start(limits.max_memory_bytes, &error)) {
        result.status = ExtractStatus::kWorkerFailed;
        result.detail = error;
        return result;
      }
    }
    WorkerRequest request;
    request.format = format;
    request.limits = limits;
    request.limits.max_text_bytes = std::min(limits.max_text_bytes, kMaxWorkerText);
    if (SendRequest(sock_, request, fd)) break;
    std::string ignored;
    Reap(&ignored);
    if (attempt == 1) {
      result.status = ExtractStatus::kWorkerFailed;
      result.detail = "worker does not take requests";
      return result;
    }
  }
  // Zero means no deadline: a day stands for "never" without overflow.
  const long long deadline = MonotonicMs() + (limits.wall_ms > 0 ? limits.wall_ms : 86400000LL);
  ExtractResult received;
  const size_t max_answer = std::min(limits.max_text_bytes, kMaxWorkerText) + kResultOverhead;
  switch (ReceiveResult(sock_, deadline, max_answer, &received)) {
    case ReceiveOutcome::kOk:
      return received;
    case ReceiveOutcome::kTimeout:
      Stop();
      result.status = ExtractStatus::kTimeout;
      result.detail = "no result within " + std::to_string(limits.wall_ms) + " ms";
      return result;
    case ReceiveOutcome::kMalformed:
      Stop();
      result.status = ExtractStatus::kCrashed;
      result.detail = "malformed answer from the worker";
      return result;
    case ReceiveOutcome::kClosed:
      break;
  }
  result.status = Reap(&result.detail);
  return result;
}

}  // namespace indexer
}  // namespace kestondri
