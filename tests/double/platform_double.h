// The platform's test double. Linked into a test executable, it wraps the C
// library's functions: each call is counted and forwarded to the real
// library, unless a fault was armed for it, in which case it fails the way
// the real function fails (with the chosen platform error code reported by
// KLIBCErrGet). Use it only to force what a real system cannot be made to
// do; everything else is tested on the real platform.
#ifndef KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_
#define KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_

#include <string>

namespace kesttest {

class PlatformDouble {
 public:
  // The next `times` calls of `function` fail; KLIBCErrGet then answers
  // `error_code`.
  static void FailNext(const std::string& function, int error_code = 0, int times = 1);
  // Calls of `function` since the last Reset().
  static int Calls(const std::string& function);
  // Clears counters and faults.
  static void Reset();
};

}  // namespace kesttest

#endif  // KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_
