// Shared by the extraction tests: a scratch folder and the worker builds.
#ifndef KEST_TESTS_INDEXER_EXTRACT_TEST_UTIL_H_
#define KEST_TESTS_INDEXER_EXTRACT_TEST_UTIL_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "extract/extractor.h"
#include "support/sandbox.h"

namespace kesttest {

// The worker as installed, and a build of it that misbehaves on request
// (a file starting "KEST-TEST-HANG", "-SPIN", "-CRASH", "-EXIT", "-ALLOC").
inline kestondri::indexer::ExtractorOptions WorkerOptionsFor(const char* worker_path) {
  kestondri::indexer::ExtractorOptions options;
  options.worker.worker_path = worker_path;
  return options;
}

class ExtractTestBase : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = "/tmp/extract-" +
           std::string(::testing::UnitTest::GetInstance()->current_test_info()->name());
    mkdir(dir_.c_str(), 0755);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  std::string Write(const std::string& name, const std::string& content) {
    WriteFile(Path(name), content);
    return Path(name);
  }

  std::string dir_;
};

}  // namespace kesttest

#endif  // KEST_TESTS_INDEXER_EXTRACT_TEST_UTIL_H_
