// kestelasticd's listening side: a Unix stream socket open to every local
// user, one poller thread and a fixed pool of workers.
//
// The poller accepts connections and reads every request itself, without
// blocking, until its frame is complete; only then does the request go to a
// worker. A client that connects and says nothing, or sends half a request,
// thus costs a descriptor and a buffer, never a worker. Since every local
// user may connect, what one peer uid (other than root, the module acting
// for the web) may hold at once is bounded: open connections, requests
// queued or being answered, and bytes of requests still arriving. Beyond a
// bound the connection is closed and the refusal logged.
//
// Workers write replies without blocking and give up on a client that
// takes too long to read, on one that went away, and at once when the
// server stops, so a stop never waits on a client.
//
// Every worker owns its Xapian databases (IndexCache), so no database
// object is ever touched by two threads. A request goes to the worker that
// became idle last: under light load one worker, with its databases, memory
// and CPU caches warm, serves request after request.
#ifndef KESTONDRI_DAEMON_SERVER_H_
#define KESTONDRI_DAEMON_SERVER_H_

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
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
  // A request must arrive whole within this long of its first byte, and
  // each piece of a reply must be taken by the client within this long.
  int io_timeout_seconds = 10;
  // Per peer uid other than root: connections open at once, and requests
  // queued or being answered at once (a quarter of the default workers,
  // so that one user leaves the others most of them).
  int max_connections_per_uid = 32;
  int max_requests_per_uid = 4;
};

// Bytes of requests still arriving that one peer uid (other than root) may
// have buffered at once: room for one request of the largest size.
constexpr size_t kMaxPartialBytesPerUid = (64u << 20) + (1u << 20);

class Server {
 public:
  // `resolver` must outlive the server.
  Server(const IndexResolver& resolver, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds the socket (replacing a stale one) and starts the threads. False
  // with `*error` set when the socket cannot be made, or when another daemon
  // answers on it.
  bool Start(std::string* error);
  // Blocks until Stop() is called (from a signal-watching thread or another
  // thread), then closes the socket, removes its file and joins the threads.
  void Wait();
  // Asks the server to stop; safe from any thread, any number of times.
  void Stop();
  // Removes the socket file if it is still the one Start() made; safe from
  // any thread.
  void RemoveSocket() const;

 private:
  // One client connection, owned by the poller except while a worker
  // answers its request.
  struct Connection {
    int fd = -1;
    Peer peer;
    std::string in;         // the frame read so far (header, then body)
    size_t frame_size = 0;  // header plus body, once the header is in
    time_t since = 0;       // when it became idle, or when its frame began
    bool keep = true;       // false: the worker is done with it, close it
  };
  // A worker waiting for a request of its own.
  struct IdleWorker {
    std::condition_variable wake;
    std::unique_ptr<Connection> job;  // the connection handed over, with its request
  };

  void PollLoop();
  void Accept();
  enum class ReadResult { kWaiting, kComplete, kClose };
  // Reads what has arrived of `c`'s request, never past its frame.
  ReadResult ReadRequest(Connection& c);
  void OnReadable(int fd);
  // Takes back the connections the workers are done with.
  void TakeBack();
  void CloseIdle(time_t now);
  // Closes a connection the poller holds, or one a worker gave back.
  void Close(int fd);
  void CloseReturned(Connection& c);
  // Logs a refusal of `uid`'s connection or request (kind, bound), at most
  // once a minute per uid and kind, with the count of those left unlogged.
  void LogRefusal(uid_t uid, int kind, long limit);
  void WorkerLoop(IdleWorker& self);
  // Gives a request to the last worker to become idle, or queues it when
  // all are busy. Called with mutex_ held.
  void Dispatch(std::unique_ptr<Connection> c);
  // Wakes every idle worker (to stop). Called with mutex_ held.
  void WakeAll();
  void Serve(Connection& c, IndexCache& cache);

  const IndexResolver& resolver_;
  ServerOptions options_;
  MissingIndexLog missing_;
  CommandHandler handler_;
  int listen_fd_ = -1;
  // The socket file this daemon made, to remove it only while it is still
  // that file: another daemon may have taken the path over since.
  dev_t socket_dev_ = 0;
  ino_t socket_ino_ = 0;
  int epoll_fd_ = -1;
  int wake_pipe_[2] = {-1, -1};  // a worker gave a connection back
  int stop_fd_ = -1;             // readable for good once Stop() was called
  std::atomic<bool> stopping_{false};

  // The poller's own (no lock): connections it holds, and per uid the open
  // connections, the requests handed to workers and the partial bytes.
  std::unordered_map<int, std::unique_ptr<Connection>> conns_;
  std::map<uid_t, int> uid_conns_;
  std::map<uid_t, int> uid_requests_;
  std::map<uid_t, size_t> uid_partial_bytes_;
  struct RefusalLog {
    time_t last = 0;
    long unlogged = 0;
  };
  std::map<std::pair<uid_t, int>, RefusalLog> refusals_;

  std::mutex mutex_;
  std::deque<std::unique_ptr<Connection>> pending_;        // requests waiting for a worker
  std::vector<std::unique_ptr<Connection>> returned_;      // answered, back to the poller
  std::vector<std::unique_ptr<IdleWorker>> worker_slots_;  // one per worker
  std::vector<IdleWorker*> idle_;                          // waiting workers, the last idle last
  std::thread acceptor_;
  std::vector<std::thread> workers_;
  bool waited_ = false;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_SERVER_H_
