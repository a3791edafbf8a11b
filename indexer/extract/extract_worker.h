// The parent's side of the extraction worker: a long-lived child process,
// started with posix_spawn (forking a large indexer would copy its page
// tables for every restart), that parses the risky formats under resource
// limits. One file at a time; after a crash or a time-out the worker is
// killed and the next file starts a fresh one.
//
// Owns the child process and its socket; the destructor kills the child and
// reaps it. Not thread-safe: give each indexing thread its own ExtractWorker.
// The worker dies with the thread that started it (PR_SET_PDEATHSIG); if
// that thread ends first, the next Run() notices and starts a new one.
#ifndef KESTONDRI_INDEXER_EXTRACT_EXTRACT_WORKER_H_
#define KESTONDRI_INDEXER_EXTRACT_EXTRACT_WORKER_H_

#include <sys/types.h>

#include <string>

#include "extract/extract_types.h"
#include "extract/format_table.h"

namespace kestondri {
namespace indexer {

struct WorkerOptions {
  // The worker executable; empty: "kest-extract-worker" next to the running
  // executable, else the installed one.
  std::string worker_path;
  // The identity the worker takes when started by root: it parses hostile
  // files and needs no right of its own (files arrive as open descriptors).
  // Defaults to the user "nobody".
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
};

class ExtractWorker {
 public:
  explicit ExtractWorker(WorkerOptions options = WorkerOptions());
  ~ExtractWorker();
  ExtractWorker(const ExtractWorker&) = delete;
  ExtractWorker& operator=(const ExtractWorker&) = delete;

  // Extracts the open regular file `fd` (not taken over) of `format` in the
  // worker, starting it first if none runs. Never throws for a bad file or a
  // dying worker: the status says what happened (kTimeout, kCpuLimit,
  // kMemoryLimit, kCrashed, kWorkerFailed) and the text is then empty.
  ExtractResult Run(int fd, DocFormat format, const ExtractLimits& limits);

  // The running worker's pid, 0 when none runs.
  pid_t pid() const { return pid_; }
  // How many workers were started so far.
  unsigned starts() const { return starts_; }
  // Kills the running worker, if any.
  void Stop();

  // The executable Run() will start.
  const std::string& worker_path() const { return options_.worker_path; }

 private:
  bool Start(uint64_t memory_bytes, std::string* error);
  // After the worker closed its end: how it ended, as a status and a detail.
  ExtractStatus Reap(std::string* detail);

  WorkerOptions options_;
  pid_t pid_ = 0;
  int sock_ = -1;
  uint64_t memory_bytes_ = 0;  // the running worker's address-space limit
  unsigned starts_ = 0;
};

// The default worker executable (see WorkerOptions::worker_path).
std::string DefaultWorkerPath();

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_EXTRACT_WORKER_H_
