// The web API server's master process: one thread, one event loop. It keeps
// every client connection, parses HTTP, routes requests, owns the sessions
// and the login throttle, and forks one worker per request (the worker runs
// the module's checker and handler, or PAM for a login). It is a child
// subreaper and reaps every descendant, since modules fork children that
// nobody waits for.
//
// Run() returns after SIGTERM or SIGINT once every request in flight has
// been answered. Not thread-safe; construct and run one per process.
#ifndef KESTONDRI_HOST_SERVER_SERVER_H_
#define KESTONDRI_HOST_SERVER_SERVER_H_

#include <memory>
#include <string>

#include "server/access_log.h"
#include "server/module_registry.h"
#include "server/server_config.h"

namespace kestondri {
namespace host {

class ServerImpl;

class Server {
 public:
  // Borrows all three for its whole life.
  Server(const ServerConfig& config, const ModuleRegistry& registry, AccessLog* access_log);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the configured address. False with `*error`.
  bool Listen(std::string* error);
  // Serves until stopped; returns the process exit status.
  int Run();

 private:
  std::unique_ptr<ServerImpl> impl_;
};

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_SERVER_H_
