#include "server.h"

#include <fcntl.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "reply_frame.h"

namespace kestondri {
namespace daemon {
namespace {

// A connection on a descriptor that someone else owns and closes.
class BorrowedConnection : public kestdaemon::SockConnection {
 public:
  explicit BorrowedConnection(int fd) : SockConnection(fd) {}
  ~BorrowedConnection() override { fd_ = -1; }
};

// Frames replies into one buffer and writes it out in pieces: a search's
// hits are many small messages, and one write per message would cost more
// than the search itself. The first pieces are small so that the client
// parses the first hits while the rest are built; later ones grow up to
// 64 KiB so that a long reply still takes few writes. The framing is the
// connection's own (4-byte big-endian length, then the text).
class ConnectionSink : public ReplySink {
 public:
  explicit ConnectionSink(int fd) : fd_(fd) {}
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
  // Writes out what is buffered; false (and failed()) when the peer is gone.
  bool Flush() {
    size_t off = 0;
    while (!failed_ && off < buffer_.size()) {
      ssize_t n = send(fd_, buffer_.data() + off, buffer_.size() - off, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        failed_ = true;
        break;
      }
      off += static_cast<size_t>(n);
    }
    buffer_.clear();
    return !failed_;
  }
  bool failed() const { return failed_; }

 private:
  static constexpr size_t kFirstFlushBytes = 4u << 10;
  static constexpr size_t kMaxFlushBytes = 64u << 10;
  size_t flush_at_ = kFirstFlushBytes;
  int fd_;
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
  // at that path is not ours to remove.
  struct stat st;
  if (lstat(options_.socket_path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) {
      errno = EEXIST;
      return fail("bind " + options_.socket_path);
    }
    unlink(options_.socket_path.c_str());
  }
  if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
    return fail("bind " + options_.socket_path);
  }
  // Every local user's web requests connect here; who sees what is decided
  // per peer from its credentials.
  if (chmod(options_.socket_path.c_str(), 0666) != 0) return fail("chmod");
  if (listen(listen_fd_, 256) != 0) return fail("listen");
  if (pipe2(wake_pipe_, O_CLOEXEC | O_NONBLOCK) != 0) return fail("pipe");
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (epoll_fd_ < 0) return fail("epoll");
  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listen_fd_;
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &ev) != 0) return fail("epoll_ctl");
  ev.data.fd = wake_pipe_[0];
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_pipe_[0], &ev) != 0) return fail("epoll_ctl");
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
  if (wake_pipe_[1] >= 0) {
    char c = 1;
    ssize_t n = write(wake_pipe_[1], &c, 1);
    (void)n;
  }
  std::lock_guard<std::mutex> lock(mutex_);
  WakeAll();
}

void Server::Wait() {
  if (waited_) return;
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    WakeAll();
  }
  for (auto& w : workers_) {
    if (w.joinable()) w.join();
  }
  waited_ = true;
  for (int fd : pending_) close(fd);
  pending_.clear();
  for (auto& entry : idle_since_) close(entry.first);
  idle_since_.clear();
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    listen_fd_ = -1;
    // A daemon that is not running must not leave its socket behind: the
    // module takes a missing socket for "no daemon".
    unlink(options_.socket_path.c_str());
  }
  if (epoll_fd_ >= 0) close(epoll_fd_);
  epoll_fd_ = -1;
  for (int& fd : wake_pipe_) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void Server::Park(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  idle_since_[fd] = time(nullptr);
  epoll_event ev{};
  ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  ev.data.fd = fd;
  // A connection that went straight to a worker was never registered.
  if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, fd, &ev) != 0 &&
      (errno != ENOENT || epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0)) {
    idle_since_.erase(fd);
    close(fd);
  }
}

void Server::CloseConnection(int fd) {
  // Closing also removes it from the epoll set.
  close(fd);
}

void Server::PollLoop() {
  epoll_event events[64];
  while (!stopping_) {
    int n = epoll_wait(epoll_fd_, events, 64, 1000);
    if (n < 0 && errno != EINTR) break;
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == wake_pipe_[0]) {
        stopping_ = true;
        break;
      }
      if (fd == listen_fd_) {
        for (;;) {
          int conn = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
          if (conn < 0) {
            // Out of descriptors: a short pause keeps EMFILE from spinning.
            if (errno == EMFILE || errno == ENFILE) usleep(10000);
            break;
          }
          timeval tv{};
          tv.tv_sec = options_.io_timeout_seconds;
          setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
          setsockopt(conn, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
          std::lock_guard<std::mutex> lock(mutex_);
          // Clients send their request right after connecting: when it is
          // already there, skip a round through epoll.
          char probe;
          if (recv(conn, &probe, 1, MSG_PEEK | MSG_DONTWAIT) >= 0) {
            Dispatch(conn);
            continue;
          }
          idle_since_[conn] = time(nullptr);
          epoll_event ev{};
          ev.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
          ev.data.fd = conn;
          if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, conn, &ev) != 0) {
            idle_since_.erase(conn);
            close(conn);
          }
        }
        continue;
      }
      // A parked connection has something to say (or has gone): a worker
      // reads it, and finds out which.
      std::lock_guard<std::mutex> lock(mutex_);
      if (idle_since_.erase(fd) == 0) continue;
      Dispatch(fd);
    }
    time_t now = time(nullptr);
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = idle_since_.begin(); it != idle_since_.end();) {
      if (now - it->second >= options_.idle_timeout_seconds) {
        CloseConnection(it->first);
        it = idle_since_.erase(it);
      } else {
        ++it;
      }
    }
  }
  stopping_ = true;
  std::lock_guard<std::mutex> lock(mutex_);
  WakeAll();
}

void Server::Dispatch(int fd) {
  if (idle_.empty()) {
    pending_.push_back(fd);
    return;
  }
  IdleWorker* worker = idle_.back();
  idle_.pop_back();
  worker->fd = fd;
  worker->wake.notify_one();
}

void Server::WakeAll() {
  for (auto& slot : worker_slots_) slot->wake.notify_one();
}

void Server::WorkerLoop(IdleWorker& self) {
  IndexCache cache(resolver_, missing_);
  for (;;) {
    int fd;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (stopping_) return;
      if (!pending_.empty()) {
        fd = pending_.front();
        pending_.pop_front();
      } else {
        idle_.push_back(&self);
        self.wake.wait(lock, [&] { return stopping_ || self.fd != -1; });
        idle_.erase(std::remove(idle_.begin(), idle_.end(), &self), idle_.end());
        fd = self.fd;
        self.fd = -1;
        if (stopping_) {
          // Handed a connection as the server stops: Wait() closes it.
          if (fd != -1) pending_.push_back(fd);
          return;
        }
      }
    }
    if (ServeOne(fd, cache)) {
      Park(fd);
    } else {
      CloseConnection(fd);
    }
  }
}

bool Server::ServeOne(int fd, IndexCache& cache) {
  Peer peer;
  ucred cred{};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
  peer.pid = cred.pid;
  peer.uid = cred.uid;
  peer.gid = cred.gid;
  BorrowedConnection conn(fd);
  ConnectionSink sink(fd);
  std::string request;
  bool ok = conn.Recv(request);
  if (ok) {
    handler_.Handle(request, peer, cache, sink);
    ok = sink.Flush();
  }
  return ok;
}

}  // namespace daemon
}  // namespace kestondri
