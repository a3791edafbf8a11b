// The platform's test double: wraps some library functions, counts their calls and forwards
// them, unless a fault was armed: then the call fails as the real one, with the chosen error
// code. Only for what a real system cannot be made to do.
#ifndef KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_
#define KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_

#include <string>

namespace kesttest {

class PlatformDouble {
 public:
  static void FailNext(const std::string& function, int error_code = 0, int times = 1);
  static int Calls(const std::string& function);  // since the last Reset()
  static void Reset();
};

}  // namespace kesttest

#endif  // KEST_TESTS_DOUBLE_PLATFORM_DOUBLE_H_
