#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "reply_frame.h"

namespace kestondri {
namespace daemon {
namespace {

using Clock = std::chrono::steady_clock;

// What one read of a request takes at most: a large request arrives in
// pieces, and its buffer grows only as its bytes really come.
constexpr size_t kReadChunk = 64u << 10;
// Connections accepted in one round, so that a peer connecting in a loop
// does not keep the poller from the others' requests.
constexpr int kAcceptsPerRound = 64;
// Refusals of one uid and kind are logged at most this often.
constexpr time_t kRefusalLogSeconds = 60;

enum RefusalKind { kTooManyConnections, kTooManyRequests, kTooManyBytes };

// True when the client has closed its end: nobody will read what a worker
// would still compute for it. A client that only shut down its sending
// side still reads, and is not gone.
bool ClientGone(int fd) {
  pollfd pfd{fd, 0, 0};
  return poll(&pfd, 1, 0) > 0 && (pfd.revents & (POLLHUP | POLLERR)) != 0;
}

// Frames replies into one buffer and writes it out in pieces: a search's
// hits are many small messages, and one write per message would cost more
// than the search itself. The first pieces are small so that the client
// parses the first hits while the rest are built; later ones grow up to
// 64 KiB so that a long reply still takes few writes. The framing is the
// connection's own (4-byte big-endian length, then the text).
//
// Writes never block the worker for long: each piece must be taken within
// the I/O time-out and the whole reply within the idle time-out, and a stop
// of the server ends the wait at once. A client that does not read its
// reply thus holds a worker for a bounded time only.
class ConnectionSink : public ReplySink {
 public:
  ConnectionSink(int fd, int stop_fd, const std::atomic<bool>& stopping,
                 const ServerOptions& options)
      : fd_(fd),
        stop_fd_(stop_fd),
        stopping_(stopping),
        piece_timeout_(std::chrono::seconds(options.io_timeout_seconds)),
        reply_deadline_(Clock::now() + std::chrono::seconds(options.idle_timeout_seconds)) {}
  bool Send(const Json::Value& message) override {
    if (failed_) return false;
    if (!AppendFrame(message, &buffer_)) {
      failed_ = true;
      return false;
    }
    if (buffer_.size() >= flush_at_) {
      Flush();
      flush_at_ = std::min(flush_at_ * 2, kMaxFlushBytes);
    }
    return !failed_;
  }
  bool Abandoned() override {
    if (!failed_ && (stopping_ || ClientGone(fd_))) failed_ = true;
    return failed_;
  }
  // Writes out what is buffered; false (and failed()) when the peer is gone,
  // too slow, or the server stops.
  bool Flush() {
    const Clock::time_point deadline = std::min(Clock::now() + piece_timeout_, reply_deadline_);
    size_t off = 0;
    while (!failed_ && off < buffer_.size()) {
      ssize_t n =
          send(fd_, buffer_.data() + off, buffer_.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        off += static_cast<size_t>(n);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        failed_ = !WaitWritable(deadline);
      } else {
        failed_ = true;
      }
    }
    buffer_.clear();
    return !failed_;
  }

 private:
  bool WaitWritable(Clock::time_point deadline) {
    for (;;) {
      if (stopping_) return false;
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return false;
      pollfd pfd[2] = {{fd_, POLLOUT, 0}, {stop_fd_, POLLIN, 0}};
      int rc = poll(pfd, 2, static_cast<int>(std::min<int64_t>(left.count(), 1000)));
      if (rc < 0 && errno != EINTR) return false;
      if (rc > 0 && pfd[1].revents) return false;
      // Errors and hang-ups surface in the next send.
      if (rc > 0 && pfd[0].revents) return true;
    }
  }

  static constexpr size_t kFirstFlushBytes = 4u << 10;
  static constexpr size_t kMaxFlushBytes = 64u << 10;
  size_t flush_at_ = kFirstFlushBytes;
  int fd_;
  int stop_fd_;
  const std::atomic<bool>& stopping_;
  std::chrono::seconds piece_timeout_;
  Clock::time_point reply_deadline_;
  std::string buffer_;
  bool failed_ = false;
};

}  // namespace

Server::Server(const IndexResolver& resolver, ServerOptions options)
    : resolver_(resolver), options_(std::move(options)), handler_(resolver_, missing_) {}

Server::~Server() {
  Stop();
  Wait();
}

void Server::RemoveSocket() const {
  struct stat st;
  if (socket_ino_ != 0 && lstat(options_.socket_path.c_str(), &st) == 0 &&
      st.st_dev == socket_dev_ && st.st_ino == socket_ino_) {
    unlink(options_.socket_path.c_str());
  }
}

bool Server::Start(std::string* error) {
  auto fail = [&](const std::string& what) {
    *error = what + ": " + std::strerror(errno);
    if (listen_fd_ >= 0) close(listen_fd_);
    listen_fd_ = -1;
    return false;
  };
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (options_.socket_path.size() >= sizeof(addr.sun_path)) {
    *error = "socket path too long";
    return false;
  }
  std::memcpy(addr.sun_path, options_.socket_path.c_str(), options_.socket_path.size() + 1);
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listen_fd_ < 0) return fail("socket");
  // A socket file left by a daemon that died is in the way; anything else
  // at that path is not ours to remove, and neither is the socket of a
  // daemon that still answers there.
  struct stat st;
  if (lstat(options_.socket_path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      errno = EEXIST;
      return fail("bind " + options_.socket_path);
    }
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool answers =
        probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    if (probe >= 0) close(probe);
    if (answers) {
      close(listen_fd_);
      listen_fd_ = -1;
      *error = "another daemon answers on " + options_.socket_path + "; not taking it over";
      return false;
    }
    unlink(options_.socket_path.c_str());
  }
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    return fail("bind " + options_.socket_path);
  }
  if (lstat(options_.socket_path.c_str(), &st) != 0) return fail("stat " + options_.socket_path);
  socket_dev_ = st.st_dev;
  socket_ino_ = st.st_ino;
  // Every local user's web requests connect here; who sees what is decided
  // per peer from its credentials.
  if (chmod(options_.socket_path.c_str(), 0666) != 0) return fail("chmod");
  if (listen(listen_fd_, 256) != 0) return fail("listen");
  if (pipe2(wake_pipe_, O_CLOEXEC | O_NONBLOCK) != 0) return fail("pipe");
  stop_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (stop_fd_ < 0) return fail("eventfd");
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) return fail("epoll");
  for (int fd : {listen_fd_, wake_pipe_[0], stop_fd_}) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.fd = fd;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) return fail("epoll_ctl");
  }
  for (int i = 0; i < options_.workers; ++i) {
    worker_slots_.push_back(std::make_unique<IdleWorker>());
    IdleWorker* slot = worker_slots_.back().get();
    workers_.emplace_back([this, slot] { WorkerLoop(*slot); });
  }
  acceptor_ = std::thread([this] { PollLoop(); });
  return true;
}

void Server::Stop() {
  bool was = stopping_.exchange(true);
  if (was) return;
  // Never read: stays readable, so every wait on it (the poller's, a
  // worker's on a slow client) ends now and from now on.
  if (stop_fd_ >= 0) {
    uint64_t one = 1;
    ssize_t n = write(stop_fd_, &one, sizeof one);
    (void)n;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  WakeAll();
}

void Server::Wait() {
  if (waited_) return;
  if (acceptor_.joinable()) acceptor_.join();
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    listen_fd_ = -1;
    // A daemon that is not running must not leave its socket behind: the
    // module takes a missing socket for "no daemon". Gone before the
    // workers are joined, so that nobody connects to a daemon that stops.
    RemoveSocket();
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    WakeAll();
  }
  for (auto& w : workers_) {
    if (w.joinable()) w.join();
  }
  waited_ = true;
  for (auto& c : pending_) close(c->fd);
  pending_.clear();
  for (auto& c : returned_) close(c->fd);
  returned_.clear();
  for (auto& slot : worker_slots_) {
    if (slot->job) close(slot->job->fd);
    slot->job.reset();
  }
  for (auto& entry : conns_) close(entry.first);
  conns_.clear();
  if (epoll_fd_ >= 0) close(epoll_fd_);
  epoll_fd_ = -1;
  for (int* fd : {&wake_pipe_[0], &wake_pipe_[1], &stop_fd_}) {
    if (*fd >= 0) close(*fd);
    *fd = -1;
  }
}

void Server::LogRefusal(uid_t uid, int kind, long limit) {
  static const char* const kWhat[][2] = {{"connection", "open connections"},
                                         {"request", "requests in progress"},
                                         {"request", "bytes of requests still arriving"}};
  RefusalLog& log = refusals_[{uid, kind}];
  time_t now = time(nullptr);
  if (log.last != 0 && now - log.last < kRefusalLogSeconds) {
    ++log.unlogged;
    return;
  }
  syslog(LOG_WARNING, "refused a %s of uid %u: at most %ld %s per uid (%ld more refused unlogged)",
         kWhat[kind][0], static_cast<unsigned>(uid), limit, kWhat[kind][1], log.unlogged);
  log.last = now;
  log.unlogged = 0;
}

void Server::PollLoop() {
  epoll_event events[64];
  time_t last_sweep = 0;
  while (!stopping_) {
    int n = epoll_wait(epoll_fd_, events, 64, 1000);
    if (n < 0 && errno != EINTR) break;
    for (int i = 0; i < n && !stopping_; ++i) {
      int fd = events[i].data.fd;
      if (fd == stop_fd_) {
        stopping_ = true;
      } else if (fd == wake_pipe_[0]) {
        char buf[256];
        while (read(wake_pipe_[0], buf, sizeof buf) > 0) {
        }
      } else if (fd == listen_fd_) {
        Accept();
      } else {
        OnReadable(fd);
      }
    }
    TakeBack();
    // Once a second is enough for time-outs counted in seconds.
    const time_t now = time(nullptr);
    if (now != last_sweep) CloseIdle(now);
    last_sweep = now;
  }
  stopping_ = true;
  std::lock_guard<std::mutex> lock(mutex_);
  WakeAll();
}

void Server::Accept() {
  for (int i = 0; i < kAcceptsPerRound; ++i) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR) continue;
      // Out of descriptors: a short pause keeps EMFILE from spinning.
      if (errno == EMFILE || errno == ENFILE) usleep(10000);
      return;
    }
    ucred cred{};
    socklen_t len = sizeof(cred);
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
      close(fd);
      continue;
    }
    // Root is the module, acting for the web's users and bounded by the
    // web server; any other uid is a local user whose share is bounded.
    if (cred.uid != 0 && uid_conns_[cred.uid] >= options_.max_connections_per_uid) {
      LogRefusal(cred.uid, kTooManyConnections, options_.max_connections_per_uid);
      close(fd);
      continue;
    }
    ++uid_conns_[cred.uid];
    auto c = std::make_unique<Connection>();
    c->fd = fd;
    c->peer.pid = cred.pid;
    c->peer.uid = cred.uid;
    c->peer.gid = cred.gid;
    c->since = time(nullptr);
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = fd;
    conns_[fd] = std::move(c);
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
      Close(fd);
      continue;
    }
    // Clients send their request right after connecting: when it is
    // already there, skip a round through epoll.
    OnReadable(fd);
  }
}

Server::ReadResult Server::ReadRequest(Connection& c) {
  const bool limited = c.peer.uid != 0;
  for (;;) {
    const size_t target = c.frame_size ? c.frame_size : sizeof(uint32_t);
    const size_t have = c.in.size();
    const size_t want = std::min(target - have, kReadChunk);
    size_t& partial = uid_partial_bytes_[c.peer.uid];
    if (limited && partial + want > kMaxPartialBytesPerUid) {
      LogRefusal(c.peer.uid, kTooManyBytes, static_cast<long>(kMaxPartialBytesPerUid));
      return ReadResult::kClose;
    }
    c.in.resize(have + want);
    ssize_t n = recv(c.fd, &c.in[have], want, MSG_DONTWAIT);
    if (n <= 0) {
      c.in.resize(have);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return ReadResult::kWaiting;
      return ReadResult::kClose;
    }
    c.in.resize(have + static_cast<size_t>(n));
    partial += static_cast<size_t>(n);
    if (have == 0) c.since = time(nullptr);  // the frame's clock starts
    if (c.frame_size == 0 && c.in.size() == sizeof(uint32_t)) {
      uint32_t length;
      std::memcpy(&length, c.in.data(), sizeof length);
      length = ntohl(length);
      // Never allocated: the buffer grows only with what arrives.
      if (length > kestdaemon::kMaxMessageSize) return ReadResult::kClose;
      c.frame_size = sizeof(uint32_t) + length;
    }
    if (c.frame_size != 0 && c.in.size() == c.frame_size) return ReadResult::kComplete;
  }
}

void Server::OnReadable(int fd) {
  auto it = conns_.find(fd);
  if (it == conns_.end()) return;
  Connection& c = *it->second;
  switch (ReadRequest(c)) {
    case ReadResult::kWaiting:
      return;
    case ReadResult::kClose:
      Close(fd);
      return;
    case ReadResult::kComplete:
      break;
  }
  if ((uid_partial_bytes_[c.peer.uid] -= c.in.size()) == 0) uid_partial_bytes_.erase(c.peer.uid);
  int& requests = uid_requests_[c.peer.uid];
  if (c.peer.uid != 0 && requests >= options_.max_requests_per_uid) {
    LogRefusal(c.peer.uid, kTooManyRequests, options_.max_requests_per_uid);
    c.in.clear();
    Close(fd);
    return;
  }
  ++requests;
  // The worker watches the connection itself until it gives it back.
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, fd, nullptr);
  std::unique_ptr<Connection> owned = std::move(it->second);
  conns_.erase(it);
  std::lock_guard<std::mutex> lock(mutex_);
  Dispatch(std::move(owned));
}

void Server::TakeBack() {
  std::vector<std::unique_ptr<Connection>> back;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    back.swap(returned_);
  }
  for (auto& c : back) {
    if (--uid_requests_[c->peer.uid] == 0) uid_requests_.erase(c->peer.uid);
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = c->fd;
    if (!c->keep || epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, c->fd, &ev) != 0) {
      CloseReturned(*c);
      continue;
    }
    int fd = c->fd;
    conns_[fd] = std::move(c);
    // The next request may already be there.
    OnReadable(fd);
  }
}

void Server::CloseIdle(time_t now) {
  std::vector<int> expired;
  for (const auto& entry : conns_) {
    const Connection& c = *entry.second;
    // Idle between requests, or stalled in the middle of one.
    int limit = c.in.empty() ? options_.idle_timeout_seconds : options_.io_timeout_seconds;
    if (now - c.since >= limit) expired.push_back(entry.first);
  }
  for (int fd : expired) Close(fd);
}

void Server::Close(int fd) {
  auto it = conns_.find(fd);
  if (it == conns_.end()) return;
  Connection& c = *it->second;
  if (!c.in.empty()) {
    size_t& partial = uid_partial_bytes_[c.peer.uid];
    partial -= std::min(partial, c.in.size());
    if (partial == 0) uid_partial_bytes_.erase(c.peer.uid);
  }
  CloseReturned(c);
  conns_.erase(it);
}

void Server::CloseReturned(Connection& c) {
  // Closing also removes it from the epoll set.
  close(c.fd);
  if (--uid_conns_[c.peer.uid] == 0) uid_conns_.erase(c.peer.uid);
}

void Server::Dispatch(std::unique_ptr<Connection> c) {
  if (idle_.empty()) {
    pending_.push_back(std::move(c));
    return;
  }
  IdleWorker* worker = idle_.back();
  idle_.pop_back();
  worker->job = std::move(c);
  worker->wake.notify_one();
}

void Server::WakeAll() {
  for (auto& slot : worker_slots_) slot->wake.notify_one();
}

void Server::WorkerLoop(IdleWorker& self) {
  IndexCache cache(resolver_, missing_);
  for (;;) {
    std::unique_ptr<Connection> c;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (stopping_) return;
      if (!pending_.empty()) {
        c = std::move(pending_.front());
        pending_.pop_front();
      } else {
        idle_.push_back(&self);
        self.wake.wait(lock, [&] { return stopping_ || self.job; });
        idle_.erase(std::remove(idle_.begin(), idle_.end(), &self), idle_.end());
        // Handed a connection as the server stops: Wait() closes it.
        if (stopping_) return;
        c = std::move(self.job);
      }
    }
    Serve(*c, cache);
    c->in.clear();
    c->frame_size = 0;
    c->since = time(nullptr);
    {
      std::lock_guard<std::mutex> lock(mutex_);
      returned_.push_back(std::move(c));
    }
    char one = 1;
    ssize_t n = write(wake_pipe_[1], &one, 1);
    (void)n;
  }
}

void Server::Serve(Connection& c, IndexCache& cache) {
  std::string request = std::move(c.in);
  request.erase(0, sizeof(uint32_t));
  ConnectionSink sink(c.fd, stop_fd_, stopping_, options_);
  handler_.Handle(request, c.peer, cache, sink);
  c.keep = sink.Flush();
}

}  // namespace daemon
}  // namespace kestondri
