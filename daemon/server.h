// kestelasticd's listening side: a Unix stream socket open to every local
// user, one acceptor thread and a fixed pool of workers. Each accepted
// connection is served by one worker from its first request to its close;
// every worker owns its Xapian databases (IndexCache), so no database object
// is ever touched by two threads.
#ifndef KESTONDRI_DAEMON_SERVER_H_
#define KESTONDRI_DAEMON_SERVER_H_

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "command_handler.h"
#include "index_cache.h"
#include "index_resolver.h"

namespace kestondri {
namespace daemon {

struct ServerOptions {
  std::string socket_path = "/var/run/kestelasticd.sock";
  int workers = 16;
  // A client that sends nothing (or reads nothing) for this long is dropped,
  // so an idle connection cannot hold a worker for ever.
  int io_timeout_seconds = 30;
};

class Server {
 public:
  // `resolver` must outlive the server.
  Server(const IndexResolver& resolver, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the socket (replacing a stale one) and starts the threads. False
  // with `*error` set when the socket cannot be made.
  bool Start(std::string* error);
  // Blocks until Stop() is called (from a signal-watching thread or another
  // thread), then closes the socket, removes its file and joins the threads.
  void Wait();
  // Asks the server to stop; safe from any thread, any number of times.
  void Stop();

 private:
  void AcceptLoop();
  void WorkerLoop();
  void Serve(int fd, IndexCache& cache);

  const IndexResolver& resolver_;
  ServerOptions options_;
  MissingIndexLog missing_;
  CommandHandler handler_;
  int listen_fd_ = -1;
  int wake_pipe_[2] = {-1, -1};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<int> pending_;
  std::thread acceptor_;
  std::vector<std::thread> workers_;
  bool waited_ = false;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_SERVER_H_
