// The real indexer as a child process of a test, with fast commits and
// suggestion updates so that tests need not wait long.
#ifndef KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_
#define KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace kesttest {

class IndexerProcess {
 public:
  explicit IndexerProcess(std::vector<std::string> extra_args = {})
      : extra_args_(std::move(extra_args)) {}
  ~IndexerProcess() { Stop(); }
  IndexerProcess(const IndexerProcess&) = delete;
  IndexerProcess& operator=(const IndexerProcess&) = delete;

  void Start() {
    const std::string program = std::string(KEST_BINARY_DIR) + "/indexer/kest-indexer";
    std::vector<std::string> args = {program, "--commit-ms=100", "--suggest-delay=1"};
    args.insert(args.end(), extra_args_.begin(), extra_args_.end());
    pid_ = fork();
    if (pid_ == 0) {
      std::vector<char*> argv;
      for (auto& arg : args) argv.push_back(&arg[0]);
      argv.push_back(nullptr);
      execv(program.c_str(), argv.data());
      _exit(127);
    }
  }

  // Stops the indexer with SIGTERM; its wait status, or -1 when not running.
  int Stop() {
    if (pid_ <= 0) return -1;
    kill(pid_, SIGTERM);
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return status;
  }

 private:
  std::vector<std::string> extra_args_;
  pid_t pid_ = -1;
};

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_
