// The access log: one line per answered request, appended with a single
// write so lines of a long run never interleave. Never holds a query string,
// a password or a session id. Reopen() follows log rotation (SIGHUP).
// Single-threaded: the master owns it.
#ifndef KESTONDRI_HOST_SERVER_ACCESS_LOG_H_
#define KESTONDRI_HOST_SERVER_ACCESS_LOG_H_

#include <string>

namespace kestondri {
namespace host {

struct AccessRecord {
  std::string client;       // peer address
  std::string user;         // login user, "" when none
  std::string http_method;  // GET, POST...
  std::string path;         // the target without its query string
  int status = 0;           // HTTP status
  size_t bytes = 0;         // body bytes sent
  std::string api;          // "" outside the entry point
  std::string method;
  long version = 0;
  int code = 0;  // error code of the answer, 0 for a success
  long millis = 0;
};

class AccessLog {
 public:
  AccessLog() = default;
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  // Opens (creating the file and its folder) `path` for appending; an empty
  // path logs nothing. False with `*error` when it cannot be opened.
  bool Open(const std::string& path, std::string* error);
  bool Reopen(std::string* error) { return Open(path_, error); }
  void Write(const AccessRecord& record);

 private:
  std::string path_;
  int fd_ = -1;
};

// One log line, newline included: time (UTC), client, user, "METHOD path",
// status, bytes, api/method/version, "ok" or the error code, milliseconds.
std::string FormatAccessRecord(const AccessRecord& record, long epoch_seconds);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_ACCESS_LOG_H_
