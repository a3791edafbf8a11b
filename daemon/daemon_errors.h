// Error codes of kestelasticd's replies. The module hands them to the web
// client unchanged, so they stay clear of the module's own codes. Never
// renumber them.
#ifndef KESTONDRI_DAEMON_DAEMON_ERRORS_H_
#define KESTONDRI_DAEMON_DAEMON_ERRORS_H_

#include <stdexcept>
#include <string>

namespace kestondri {
namespace daemon {

enum DaemonErrorCode {
  kErrUnknownCommand = 1000,    // "command" names no command
  kErrMalformedQuery = 1001,    // the keyword cannot be parsed or expanded
  kErrMalformedRequest = 1002,  // not JSON, not an object, or a member of the wrong shape
  kErrNoDocument = 1003,        // highlight: no such index or document, or not visible
  kErrIndexUnavailable = 1004,  // highlight: the index is missing, checked or damaged
  kErrInternal = 1005,          // anything else; the daemon goes on serving
  kErrTooManyQueries = 1006,    // indicate: more queries than one request may hold
};

// Thrown while handling one request; becomes the request's error reply.
class DaemonError : public std::runtime_error {
 public:
  DaemonError(int code, const std::string& msg) : std::runtime_error(msg), code_(code) {}
  int code() const { return code_; }

 private:
  int code_;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_DAEMON_ERRORS_H_
