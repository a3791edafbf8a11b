// Settings of the web API server, read from an INI file over embedded
// defaults. Every value comes from a file that only root should write, but it
// is still checked: a bad value stops the server at start with a message
// naming the line, rather than running with a surprising setting.
#ifndef KESTONDRI_HOST_SERVER_SERVER_CONFIG_H_
#define KESTONDRI_HOST_SERVER_SERVER_CONFIG_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace kestondri {
namespace host {

struct ServerConfig {
  std::string address = "127.0.0.1";
  int port = 5000;
  // (name, path) of every module library, in load order. Empty in the file
  // means the default module below.
  std::vector<std::pair<std::string, std::string>> modules;
  std::string static_root;                                          // empty: no static files
  std::string access_log = "/var/log/kestondri/webapi-access.log";  // empty: none
  std::string pam_service = "kestondri";

  int max_workers = 16;            // worker processes at once
  int max_queue = 1024;            // requests waiting for a worker
  int request_timeout = 60;        // seconds a worker may run
  int max_requests_per_user = 64;  // module requests running or queued per login user
  int max_connections = 4096;      // open client connections
  // Open connections of one client address (an IPv6 client: its /64).
  int max_connections_per_address = 256;
  int client_timeout = 30;  // seconds to receive one request or stay idle
  size_t max_body_size = 1 << 20;
  size_t max_header_size = 16 << 10;

  int session_idle_timeout = 1800;  // seconds
  // Seconds a session's administrator flag is trusted before a worker looks
  // it up again; 0 looks it up for every request.
  int admin_recheck_interval = 60;
  size_t max_sessions = 10000;
  // Per login user: one account logging in over and over only replaces its
  // own sessions.
  size_t max_sessions_per_user = 32;

  int login_max_failures = 5;           // per account and address within the window
  int login_max_failures_address = 30;  // per client address within the window
  // Per account, from addresses it did not sign in from lately.
  int login_max_failures_account = 20;
  int login_failure_window = 300;     // seconds
  int login_failure_delay_ms = 1000;  // before a failed login is answered
  uid_t min_login_uid = 1000;         // system accounts never sign in
};

// The module served when the file names none.
const char* DefaultModulePath();
// The file read when the command line names none.
constexpr const char kDefaultConfigPath[] = "/etc/kest/webapi-server.conf";

// Reads `path` over the defaults. A missing file is an error only when
// `must_exist`. Returns false with a one-line `*error` (naming the file and
// line) on any unreadable file, unknown section or key, or bad value.
bool LoadServerConfig(const std::string& path, bool must_exist, ServerConfig* config,
                      std::string* error);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_SERVER_CONFIG_H_
