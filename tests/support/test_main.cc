// Every test executable enters the sandbox before any test runs.
#include <gtest/gtest.h>

#include "support/sandbox.h"

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  kesttest::EnterSandbox();
  return RUN_ALL_TESTS();
}
