// The real indexer as a child process of a test, with fast commits and
// suggestion updates so that tests need not wait long.
#ifndef KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_
#define KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_

#include <string>
#include <vector>

#include "support/sandbox.h"

namespace kesttest {

class IndexerProcess : public ChildProcess {
 public:
  explicit IndexerProcess(std::vector<std::string> extra_args = {})
      : extra_args_(std::move(extra_args)) {}

  void Start() {
    std::vector<std::string> args = {std::string(KEST_BINARY_DIR) + "/indexer/kest-indexer",
                                     "--commit-ms=100", "--suggest-delay=1"};
    args.insert(args.end(), extra_args_.begin(), extra_args_.end());
    Run(args);
  }

 private:
  std::vector<std::string> extra_args_;
};

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_INDEXER_PROCESS_H_
