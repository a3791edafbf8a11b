// Failure logging. Every line goes to syslog at LOG_ERR and begins with the
// prefix "<file>:<line> (<pid>, <euid>) (<function>) ". The file, line and
// function are fixed texts of each call site (they identify the check in the
// field), so they are passed in, never taken from __FILE__ or __LINE__.
//
// The errno rule is applied here once: when errno is non-zero at the moment
// of logging, " [err: <strerror>]" is appended and errno is reset to 0, so
// that a later line does not repeat a stale cause. With errno zero the plain
// form is used and errno is left alone.
#ifndef KESTONDRI_COMMON_LOG_H_
#define KESTONDRI_COMMON_LOG_H_

#include <string>

#include "common/error.h"

namespace kestondri {

struct LogSite {
  const char* file;
  int line;
  const char* func;
};

// Writes the prefix and the printf-formatted text.
KEST_EXPORT void LogError(const LogSite& site, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// "Failed [<expr>]".
KEST_EXPORT void LogFailed(const LogSite& site, const char* expr);
// "Failed [<expr>], reason: <reason>".
KEST_EXPORT void LogFailed(const LogSite& site, const char* expr, const std::string& reason);

// Logs a failed check with the error's reason (the short form when the
// reason is empty) and throws the error.
[[noreturn]] KEST_EXPORT void ThrowFailed(const LogSite& site, const char* expr,
                                          const Error& error);

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_LOG_H_
