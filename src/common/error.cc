#include "common/error.h"

namespace kestondri {

std::string ErrorString(ErrorCode code, const std::string& reason) {
  std::string text = "KestOndri error, code=" + std::to_string(static_cast<int32_t>(code));
  if (!reason.empty()) text += ", reason=[" + reason + "]";
  return text;
}

Error::Error(ErrorCode code) : std::runtime_error(ErrorString(code, "")), code_(code) {}

Error::Error(ErrorCode code, const std::string& reason)
    : std::runtime_error(ErrorString(code, reason)), code_(code), reason_(reason) {}

Error::~Error() = default;

const char* Error::what() const noexcept { return reason_.c_str(); }

}  // namespace kestondri
