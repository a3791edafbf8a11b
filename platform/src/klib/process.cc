#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "kest/klib.h"

extern "C" pid_t KLIBCProcForkEx(int flags) {
  const pid_t pid = fork();
  if (pid < 0) {
    KLIBCErrSet(KLIB_ERR_FORK);
    return pid;
  }
  if (pid == 0 && (flags & KLIBC_FORK_RESET_SIGNALS)) {
    // Some numbers are reserved by the C library and refuse SIG_DFL; their
    // EINVAL must not reach the child's first log line.
    const int saved_errno = errno;
    for (int sig = 1; sig < NSIG; ++sig) {
      if (sig == SIGKILL || sig == SIGSTOP) continue;
      signal(sig, SIG_DFL);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    errno = saved_errno;
  }
  return pid;
}

extern "C" int KLIBCProcAliveByPidFile(const char* szPidFile) {
  if (!szPidFile) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  std::ifstream in(szPidFile);
  if (!in) return 0;
  long pid = 0;
  if (!(in >> pid) || pid <= 0) return 0;
  if (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM) return 1;
  errno = 0;
  return 0;
}
