// Running work in a forked child so that the caller goes on at once.
//
// The child reports its own failures to the system log and always ends with
// _exit(0): no exit handlers, no stream flushing, no destructors of the
// parent's objects. The parent never waits for the child; reaping is the
// hosting server's business.
#ifndef KESTONDRI_COMMON_SDK_TASK_H_
#define KESTONDRI_COMMON_SDK_TASK_H_

#include <cxxabi.h>
#include <sys/types.h>
#include <unistd.h>

#include <exception>
#include <functional>

#include "common/error.h"
#include "common/log.h"
#include "kest/klib.h"

namespace kestondri {
namespace sdk {

class TaskBase {
 public:
  virtual ~TaskBase() = default;
  virtual bool DoTask(std::function<void()> task) = 0;
};

class ForkTask : public TaskBase {
 public:
  // `fork_flag` goes to the platform's fork call unchanged.
  explicit ForkTask(int fork_flag) : fork_flag_(fork_flag) {}
  ~ForkTask() override = default;

  // Parent: true when the child was created, false when the fork failed (the
  // task then never runs). Child: runs the task and never returns.
  bool DoTask(std::function<void()> task) override {
    static constexpr char kFile[] = "../../..//src/include/common/sdk/task.h";
    pid_ = KLIBCProcForkEx(fork_flag_);
    if (0 == pid_) {
      try {
        task();
      } catch (const Error& e) {
        LogError({kFile, 33, "DoTask"}, "Failed to execute, %d %s", static_cast<int>(e.code()),
                 e.what());
      } catch (const std::exception& e) {
        LogError({kFile, 35, "DoTask"}, "Failed to execute, %s", e.what());
      } catch (abi::__forced_unwind&) {
        throw;
      } catch (...) {
        LogError({kFile, 37, "DoTask"}, "Failed to execute");
      }
      _exit(0);
    }
    if (pid_ < 0) {
      LogError({kFile, 43, "DoTask"}, "Failed to fork");
      return false;
    }
    return true;
  }

  pid_t pid() const { return pid_; }

 private:
  int fork_flag_;
  pid_t pid_ = 0;
};

}  // namespace sdk
}  // namespace kestondri

#endif  // KESTONDRI_COMMON_SDK_TASK_H_
