// What a call throws, as one comparable text.
#ifndef KEST_TESTS_SUPPORT_THROWN_H_
#define KEST_TESTS_SUPPORT_THROWN_H_

#include <functional>
#include <string>

namespace kesttest {

// "<code> <what()>" of the `E` that `body` throws; "nothing" when it returns.
// Anything else thrown passes through.
template <typename E>
std::string Thrown(const std::function<void()>& body) {
  try {
    body();
  } catch (const E& e) {
    return std::to_string(static_cast<int>(e.code())) + " " + e.what();
  }
  return "nothing";
}

}  // namespace kesttest

#endif  // KEST_TESTS_SUPPORT_THROWN_H_
