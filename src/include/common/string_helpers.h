// String helpers used across the module and the package's libraries. None
// keeps state; all are thread-safe.
#ifndef KESTONDRI_COMMON_STRING_HELPERS_H_
#define KESTONDRI_COMMON_STRING_HELPERS_H_

#include <string>

#include "common/error.h"

namespace kestondri {

// White space is what isspace() accepts in the C locale.
KEST_EXPORT std::string LTrim(const std::string& s);
KEST_EXPORT std::string RTrim(const std::string& s);
KEST_EXPORT std::string Trim(const std::string& s);
// Byte-wise tolower(); no multi-byte folding.
KEST_EXPORT std::string ToLower(const std::string& s);
// strerror(errno), strerror(errnum).
KEST_EXPORT std::string GetErrnoStr();
KEST_EXPORT std::string GetErrnoStr(int errnum);

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_STRING_HELPERS_H_
