#include "support/fake_daemon.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <set>
#include <stdexcept>

#include "kest/json.h"

namespace kesttest {
namespace {

constexpr uint32_t kMaxRequest = 64u << 20;

bool WriteAllBytes(int fd, const std::string& bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  return true;
}

// Waits for `fd` to be readable; false once the daemon stops.
bool WaitReadable(int fd, int stop_fd) {
  for (;;) {
    pollfd pfds[2] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    const int rc = poll(pfds, 2, -1);
    if (rc < 0 && errno == EINTR) continue;
    if (rc < 0 || pfds[1].revents) return false;
    if (pfds[0].revents) return true;
  }
}

bool ReadExact(int fd, int stop_fd, char* data, size_t size) {
  while (size > 0) {
    if (!WaitReadable(fd, stop_fd)) return false;
    const ssize_t n = recv(fd, data, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

std::mutex& RegistryMutex() {
  static std::mutex mutex;
  return mutex;
}

std::set<FakeDaemon*>& Registry() {
  static std::set<FakeDaemon*> daemons;
  return daemons;
}

}  // namespace

bool FakeDaemon::WaitAllIdle(int timeout_ms) {
  std::lock_guard<std::mutex> lock(RegistryMutex());
  bool idle = true;
  for (FakeDaemon* daemon : Registry()) idle = daemon->WaitIdle(timeout_ms) && idle;
  return idle;
}

std::string Frame(const std::string& body) {
  const uint32_t length = htonl(static_cast<uint32_t>(body.size()));
  return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + body;
}

DaemonReply& DaemonReply::Message(const Json::Value& message) {
  return Text(Json::toString(message));
}

DaemonReply& DaemonReply::Text(const std::string& text) { return Raw(Frame(text)); }

DaemonReply& DaemonReply::Raw(const std::string& bytes) {
  steps_.push_back({Step::kBytes, bytes, 0});
  return *this;
}

DaemonReply& DaemonReply::Header(uint32_t length) {
  const uint32_t net = htonl(length);
  return Raw(std::string(reinterpret_cast<const char*>(&net), sizeof(net)));
}

DaemonReply& DaemonReply::Pause(int milliseconds) {
  steps_.push_back({Step::kPause, "", milliseconds});
  return *this;
}

DaemonReply& DaemonReply::HoldUntilClientGoes() {
  steps_.push_back({Step::kHold, "", 0});
  return *this;
}

DaemonReply& DaemonReply::Close() {
  steps_.push_back({Step::kClose, "", 0});
  return *this;
}

DaemonReply DaemonReply::Success(const Json::Value& data) {
  Json::Value message;
  message["success"] = true;
  if (!data.isNull()) message["data"] = data;
  return DaemonReply().Message(message);
}

DaemonReply DaemonReply::Failure(int code, const std::string& msg) {
  Json::Value message;
  message["success"] = false;
  message["error"]["code"] = code;
  message["error"]["msg"] = msg;
  return DaemonReply().Message(message);
}

constexpr char FakeDaemon::kSocketPath[];

FakeDaemon::FakeDaemon(const std::string& path) : path_(path) {
  if (pipe2(stop_pipe_, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  unlink(path_.c_str());
  listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      listen(listen_fd_, 64) != 0) {
    throw std::runtime_error("cannot listen on " + path_ + ": " + strerror(errno));
  }
  // Every test user connects to the daemon as itself.
  chmod(path_.c_str(), 0666);
  acceptor_ = std::thread([this] { AcceptLoop(); });
  std::lock_guard<std::mutex> lock(RegistryMutex());
  Registry().insert(this);
}

FakeDaemon::~FakeDaemon() {
  {
    std::lock_guard<std::mutex> lock(RegistryMutex());
    Registry().erase(this);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  const char byte = 0;
  (void)!write(stop_pipe_[1], &byte, 1);
  acceptor_.join();
  for (auto& t : servers_) t.join();
  close(listen_fd_);
  close(stop_pipe_[0]);
  close(stop_pipe_[1]);
  unlink(path_.c_str());
}

void FakeDaemon::On(const std::string& command, DaemonReply reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  replies_[command].push_back(std::move(reply));
}

std::vector<std::string> FakeDaemon::RawRequests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return raw_requests_;
}

std::vector<Json::Value> FakeDaemon::Requests() {
  std::vector<Json::Value> out;
  for (const auto& text : RawRequests()) {
    Json::Value value;
    if (!Json::fromString(value, text)) value = Json::Value();
    out.push_back(value);
  }
  return out;
}

std::vector<Json::Value> FakeDaemon::Requests(const std::string& command) {
  std::vector<Json::Value> out;
  for (const auto& request : Requests()) {
    if (request.isObject() && request["command"] == command) out.push_back(request);
  }
  return out;
}

int FakeDaemon::Connections() {
  std::lock_guard<std::mutex> lock(mutex_);
  return connections_;
}

bool FakeDaemon::WaitForRequests(size_t count, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return raw_requests_.size() >= count; });
}

bool FakeDaemon::WaitIdle(int timeout_ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                           [&] { return open_connections_ == 0; });
}

void FakeDaemon::AcceptLoop() {
  for (;;) {
    if (!WaitReadable(listen_fd_, stop_pipe_[0])) return;
    const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    std::lock_guard<std::mutex> lock(mutex_);
    ++connections_;
    ++open_connections_;
    servers_.emplace_back([this, fd] { Serve(fd); });
  }
}

void FakeDaemon::Serve(int fd) {
  DaemonReply reply;
  bool have_reply = false;
  uint32_t length = 0;
  std::string body;
  if (ReadExact(fd, stop_pipe_[0], reinterpret_cast<char*>(&length), sizeof(length)) &&
      (length = ntohl(length)) <= kMaxRequest) {
    body.resize(length);
    if (ReadExact(fd, stop_pipe_[0], &body[0], length)) {
      Json::Value request;
      std::string command = "*";
      if (Json::fromString(request, body) && request.isObject() && request["command"].isString()) {
        command = request["command"].asString();
      }
      std::lock_guard<std::mutex> lock(mutex_);
      raw_requests_.push_back(body);
      auto& queue = replies_[command];
      if (!queue.empty()) {
        reply = std::move(queue.front());
        queue.pop_front();
        have_reply = true;
      }
      changed_.notify_all();
    }
  }
  if (have_reply) {
    for (const auto& step : reply.steps()) {
      if (step.kind == DaemonReply::Step::kClose) break;
      if (step.kind == DaemonReply::Step::kBytes) {
        if (!WriteAllBytes(fd, step.bytes)) break;
      } else if (step.kind == DaemonReply::Step::kPause) {
        pollfd pfd{stop_pipe_[0], POLLIN, 0};
        poll(&pfd, 1, step.milliseconds);
      } else if (step.kind == DaemonReply::Step::kHold) {
        char sink[256];
        while (WaitReadable(fd, stop_pipe_[0]) && recv(fd, sink, sizeof(sink), 0) > 0) {
        }
        break;
      }
    }
  }
  close(fd);
  std::lock_guard<std::mutex> lock(mutex_);
  --open_connections_;
  changed_.notify_all();
}

}  // namespace kesttest
