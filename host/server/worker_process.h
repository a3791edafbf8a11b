// One request, one process. ForkWorker() forks a worker from the master; the
// worker drops everything it inherited that is not its own (signal handlers,
// every descriptor but the answer pipe and the standard three, the master's
// syslog connection), runs its work, writes the JSON answer as one frame on
// the pipe and leaves with _exit(0).
//
// The master never waits for end-of-file on the pipe: children the module
// forks after answering inherit the pipe's write end and may hold it open
// long after the worker is gone. An answer is complete when its frame is.
//
// Frame: a 4-byte length in network byte order, then that many bytes. The
// channel is a stream socket, so that a worker can hand the master an open
// descriptor with its answer (a file the worker opened as the login user).
#ifndef KESTONDRI_HOST_SERVER_WORKER_PROCESS_H_
#define KESTONDRI_HOST_SERVER_WORKER_PROCESS_H_

#include <sys/types.h>

#include <functional>
#include <string>

namespace kestondri {
namespace host {

// Larger answers are taken as a broken worker.
constexpr size_t kMaxAnswerSize = 256u << 20;

// Owns one descriptor; closes it when destroyed. Movable, not copyable.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }
  int get() const { return fd_; }
  int Release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void Reset(int fd = -1);

 private:
  int fd_ = -1;
};

// In a worker: `fd` travels to the master with the answer (the master gets a
// descriptor of its own for the same open file). The worker keeps its copy.
void PassDescriptorWithAnswer(int fd);

// In the master: reads what `channel` holds into `*received`, and a
// descriptor passed with it into `*passed` (one only; others are closed).
// Returns what read() would: >0 bytes, 0 at the end, -1 with errno.
ssize_t ReadAnswerChunk(int channel, std::string* received, UniqueFd* passed);

// In the master: forks a worker that runs `work` and sends what it returns
// as one frame. Returns the worker's pid with `*answer_fd` the pipe's read
// end (non-blocking, close-on-exec, owned by the caller), or -1 with errno
// set and nothing open. In the worker, never returns; an exception from
// `work`, or an answer over kMaxAnswerSize, sends `failure_answer` instead.
pid_t ForkWorker(const std::function<std::string()>& work, const std::string& failure_answer,
                 const std::string& log_ident, int* answer_fd);

enum class FrameState { kIncomplete, kComplete, kBad };

// Looks at what arrived so far; on kComplete, `*text` holds the frame's body.
FrameState DecodeFrame(const std::string& received, std::string* text);
std::string EncodeFrame(const std::string& text);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_WORKER_PROCESS_H_
