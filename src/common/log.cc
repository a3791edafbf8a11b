#include "common/log.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>
#include <unistd.h>

#include <vector>

namespace kestondri {
namespace {

void WriteLine(const LogSite& site, const char* format, va_list args) {
  // Formatting must not disturb the errno that the line reports.
  const int saved_errno = errno;
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::vector<char> text(length > 0 ? length + 1 : 1, '\0');
  if (length > 0) vsnprintf(text.data(), text.size(), format, args);

  if (saved_errno != 0) {
    errno = saved_errno;  // %m prints it
    syslog(LOG_ERR, "%s:%d (%d, %u) (%s) %s [err: %m]", site.file, site.line, getpid(), geteuid(),
           site.func, text.data());
    errno = 0;
  } else {
    syslog(LOG_ERR, "%s:%d (%d, %u) (%s) %s", site.file, site.line, getpid(), geteuid(), site.func,
           text.data());
    errno = 0;
  }
}

}  // namespace

void LogError(const LogSite& site, const char* format, ...) {
  va_list args;
  va_start(args, format);
  WriteLine(site, format, args);
  va_end(args);
}

void LogFailed(const LogSite& site, const char* expr) { LogError(site, "Failed [%s]", expr); }

void LogFailed(const LogSite& site, const char* expr, const std::string& reason) {
  LogError(site, "Failed [%s], reason: %s", expr, reason.c_str());
}

void ThrowFailed(const LogSite& site, const char* expr, const Error& error) {
  if (error.reason().empty()) {
    LogFailed(site, expr);
  } else {
    LogFailed(site, expr, error.reason());
  }
  throw error;
}

}  // namespace kestondri
