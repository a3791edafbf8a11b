// kestelasticd's listening side: a Unix stream socket open to every local
// user, one poller thread and a fixed pool of workers. The poller accepts
// connections and watches the idle ones; a connection goes to a worker only
// when a request has begun to arrive, and back to the poller once answered,
// so clients that connect and say nothing never hold a worker. Every worker
// owns its Xapian databases (IndexCache), so no database object is ever
// touched by two threads. A request goes to the worker that became idle
// last: under light load one worker, with its databases, memory and CPU
// caches warm, serves request after request.
#ifndef KESTONDRI_DAEMON_SERVER_H_
#define KESTONDRI_DAEMON_SERVER_H_

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
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
  // A connection with no request for this long is closed.
  int idle_timeout_seconds = 60;
  // Bound on each read and write once a request has begun: a client that
  // stalls in the middle of a frame, or stops reading its reply, is dropped.
  int io_timeout_seconds = 10;
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
  // A worker waiting for a connection of its own.
  struct IdleWorker {
    std::condition_variable wake;
    int fd = -1;  // the connection handed over, or -1
  };

  void PollLoop();
  void WorkerLoop(IdleWorker& self);
  // Gives a readable connection to the last worker to become idle, or
  // queues it when all are busy. Called with mutex_ held.
  void Dispatch(int fd);
  // Wakes every idle worker (to stop). Called with mutex_ held.
  void WakeAll();
  // Serves one request; false when the connection is finished.
  bool ServeOne(int fd, IndexCache& cache);
  // Hands `fd` back to the poller to wait for its next request.
  void Park(int fd);
  void CloseConnection(int fd);

  const IndexResolver& resolver_;
  ServerOptions options_;
  MissingIndexLog missing_;
  CommandHandler handler_;
  int listen_fd_ = -1;
  int epoll_fd_ = -1;
  int wake_pipe_[2] = {-1, -1};
  std::atomic<bool> stopping_{false};
  std::mutex mutex_;
  std::deque<int> pending_;                                // readable connections for the workers
  std::vector<std::unique_ptr<IdleWorker>> worker_slots_;  // one per worker
  std::vector<IdleWorker*> idle_;                          // waiting workers, the last idle last
  std::map<int, time_t> idle_since_;                       // parked connections (guarded by mutex_)
  std::thread acceptor_;
  std::vector<std::thread> workers_;
  bool waited_ = false;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_SERVER_H_
