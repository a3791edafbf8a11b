// The module's one exception type and its codes.
//
// Every failure is thrown as kestondri::Error by value and caught by
// reference in exactly two places: the handler template (which turns the
// code into the web API error code) and the forked task runner (which logs
// it). The reason goes to the system log only; clients see the code alone.
#ifndef KESTONDRI_COMMON_ERROR_H_
#define KESTONDRI_COMMON_ERROR_H_

#include <cstdint>
#include <stdexcept>
#include <string>

#define KEST_EXPORT __attribute__((visibility("default")))

namespace kestondri {

// The numbers are part of the web API and never change. Codes reported by
// the search daemon pass through as they are, outside this list.
enum ErrorCode : int32_t {
  kErrUnknown = 117,
  kErrInvalidParam = 120,
  kErrExecute = 121,
  kErrPlatform = 502,
  kErrCredentials = 503,
  kErrNoPermission = 507,
  kErrDaemonConnect = 605,
  kErrShare = 800,
  kErrUser = 801,
  kErrOutdatedQuery = 1600,
};

// "KestOndri error, code=<code>" followed by ", reason=[<reason>]" unless
// the reason is empty.
KEST_EXPORT std::string ErrorString(ErrorCode code, const std::string& reason);

class KEST_EXPORT Error : public std::runtime_error {
 public:
  explicit Error(ErrorCode code);
  Error(ErrorCode code, const std::string& reason);
  ~Error() override;

  // The reason alone, not the composed message of the base: log lines print
  // the reason only, and an error built from a code alone has an empty what().
  const char* what() const noexcept override;

  ErrorCode code() const { return code_; }
  const std::string& reason() const { return reason_; }
  // The composed message, "KestOndri error, code=...".
  const char* message() const noexcept { return std::runtime_error::what(); }

 private:
  ErrorCode code_;
  std::string reason_;
};

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_ERROR_H_
