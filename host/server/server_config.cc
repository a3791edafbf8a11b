#include "server/server_config.h"

#include <ini.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

namespace kestondri {
namespace host {
namespace {

bool ParseInt(const char* text, long min, long max, long* out) {
  if (!*text) return false;
  errno = 0;
  char* end = nullptr;
  const long value = strtol(text, &end, 10);
  if (errno != 0 || *end != '\0' || value < min || value > max) return false;
  *out = value;
  return true;
}

struct Loader {
  ServerConfig* config;
  std::string problem;  // set by a handler that refused a line
  bool modules_named = false;
};

using Setter = std::function<bool(ServerConfig*, const char*)>;

template <typename T>
Setter IntSetter(T ServerConfig::*field, long min, long max) {
  return [field, min, max](ServerConfig* c, const char* v) {
    long value = 0;
    if (!ParseInt(v, min, max, &value)) return false;
    c->*field = static_cast<T>(value);
    return true;
  };
}

Setter TextSetter(std::string ServerConfig::*field, bool absolute_path) {
  return [field, absolute_path](ServerConfig* c, const char* v) {
    if (absolute_path && *v && *v != '/') return false;
    c->*field = v;
    return true;
  };
}

const std::map<std::string, Setter>& ServerKeys() {
  static const std::map<std::string, Setter> keys = {
      {"address", TextSetter(&ServerConfig::address, false)},
      {"port", IntSetter(&ServerConfig::port, 1, 65535)},
      {"static_root", TextSetter(&ServerConfig::static_root, true)},
      {"access_log", TextSetter(&ServerConfig::access_log, true)},
      {"pam_service", TextSetter(&ServerConfig::pam_service, false)},
      {"max_workers", IntSetter(&ServerConfig::max_workers, 1, 1024)},
      {"max_queue", IntSetter(&ServerConfig::max_queue, 0, 1000000)},
      {"request_timeout", IntSetter(&ServerConfig::request_timeout, 1, 86400)},
      {"max_requests_per_user", IntSetter(&ServerConfig::max_requests_per_user, 1, 1000000)},
      {"max_connections", IntSetter(&ServerConfig::max_connections, 1, 1000000)},
      {"max_connections_per_address",
       IntSetter(&ServerConfig::max_connections_per_address, 1, 1000000)},
      {"client_timeout", IntSetter(&ServerConfig::client_timeout, 1, 3600)},
      {"max_body_size", IntSetter(&ServerConfig::max_body_size, 1024, 1L << 30)},
      {"max_header_size", IntSetter(&ServerConfig::max_header_size, 1024, 1L << 20)},
      {"session_idle_timeout", IntSetter(&ServerConfig::session_idle_timeout, 1, 30 * 86400)},
      {"max_sessions", IntSetter(&ServerConfig::max_sessions, 1, 10000000)},
      {"max_sessions_per_user", IntSetter(&ServerConfig::max_sessions_per_user, 1, 10000000)},
      {"admin_recheck_interval", IntSetter(&ServerConfig::admin_recheck_interval, 0, 86400)},
      {"login_max_failures", IntSetter(&ServerConfig::login_max_failures, 1, 1000000)},
      {"login_max_failures_address",
       IntSetter(&ServerConfig::login_max_failures_address, 1, 1000000)},
      {"login_max_failures_account",
       IntSetter(&ServerConfig::login_max_failures_account, 1, 1000000)},
      {"login_failure_window", IntSetter(&ServerConfig::login_failure_window, 1, 86400)},
      {"login_failure_delay_ms", IntSetter(&ServerConfig::login_failure_delay_ms, 0, 60000)},
      {"min_login_uid", IntSetter(&ServerConfig::min_login_uid, 0, INT_MAX)},
  };
  return keys;
}

// inih goes on after a refused line and reports the first one; keep its reason.
int Refuse(Loader* loader, const std::string& problem) {
  if (loader->problem.empty()) loader->problem = problem;
  return 0;
}

int OnLine(void* user, const char* section, const char* name, const char* value) {
  auto* loader = static_cast<Loader*>(user);
  const std::string sect = section;
  if (sect == "modules") {
    if (!*value || *value != '/') {
      return Refuse(loader, "module \"" + std::string(name) + "\" needs an absolute path");
    }
    if (!loader->modules_named) loader->config->modules.clear();
    loader->modules_named = true;
    loader->config->modules.emplace_back(name, value);
    return 1;
  }
  if (sect != "server") {
    return Refuse(loader, "unknown section [" + sect + "]");
  }
  const auto& keys = ServerKeys();
  const auto key = keys.find(name);
  if (key == keys.end()) {
    return Refuse(loader, "unknown key \"" + std::string(name) + "\"");
  }
  if (!key->second(loader->config, value)) {
    return Refuse(loader, "bad value \"" + std::string(value) + "\" for \"" + name + "\"");
  }
  return 1;
}

}  // namespace

const char* DefaultModulePath() { return KEST_DEFAULT_MODULE_PATH; }

bool LoadServerConfig(const std::string& path, bool must_exist, ServerConfig* config,
                      std::string* error) {
  if (config->modules.empty()) config->modules.emplace_back("kestondri", DefaultModulePath());
  if (!must_exist && access(path.c_str(), F_OK) != 0 && errno == ENOENT) return true;
  Loader loader{config, "", false};
  const int result = ini_parse(path.c_str(), OnLine, &loader);
  if (result == -1) {
    *error = path + ": cannot read: " + strerror(errno);
    return false;
  }
  if (result != 0) {
    *error = path + ":" + std::to_string(result) + ": " +
             (loader.problem.empty() ? std::string("syntax error") : loader.problem);
    return false;
  }
  return true;
}

}  // namespace host
}  // namespace kestondri
