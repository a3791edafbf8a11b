// What tells one process apart from any later holder of its pid, read from
// /proc: its parent, its start time (clock ticks since boot) and the
// effective uid it acts as now.
//
// The query tracking file lives in /tmp, where any local user may write a
// record naming any pid; a pid alone is never enough to send a signal to.
#ifndef KESTONDRI_COMMON_PROCESS_MARK_H_
#define KESTONDRI_COMMON_PROCESS_MARK_H_

#include <sys/types.h>

#include <cstdint>

namespace kestondri {

struct ProcessMark {
  pid_t parent = 0;
  uint64_t start_time = 0;
  uid_t euid = 0;
};

// Fills `mark` for a live process; false when `pid` names no process (or one
// that is already a zombie, which has nothing left to stop). Thread-safe.
bool ReadProcessMark(pid_t pid, ProcessMark* mark);

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_PROCESS_MARK_H_
