// kest-extract-worker: parses the files the extractor hands over on
// descriptor 3, one at a time, under resource limits, as an unprivileged
// user. It is started by ExtractWorker and dies with its parent.
#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "extract/document_extractors.h"
#include "extract/worker_protocol.h"

#if defined(__SANITIZE_ADDRESS__)
#define KEST_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KEST_UNDER_ASAN 1
#endif
#endif

namespace {

using kestondri::indexer::ExtractResult;
using kestondri::indexer::ExtractStatus;
using kestondri::indexer::WorkerRequest;

struct Args {
  int socket_fd = -1;
  unsigned long long memory = 0;
  long uid = -1;
  long gid = -1;
  long parent = 0;
};

bool ParseArgs(int argc, char** argv, Args* args) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    const size_t eq = a.find('=');
    if (eq == std::string::npos) return false;
    const std::string key = a.substr(0, eq);
    char* end = nullptr;
    errno = 0;
    const unsigned long long v = std::strtoull(a.c_str() + eq + 1, &end, 10);
    if (errno != 0 || *end != '\0' || end == a.c_str() + eq + 1) return false;
    if (key == "--socket-fd") {
      args->socket_fd = static_cast<int>(v);
    } else if (key == "--memory") {
      args->memory = v;
    } else if (key == "--uid") {
      args->uid = static_cast<long>(v);
    } else if (key == "--gid") {
      args->gid = static_cast<long>(v);
    } else if (key == "--parent") {
      args->parent = static_cast<long>(v);
    } else {
      return false;
    }
  }
  return args->socket_fd >= 0;
}

void SetLimit(int resource, rlim_t value) {
  struct rlimit rl = {value, value};
  setrlimit(resource, &rl);
}

// Everything that must hold before the first hostile byte is read.
bool Confine(const Args& args) {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  if (args.parent > 0 && getppid() != args.parent) return false;  // orphaned already
  signal(SIGPIPE, SIG_IGN);
  // Only the standard streams and the socket stay open.
  syscall(SYS_close_range, static_cast<unsigned>(args.socket_fd) + 1, ~0u, 0u);
  for (int fd = 3; fd < args.socket_fd; ++fd) close(fd);
  SetLimit(RLIMIT_CORE, 0);
  SetLimit(RLIMIT_FSIZE, 0);
  SetLimit(RLIMIT_NOFILE, 64);
  if (geteuid() == 0 && args.uid >= 0) {
    if (setgroups(0, nullptr) != 0 || setgid(static_cast<gid_t>(args.gid)) != 0 ||
        setuid(static_cast<uid_t>(args.uid)) != 0) {
      return false;
    }
    if (args.uid != 0 && setuid(0) == 0) return false;  // the drop must stick
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
#ifndef KEST_UNDER_ASAN
  // Not under the sanitizer: its shadow memory needs terabytes of address
  // space, and its leak check at exit starts a thread.
  SetLimit(RLIMIT_NPROC, 0);
  if (args.memory > 0) SetLimit(RLIMIT_AS, static_cast<rlim_t>(args.memory));
#endif
  return true;
}

// The CPU seconds used so far: each file gets its own allowance on top.
rlim_t CpuSecondsUsed() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<rlim_t>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec + 1);
}

void AllowCpu(unsigned seconds) {
  struct rlimit rl;
  getrlimit(RLIMIT_CPU, &rl);
  rlim_t soft = seconds == 0 ? RLIM_INFINITY : CpuSecondsUsed() + seconds;
  if (rl.rlim_max != RLIM_INFINITY && (soft == RLIM_INFINITY || soft > rl.rlim_max)) {
    soft = rl.rlim_max;
  }
  rl.rlim_cur = soft;
  setrlimit(RLIMIT_CPU, &rl);
}

#ifdef KEST_EXTRACT_TEST_HOOKS
// Misbehaviours on demand, selected by the file's first bytes: this build
// exists only for the tests of the parent's handling of a bad worker.
// Returns true when the hook made up the result itself.
bool RunTestHook(int fd, int sock, ExtractResult* result) {
  char head[32] = {0};
  if (pread(fd, head, sizeof(head) - 1, 0) <= 0) return false;
  const std::string h(head);
  if (h.rfind("KEST-TEST-HANG", 0) == 0) {
    for (;;) pause();
  }
  if (h.rfind("KEST-TEST-SPIN", 0) == 0) {
    volatile unsigned long n = 0;
    for (;;) n = n + 1;
  }
  if (h.rfind("KEST-TEST-CRASH", 0) == 0) raise(SIGSEGV);
  if (h.rfind("KEST-TEST-EXIT", 0) == 0) _exit(3);
  if (h.rfind("KEST-TEST-ALLOC", 0) == 0) {
    std::vector<std::vector<char>> hog;
    for (;;) hog.emplace_back(16u << 20, 'x');
  }
  if (h.rfind("KEST-TEST-LIE", 0) == 0) {
    result->status = ExtractStatus::kOk;
    result->text = "bad \xFF\xFE text \xED\xA0\x80";
    result->title = "\xC0\xAF title";
    result->charset = "\x80";
    return true;
  }
  if (h.rfind("KEST-TEST-GARBAGE", 0) == 0) {
    const char garbage[] = "\xFF\xFF\xFF\x7Fgarbage";
    if (write(sock, garbage, sizeof(garbage)) < 0) _exit(5);
    for (;;) pause();
  }
  return false;
}
#endif

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (!ParseArgs(argc, argv, &args)) {
    std::fprintf(stderr, "kest-extract-worker: started with bad arguments\n");
    return 2;
  }
  if (!Confine(args)) {
    std::fprintf(stderr, "kest-extract-worker: cannot confine itself: %s\n", std::strerror(errno));
    return 3;
  }
  kestondri::indexer::QuietParserLibraries();
  for (;;) {
    WorkerRequest request;
    int fd = -1;
    const int rc = kestondri::indexer::ReceiveRequest(args.socket_fd, &request, &fd);
    if (rc == 0) return 0;
    if (rc < 0) {
      if (fd >= 0) close(fd);
      return 4;
    }
    AllowCpu(request.limits.cpu_seconds);
    ExtractResult result;
    try {
#ifdef KEST_EXTRACT_TEST_HOOKS
      if (!RunTestHook(fd, args.socket_fd, &result))
#endif
        kestondri::indexer::ExtractDocument(fd, request.format, request.limits, &result);
    } catch (const std::bad_alloc&) {
      result = ExtractResult();
      result.format = kestondri::indexer::DocFormatName(request.format);
      result.status = ExtractStatus::kMemoryLimit;
      result.detail = "out of memory";
    } catch (const std::exception& e) {
      result = ExtractResult();
      result.format = kestondri::indexer::DocFormatName(request.format);
      result.status = ExtractStatus::kMalformed;
      result.detail = std::string("parser failed: ") + e.what();
    }
    close(fd);
    if (!kestondri::indexer::SendResult(args.socket_fd, result)) return 0;
  }
}
