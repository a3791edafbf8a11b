#include "server.h"

#include <fcntl.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kestondri {
namespace daemon {
namespace {

class ConnectionSink : public ReplySink {
 public:
  explicit ConnectionSink(kestdaemon::SockConnection& conn) : conn_(conn) {}
  bool Send(const Json::Value& message) override {
    if (failed_) return false;
    failed_ = !conn_.Send(Json::toString(message));
    return !failed_;
  }
  bool failed() const { return failed_; }

 private:
  kestdaemon::SockConnection& conn_;
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
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
  for (int i = 0; i < options_.workers; ++i) workers_.emplace_back([this] { WorkerLoop(); });
  acceptor_ = std::thread([this] { AcceptLoop(); });
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
  cv_.notify_all();
}

void Server::Wait() {
  if (waited_) return;
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    cv_.notify_all();
  }
  for (auto& w : workers_) {
    if (w.joinable()) w.join();
  }
  waited_ = true;
  for (int fd : pending_) close(fd);
  pending_.clear();
  if (listen_fd_ >= 0) {
    close(listen_fd_);
    listen_fd_ = -1;
    // A daemon that is not running must not leave its socket behind: the
    // module takes a missing socket for "no daemon".
    unlink(options_.socket_path.c_str());
  }
  for (int& fd : wake_pipe_) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void Server::AcceptLoop() {
  while (!stopping_) {
    pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {wake_pipe_[0], POLLIN, 0}};
    int rc = poll(fds, 2, -1);
    if (rc < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (fds[1].revents) break;
    if (!(fds[0].revents & POLLIN)) continue;
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Out of descriptors or a client that vanished: keep serving others;
      // a short pause keeps EMFILE from spinning.
      if (errno == EMFILE || errno == ENFILE) usleep(10000);
      continue;
    }
    timeval tv{};
    tv.tv_sec = options_.io_timeout_seconds;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pending_.push_back(fd);
    }
    cv_.notify_one();
  }
  stopping_ = true;
  cv_.notify_all();
}

void Server::WorkerLoop() {
  IndexCache cache(resolver_, missing_);
  for (;;) {
    int fd;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      cv_.wait(lock, [this] { return stopping_ || !pending_.empty(); });
      if (stopping_) return;
      fd = pending_.front();
      pending_.pop_front();
    }
    Serve(fd, cache);
  }
}

void Server::Serve(int fd, IndexCache& cache) {
  kestdaemon::SockConnection conn(fd);
  Peer peer;
  ucred cred{};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return;
  peer.pid = cred.pid;
  peer.uid = cred.uid;
  peer.gid = cred.gid;
  ConnectionSink sink(conn);
  std::string request;
  // The module sends one request per connection; more are served in turn
  // until the peer closes, breaks the framing or stays silent too long.
  while (!stopping_ && conn.Recv(request)) {
    handler_.Handle(request, peer, cache, sink);
    if (sink.failed()) break;
  }
}

}  // namespace daemon
}  // namespace kestondri
