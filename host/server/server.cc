#include "server/server.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <unordered_map>
#include <vector>

#include "kest/json.h"
#include "kest/klib.h"
#include "kest/webapi.h"
#include "server/error_codes.h"
#include "server/fd_range_body.h"
#include "server/file_access.h"
#include "server/login_throttle.h"
#include "server/request_params.h"
#include "server/session_store.h"
#include "server/static_files.h"
#include "server/worker_answer.h"
#include "server/worker_process.h"
#include "server/worker_tasks.h"

namespace kestondri {
namespace host {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kEntryPath[] = "/webapi/entry.cgi";
constexpr char kFilePath[] = "/webapi/file";
constexpr char kAuthAPI[] = "KEST.API.Auth";
constexpr char kSessionCookie[] = "kest_sid";
constexpr char kTokenHeader[] = "X-Kest-CSRF-Token";
constexpr char kLogIdent[] = "kest-webapi-server";
constexpr char kServerName[] = "kest-webapi";
// Names, not values: a session id of digits must stay the text it is.
const std::set<std::string> kTextFields = {"api", "method", "_sid"};

// A version sent as a number or as a string of digits; -1 for anything else.
long VersionOf(const Json::Value& value) {
  if (value.isInt64()) return value.asInt64() >= 0 ? static_cast<long>(value.asInt64()) : -1;
  if (!value.isString()) return -1;
  const std::string text = value.asString();
  if (text.empty() || text.size() > 9) return -1;
  for (char c : text) {
    if (c < '0' || c > '9') return -1;
  }
  return strtol(text.c_str(), nullptr, 10);
}

bool PlainText(const std::string& text, size_t max_size) {
  if (text.empty() || text.size() > max_size) return false;
  for (unsigned char c : text) {
    if (c < 0x20 || c == 0x7f) return false;
  }
  return true;
}

std::string SessionCookie(const std::string& sid) {
  return std::string(kSessionCookie) + "=" + sid + "; Path=/; HttpOnly; SameSite=Strict";
}

// The key a client's address is bounded under. An IPv6 host is given a
// whole /64 and can pick any address in it, so the prefix is the client.
std::string ClientKey(const asio::ip::address& address) {
  if (!address.is_v6()) return address.to_string();
  const auto v6 = address.to_v6();
  if (v6.is_v4_mapped()) return asio::ip::make_address_v4(asio::ip::v4_mapped, v6).to_string();
  auto bytes = v6.to_bytes();
  for (size_t i = 8; i < bytes.size(); ++i) bytes[i] = 0;
  return asio::ip::address_v6(bytes).to_string() + "/64";
}

std::string ExpiredSessionCookie() {
  return std::string(kSessionCookie) + "=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict";
}

}  // namespace

// What became of a job: the worker's answer, or the server's own error code.
struct Outcome {
  bool answered = false;
  std::string text;           // the worker's answer, JSON text
  int code = 0;               // the answer's code, or the server's error code
  int admin = -1;             // the administrator flag when the worker looked it up
  bool has_identity = false;  // with it, the user's identity, when found
  KLIBUserIdentity identity{};
  UniqueFd fd;  // a descriptor the worker passed with its answer
};

// The outcome of a job that no worker answered.
Outcome ServerError(int code) {
  Outcome outcome;
  outcome.code = code;
  return outcome;
}

class Connection;

struct Job {
  std::shared_ptr<Connection> connection;
  std::function<std::string()> work;        // runs in the worker
  std::function<void(Outcome)> on_outcome;  // runs in the master
  std::string label;                        // for the log
};

struct Worker {
  Worker(asio::io_context& io, int fd, pid_t pid_, Job job_)
      : pid(pid_), job(std::move(job_)), pipe(io, fd), timer(io) {}
  pid_t pid;
  Job job;
  asio::posix::stream_descriptor pipe;
  asio::steady_timer timer;
  std::string received;
  UniqueFd passed;        // a descriptor that came with the answer
  bool finished = false;  // the job's outcome was delivered
  bool pipe_done = false;
};

class ServerImpl {
 public:
  ServerImpl(const ServerConfig& config, const ModuleRegistry& registry, AccessLog* access_log)
      : config_(config),
        registry_(registry),
        access_log_(access_log),
        acceptor_(io_),
        signals_(io_),
        reload_signal_(io_),
        child_signal_(io_),
        housekeeping_(io_),
        accept_pause_(io_),
        stop_deadline_(io_),
        sessions_(std::chrono::seconds(config.session_idle_timeout), config.max_sessions,
                  config.max_sessions_per_user),
        throttle_({config.login_max_failures, config.login_max_failures_address,
                   config.login_max_failures_account},
                  std::chrono::seconds(config.login_failure_window)) {}
  ~ServerImpl() { destroying_ = true; }

  bool Listen(std::string* error);
  int Run();

  // Called by connections.
  void Handle(const std::shared_ptr<Connection>& connection);
  void Forget(Connection* connection, const std::string& client);
  bool stopping() const { return stopping_; }
  const ServerConfig& config() const { return config_; }
  AccessLog* access_log() { return access_log_; }

 private:
  void Accept();
  // Closes the connection waiting longest for a request from the client
  // holding the most connections; false when none waits.
  bool CloseOneWaiting();
  void WaitSignals();
  void WaitChildSignal();
  void WaitReloadSignal();
  void Housekeeping();
  void BeginStop();
  void MaybeStop();

  void HandleApi(const std::shared_ptr<Connection>& connection, const std::string& query);
  void HandleFile(const std::shared_ptr<Connection>& connection, const std::string& query);
  void ServeStatic(const std::shared_ptr<Connection>& connection, const std::string& path);
  void Login(const std::shared_ptr<Connection>& connection, const Json::Value& params);
  void Logout(const std::shared_ptr<Connection>& connection, const Json::Value& sid_param);
  // The caller's session, or null after answering the connection with
  // `http_status`. A session from the cookie needs the CSRF header unless
  // `cookie_alone` (a read-only request that a link must be able to make).
  const Session* Authenticate(const std::shared_ptr<Connection>& connection,
                              const Json::Value& sid_param, bool cookie_alone = false,
                              http::status http_status = http::status::ok);
  // Counts a request of `uid` against its bound; false (answered) past it.
  bool Admit(const std::shared_ptr<Connection>& connection, uid_t uid,
             http::status http_status = http::status::ok);

  void Submit(Job job);
  void Start(Job job);
  void WaitAnswer(const std::shared_ptr<Worker>& worker);
  // Reads what the pipe holds; true when nothing more is to be read.
  bool ReadAnswer(const std::shared_ptr<Worker>& worker);
  void Finish(const std::shared_ptr<Worker>& worker, Outcome outcome);
  void TimeOut(const std::shared_ptr<Worker>& worker);
  void ReapChildren();
  void ChildExited(pid_t pid, int status);
  void Dispatch();

  const ServerConfig& config_;
  const ModuleRegistry& registry_;
  AccessLog* access_log_;
  // Declared before the event loop: the loop's destruction ends the last
  // connections, which still reach these on their way out.
  std::unordered_map<Connection*, std::weak_ptr<Connection>> connections_;
  std::unordered_map<std::string, int> per_client_;  // open connections by ClientKey
  bool stopping_ = false;
  bool destroying_ = false;
  asio::io_context io_{1};
  tcp::acceptor acceptor_;
  asio::signal_set signals_;
  asio::signal_set reload_signal_;
  asio::signal_set child_signal_;
  asio::steady_timer housekeeping_;
  asio::steady_timer accept_pause_;
  asio::steady_timer stop_deadline_;
  SessionStore sessions_;
  LoginThrottle throttle_;
  std::string static_root_;  // resolved, no trailing slash; empty when off

  std::unordered_map<pid_t, std::shared_ptr<Worker>> workers_;
  std::deque<Job> queue_;
  std::unordered_map<uid_t, int> pending_;  // module requests running or queued, by user
  int exit_status_ = 0;
  Clock::time_point last_sweep_ = Clock::now();
};

// One client connection: reads one request at a time, hands it to the
// server, writes the answer, and reads the next while the client keeps the
// connection alive. Owned by the shared pointers of its pending operations.
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Request = http::request<http::string_body>;

  Connection(tcp::socket socket, ServerImpl* server, std::string peer, std::string client)
      : stream_(std::move(socket)),
        server_(server),
        peer_(std::move(peer)),
        client_(std::move(client)) {}
  ~Connection() { server_->Forget(this, client_); }

  void Start() { ReadRequest(); }
  // A connection waiting for a request, idle or still receiving it.
  bool Waiting() const { return state_ == State::kReading && !closed_; }
  Clock::time_point waiting_since() const { return waiting_since_; }
  // Closes a connection waiting for a request (at shutdown, or to make room).
  void CloseIfIdle() {
    if (!Waiting()) return;
    closed_ = true;
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.socket().close(ignored);
  }

  const Request& request() const { return parser_->get(); }
  const std::string& peer() const { return peer_; }
  const std::string& client() const { return client_; }
  void SetRoute(const std::string& api, const std::string& method, long version) {
    record_.api = api;
    record_.method = method;
    record_.version = version;
  }
  void SetUser(const std::string& user) { record_.user = user; }
  void Wait() {
    state_ = State::kBusy;
    stream_.expires_never();
  }

  void SendJson(http::status status, const Json::Value& answer,
                const std::vector<std::string>& cookies = {}) {
    SendText(status, Json::toString(answer), AnswerCode(answer), cookies);
  }

  // `text` is JSON already; `code` is its error code (0 for a success).
  void SendText(http::status status, std::string text, int code,
                const std::vector<std::string>& cookies = {}) {
    auto response = std::make_shared<http::response<http::string_body>>(status, version_);
    response->set(http::field::content_type, "application/json; charset=utf-8");
    response->set(http::field::cache_control, "no-store");
    for (const auto& cookie : cookies) response->insert(http::field::set_cookie, cookie);
    response->body() = std::move(text);
    record_.code = code;
    Send(response, static_cast<int>(status) < 400);
  }

  // A file of the page. Always revalidated (no-cache) against its ETag, so
  // a new version is seen at once and an unchanged one costs a 304.
  void SendStatic(http::file_body::value_type body, const std::string& path,
                  const std::string& etag, bool gzipped, bool has_twin) {
    auto response = std::make_shared<http::response<http::file_body>>(
        std::piecewise_construct, std::make_tuple(std::move(body)),
        std::make_tuple(http::status::ok, version_));
    SetStaticHeaders(*response, path, etag, has_twin);
    if (gzipped) response->set(http::field::content_encoding, "gzip");
    Send(response, true);
  }

  void SendNotModified(const std::string& path, const std::string& etag, bool has_twin) {
    auto response =
        std::make_shared<http::response<http::empty_body>>(http::status::not_modified, version_);
    SetStaticHeaders(*response, path, etag, has_twin);
    Send(response, true);
  }

  // A user's file, `range` of it. Nothing of it is kept by a cache, and it
  // may never act as part of the page: sandboxed, no sniffing, not
  // embeddable by another origin, attachment unless a harmless type.
  void SendDownload(std::shared_ptr<UniqueFd> fd, const std::string& path, uint64_t size,
                    const std::string& etag, const ByteRange& range, bool as_attachment) {
    const DownloadType type = DownloadTypeOf(path);
    FdRangeBody::value_type body;
    body.fd = std::move(fd);
    body.offset = range.state == ByteRange::kPartial ? range.first : 0;
    body.length = range.state == ByteRange::kPartial ? range.length : size;
    const auto status =
        range.state == ByteRange::kPartial ? http::status::partial_content : http::status::ok;
    auto response = std::make_shared<http::response<FdRangeBody>>(
        std::piecewise_construct, std::make_tuple(std::move(body)),
        std::make_tuple(status, version_));
    response->set(http::field::content_type, type.content_type);
    const size_t slash = path.rfind('/');
    response->set(http::field::content_disposition,
                  ContentDisposition(path.substr(slash + 1), as_attachment || !type.inline_ok));
    response->set(http::field::accept_ranges, "bytes");
    response->set(http::field::etag, etag);
    if (range.state == ByteRange::kPartial) {
      response->set(http::field::content_range, "bytes " + std::to_string(range.first) + "-" +
                                                    std::to_string(range.first + range.length - 1) +
                                                    "/" + std::to_string(size));
    }
    response->set(http::field::cache_control, "private, no-store");
    response->set("Content-Security-Policy",
                  "sandbox; default-src 'none'; img-src 'self'; media-src 'self'; "
                  "style-src 'unsafe-inline'");
    response->set("Cross-Origin-Resource-Policy", "same-origin");
    response->set("Referrer-Policy", "no-referrer");
    Send(response, true);
  }

  // 416 for a range past the end of a download of `size` bytes, with the
  // size a client needs to ask again.
  void SendRangeRefused(uint64_t size) {
    auto response = std::make_shared<http::response<http::string_body>>(
        http::status::range_not_satisfiable, version_);
    response->set(http::field::content_type, "application/json; charset=utf-8");
    response->set(http::field::cache_control, "no-store");
    response->set(http::field::content_range, "bytes */" + std::to_string(size));
    response->body() = Json::toString(ErrorAnswer(kErrBadRequest));
    record_.code = kErrBadRequest;
    Send(response, true);
  }

 private:
  enum class State { kReading, kBusy, kWriting };

  template <typename Message>
  void SetStaticHeaders(Message& response, const std::string& path, const std::string& etag,
                        bool has_twin) {
    response.set(http::field::content_type, StaticMimeType(path));
    response.set(http::field::cache_control, "no-cache");
    response.set(http::field::etag, etag);
    if (has_twin) response.set(http::field::vary, "Accept-Encoding");
    response.set("Content-Security-Policy", kPageSecurityPolicy);
    response.set("X-Frame-Options", "DENY");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Cross-Origin-Opener-Policy", "same-origin");
    response.set("Cross-Origin-Resource-Policy", "same-origin");
  }

  void ReadRequest() {
    state_ = State::kReading;
    waiting_since_ = Clock::now();
    if (server_->stopping()) return;
    parser_.emplace();
    parser_->header_limit(static_cast<std::uint32_t>(server_->config().max_header_size));
    parser_->body_limit(server_->config().max_body_size);
    stream_.expires_after(std::chrono::seconds(server_->config().client_timeout));
    http::async_read_header(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, size_t) { self->OnHeader(ec); });
  }

  // Clients that ask before sending a body (curl does above 1 KiB) get
  // their go-ahead; an oversized body was refused with the header already.
  void OnHeader(beast::error_code ec) {
    if (ec) {
      OnRead(ec);
      return;
    }
    const auto read_body = [self = shared_from_this()] {
      http::async_read(self->stream_, self->buffer_, *self->parser_,
                       [self](beast::error_code read_ec, size_t) { self->OnRead(read_ec); });
    };
    if (!beast::iequals(parser_->get()[http::field::expect], "100-continue")) {
      read_body();
      return;
    }
    auto go_ahead = std::make_shared<http::response<http::empty_body>>(http::status::continue_,
                                                                       parser_->get().version());
    http::async_write(
        stream_, *go_ahead,
        [self = shared_from_this(), go_ahead, read_body](beast::error_code write_ec, size_t) {
          if (!write_ec) read_body();
        });
  }

  void OnRead(beast::error_code ec) {
    if (ec) {
      // Parse faults get a clear answer; a closed, reset or silent client
      // just loses its connection.
      version_ = 11;
      keep_alive_ = false;
      record_ = AccessRecord();
      started_ = Clock::now();
      record_.client = peer_;
      if (ec == http::error::body_limit) {
        SendJson(http::status::payload_too_large, ErrorAnswer(kErrTooLarge));
      } else if (ec == http::error::header_limit) {
        SendJson(http::status::request_header_fields_too_large, ErrorAnswer(kErrTooLarge));
      } else if (ec.category() ==
                     beast::http::make_error_code(http::error::bad_target).category() &&
                 ec != http::error::end_of_stream && ec != http::error::partial_message) {
        SendJson(http::status::bad_request, ErrorAnswer(kErrBadRequest));
      }
      return;
    }
    const Request& req = parser_->get();
    version_ = req.version();
    keep_alive_ = req.keep_alive();
    started_ = Clock::now();
    record_ = AccessRecord();
    record_.client = peer_;
    record_.http_method = std::string(req.method_string());
    const std::string target(req.target());
    record_.path = target.substr(0, target.find('?'));
    server_->Handle(shared_from_this());
  }

  template <typename Message>
  void Send(const std::shared_ptr<Message>& message, bool may_keep_alive) {
    message->set(http::field::server, kServerName);
    message->set("X-Content-Type-Options", "nosniff");
    message->keep_alive(keep_alive_ && may_keep_alive && !server_->stopping());
    message->prepare_payload();
    record_.status = static_cast<int>(message->result());
    record_.bytes = message->payload_size() ? static_cast<size_t>(*message->payload_size()) : 0;
    record_.millis = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started_).count());
    server_->access_log()->Write(record_);
    state_ = State::kWriting;
    auto serializer =
        std::make_shared<http::serializer<false, typename Message::body_type>>(*message);
    WriteSome(message, serializer);
  }

  // Writes the answer piece by piece, each piece within the client time-out:
  // a large download takes as long as the client needs, but a client that
  // stops reading is dropped.
  template <typename Message, typename Serializer>
  void WriteSome(const std::shared_ptr<Message>& message,
                 const std::shared_ptr<Serializer>& serializer) {
    stream_.expires_after(std::chrono::seconds(server_->config().client_timeout));
    http::async_write_some(
        stream_, *serializer,
        [self = shared_from_this(), message, serializer](beast::error_code ec, size_t) {
          if (!ec && !serializer->is_done()) {
            self->WriteSome(message, serializer);
            return;
          }
          if (ec || !message->keep_alive()) {
            beast::error_code ignored;
            self->stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
            return;
          }
          self->ReadRequest();
        });
  }

  beast::tcp_stream stream_;
  ServerImpl* server_;
  std::string peer_;    // the client's address, for the log
  std::string client_;  // its ClientKey, for the bounds
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  State state_ = State::kReading;
  bool closed_ = false;
  Clock::time_point waiting_since_;
  unsigned version_ = 11;
  bool keep_alive_ = false;
  Clock::time_point started_;
  AccessRecord record_;
};

bool ServerImpl::Listen(std::string* error) {
  beast::error_code ec;
  const auto address = asio::ip::make_address(config_.address, ec);
  if (ec) {
    *error = "bad listen address \"" + config_.address + "\"";
    return false;
  }
  const tcp::endpoint endpoint(address, static_cast<unsigned short>(config_.port));
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec) acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor_.bind(endpoint, ec);
  if (!ec) acceptor_.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    *error = "cannot listen on " + config_.address + ":" + std::to_string(config_.port) + ": " +
             ec.message();
    return false;
  }
  if (!config_.static_root.empty()) {
    char* resolved = realpath(config_.static_root.c_str(), nullptr);
    if (!resolved) {
      *error = "static_root " + config_.static_root + ": " + strerror(errno);
      return false;
    }
    static_root_ = resolved;
    free(resolved);
    if (static_root_ == "/") {
      *error = "static_root must not be /";
      return false;
    }
  }
  return true;
}

int ServerImpl::Run() {
  signals_.add(SIGTERM);
  signals_.add(SIGINT);
  reload_signal_.add(SIGHUP);
  child_signal_.add(SIGCHLD);
  WaitSignals();
  WaitReloadSignal();
  WaitChildSignal();
  Accept();
  Housekeeping();
  syslog(LOG_INFO, "serving on %s:%d with up to %d workers", config_.address.c_str(), config_.port,
         config_.max_workers);
  io_.run();
  ReapChildren();
  syslog(LOG_INFO, "stopped");
  return exit_status_;
}

void ServerImpl::Accept() {
  acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
    if (ec == asio::error::operation_aborted || stopping_) return;
    if (ec) {
      // Out of descriptors: pause rather than spin; the clients wait in the
      // listen backlog meanwhile.
      syslog(LOG_WARNING, "accept failed: %s", ec.message().c_str());
      accept_pause_.expires_after(std::chrono::milliseconds(100));
      accept_pause_.async_wait([this](beast::error_code wait_ec) {
        if (!wait_ec && !stopping_) Accept();
      });
      return;
    }
    beast::error_code peer_ec;
    const auto endpoint = socket.remote_endpoint(peer_ec);
    const std::string client = peer_ec ? "unknown" : ClientKey(endpoint.address());
    // One client cannot hold more than its share; at the global bound, a
    // connection that only waits makes room, the longest waiting of the
    // client holding the most, so that many clients together cannot shut
    // out a newcomer either. Nobody is cut off in the middle of a request
    // already read.
    const auto held = per_client_.find(client);
    const bool over_share =
        held != per_client_.end() && held->second >= config_.max_connections_per_address;
    if (over_share || (connections_.size() >= static_cast<size_t>(config_.max_connections) &&
                       !CloseOneWaiting())) {
      beast::error_code ignored;
      socket.close(ignored);
    } else {
      const std::string peer = peer_ec ? "unknown" : endpoint.address().to_string();
      auto connection = std::make_shared<Connection>(std::move(socket), this, peer, client);
      connections_[connection.get()] = connection;
      ++per_client_[client];
      connection->Start();
    }
    Accept();
  });
}

bool ServerImpl::CloseOneWaiting() {
  std::shared_ptr<Connection> victim;
  int victim_held = 0;
  for (const auto& [raw, weak] : connections_) {
    auto connection = weak.lock();
    if (!connection || !connection->Waiting()) continue;
    const int held = per_client_[connection->client()];
    if (!victim || held > victim_held ||
        (held == victim_held && connection->waiting_since() < victim->waiting_since())) {
      victim = connection;
      victim_held = held;
    }
  }
  if (!victim) return false;
  victim->CloseIfIdle();
  return true;
}

void ServerImpl::WaitSignals() {
  signals_.async_wait([this](beast::error_code ec, int sig) {
    if (ec) return;
    if (!stopping_) {
      syslog(LOG_INFO, "signal %d: finishing %zu requests in flight, then stopping", sig,
             workers_.size() + queue_.size());
      BeginStop();
    } else {
      syslog(LOG_WARNING, "signal %d again: stopping now", sig);
      exit_status_ = 1;
      for (const auto& [pid, worker] : workers_) kill(pid, SIGKILL);
      io_.stop();
      return;
    }
    WaitSignals();
  });
}

void ServerImpl::WaitReloadSignal() {
  reload_signal_.async_wait([this](beast::error_code ec, int) {
    if (ec) return;
    std::string error;
    if (!access_log_->Reopen(&error)) syslog(LOG_ERR, "%s", error.c_str());
    WaitReloadSignal();
  });
}

void ServerImpl::WaitChildSignal() {
  child_signal_.async_wait([this](beast::error_code ec, int) {
    if (ec) return;
    ReapChildren();
    WaitChildSignal();
  });
}

void ServerImpl::Housekeeping() {
  housekeeping_.expires_after(std::chrono::seconds(1));
  housekeeping_.async_wait([this](beast::error_code ec) {
    if (ec) return;
    // Signals can merge; a pass here makes sure no descendant stays a zombie.
    ReapChildren();
    const auto now = Clock::now();
    if (now - last_sweep_ >= std::chrono::seconds(10)) {
      sessions_.Sweep(now);
      throttle_.Sweep(now);
      last_sweep_ = now;
    }
    MaybeStop();
    Housekeeping();
  });
}

void ServerImpl::BeginStop() {
  stopping_ = true;
  beast::error_code ignored;
  acceptor_.close(ignored);
  accept_pause_.cancel();
  std::vector<std::shared_ptr<Connection>> open;
  for (const auto& [raw, weak] : connections_) {
    if (auto connection = weak.lock()) open.push_back(connection);
  }
  for (const auto& connection : open) connection->CloseIfIdle();
  // Workers are bounded by the request time-out; this is the backstop.
  stop_deadline_.expires_after(std::chrono::seconds(config_.request_timeout + 10));
  stop_deadline_.async_wait([this](beast::error_code ec) {
    if (ec) return;
    syslog(LOG_WARNING, "requests still running at the stop deadline; ending them");
    for (const auto& [pid, worker] : workers_) kill(pid, SIGKILL);
    exit_status_ = 1;
    io_.stop();
  });
  MaybeStop();
}

void ServerImpl::MaybeStop() {
  if (!stopping_ || !connections_.empty() || !workers_.empty() || !queue_.empty()) return;
  io_.stop();
}

void ServerImpl::Forget(Connection* connection, const std::string& client) {
  connections_.erase(connection);
  const auto held = per_client_.find(client);
  if (held != per_client_.end() && --held->second <= 0) per_client_.erase(held);
  if (stopping_ && !destroying_) {
    // Not from inside the destructor's own call chain: defer the check.
    asio::post(io_, [this] { MaybeStop(); });
  }
}

void ServerImpl::Handle(const std::shared_ptr<Connection>& connection) {
  const auto& req = connection->request();
  const std::string target(req.target());
  const size_t question = target.find('?');
  const std::string path = target.substr(0, question);
  if (path == kEntryPath) {
    HandleApi(connection, question == std::string::npos ? "" : target.substr(question + 1));
  } else if (path == kFilePath) {
    HandleFile(connection, question == std::string::npos ? "" : target.substr(question + 1));
  } else if (!static_root_.empty() && req.method() == http::verb::get) {
    ServeStatic(connection, path);
  } else {
    connection->SendJson(http::status::not_found, ErrorAnswer(kErrBadRequest));
  }
}

void ServerImpl::HandleApi(const std::shared_ptr<Connection>& connection,
                           const std::string& query) {
  const auto& req = connection->request();
  if (req.method() != http::verb::get && req.method() != http::verb::post) {
    connection->SendJson(http::status::method_not_allowed, ErrorAnswer(kErrBadRequest));
    return;
  }
  Json::Value params(Json::objectValue);
  std::string problem;
  bool ok = ParseFormParams(query, &params, &problem, kTextFields);
  if (ok && req.method() == http::verb::post && !req.body().empty()) {
    const std::string type(req[http::field::content_type]);
    const std::string media = type.substr(0, type.find(';'));
    if (beast::iequals(media, "application/x-www-form-urlencoded")) {
      ok = ParseFormParams(req.body(), &params, &problem, kTextFields);
    } else if (beast::iequals(media, "application/json")) {
      ok = ParseJsonParams(req.body(), &params, &problem);
    } else {
      connection->SendJson(http::status::unsupported_media_type, ErrorAnswer(kErrBadRequest));
      return;
    }
  }
  if (!ok) {
    connection->SendJson(http::status::bad_request, ErrorAnswer(kErrBadRequest));
    return;
  }

  const Json::Value api = params["api"];
  const Json::Value method = params["method"];
  const Json::Value version_value = params["version"];
  const Json::Value sid = params["_sid"];
  for (const char* name : {"api", "method", "version", "_sid"}) params.removeMember(name);
  if (!api.isString() || !method.isString() || version_value.isNull()) {
    connection->SendJson(http::status::ok, ErrorAnswer(kErrMissingRoute));
    return;
  }
  const long version = VersionOf(version_value);
  connection->SetRoute(api.asString(), method.asString(), version);
  if (version < 0) {
    connection->SendJson(http::status::ok, ErrorAnswer(kErrBadVersion));
    return;
  }

  if (api.asString() == kAuthAPI) {
    if (method.asString() != "login" && method.asString() != "logout") {
      connection->SendJson(http::status::ok, ErrorAnswer(kErrUnknownMethod));
    } else if (version != 1) {
      connection->SendJson(http::status::ok, ErrorAnswer(kErrBadVersion));
    } else if (method.asString() == "login") {
      Login(connection, params);
    } else {
      Logout(connection, sid);
    }
    return;
  }

  Route route;
  switch (registry_.Find(api.asString(), method.asString(), version, &route)) {
    case ModuleRegistry::Match::kFound:
      break;
    case ModuleRegistry::Match::kUnknownAPI:
      connection->SendJson(http::status::ok, ErrorAnswer(kErrUnknownAPI));
      return;
    case ModuleRegistry::Match::kUnknownMethod:
      connection->SendJson(http::status::ok, ErrorAnswer(kErrUnknownMethod));
      return;
    case ModuleRegistry::Match::kBadVersion:
      connection->SendJson(http::status::ok, ErrorAnswer(kErrBadVersion));
      return;
  }
  const Session* session = Authenticate(connection, sid);
  if (!session) return;
  const uid_t uid = session->uid;
  if (!Admit(connection, uid)) return;

  Job job;
  job.connection = connection;
  job.label = api.asString() + "/" + method.asString();
  const auto now = Clock::now();
  const bool recheck =
      now - session->looked_up >= std::chrono::seconds(config_.admin_recheck_interval);
  const int known_admin = recheck ? -1 : (session->is_admin ? 1 : 0);
  std::optional<KLIBUserIdentity> identity;
  if (!recheck && session->has_identity) identity = session->identity;
  job.work = [route, params, user = session->user, uid = session->uid, id = session->id,
              known_admin, identity]() {
    return RunModuleRequest(route, params, user, uid, id, known_admin,
                            identity ? &*identity : nullptr);
  };
  job.on_outcome = [this, connection, id = session->id, uid](Outcome outcome) {
    if (--pending_[uid] <= 0) pending_.erase(uid);
    if (outcome.admin >= 0) {
      sessions_.SetLookup(id, outcome.admin == 1,
                          outcome.has_identity ? &outcome.identity : nullptr, Clock::now());
    }
    if (outcome.answered) {
      connection->SendText(http::status::ok, std::move(outcome.text), outcome.code);
    } else {
      connection->SendJson(http::status::ok, ErrorAnswer(outcome.code));
    }
  };
  Submit(std::move(job));
}

bool ServerImpl::Admit(const std::shared_ptr<Connection>& connection, uid_t uid,
                       http::status http_status) {
  // One user alone must not fill every worker and the whole queue.
  if (pending_[uid] >= config_.max_requests_per_user) {
    connection->SendJson(http_status, ErrorAnswer(kErrTooBusy));
    return false;
  }
  ++pending_[uid];
  return true;
}

// The download endpoint. A GET that changes nothing, made by links, so the
// cookie alone signs it in (SameSite=Strict keeps it from other sites); the
// worker opens the file as the user and hands the master the descriptor.
void ServerImpl::HandleFile(const std::shared_ptr<Connection>& connection,
                            const std::string& query) {
  const auto& req = connection->request();
  if (req.method() != http::verb::get) {
    connection->SendJson(http::status::method_not_allowed, ErrorAnswer(kErrBadRequest));
    return;
  }
  // Fetch metadata, where the browser sends it: no other site's page may
  // pull a user's file into itself.
  if (beast::iequals(req["Sec-Fetch-Site"], "cross-site")) {
    connection->SendJson(http::status::forbidden, ErrorAnswer(kErrBadToken));
    return;
  }
  Json::Value params(Json::objectValue);
  std::string problem;
  if (!ParseFormParams(query, &params, &problem, {"_sid", "path", "download"})) {
    connection->SendJson(http::status::bad_request, ErrorAnswer(kErrBadRequest));
    return;
  }
  const Json::Value& reference = params["path"];
  std::string path;
  if (!reference.isString() || !DecodeFileReference(reference.asString(), &path)) {
    connection->SendJson(http::status::bad_request,
                         ParamError("path", reference.isNull() ? "required" : "invalid"));
    return;
  }
  const bool as_attachment = params["download"].asString() == "1";
  const Session* session = Authenticate(connection, params["_sid"], true, http::status::forbidden);
  if (!session) return;
  const uid_t uid = session->uid;
  if (!Admit(connection, uid, http::status::service_unavailable)) return;

  Job job;
  job.connection = connection;
  job.label = "download";
  const bool recheck =
      Clock::now() - session->looked_up >= std::chrono::seconds(config_.admin_recheck_interval);
  const int known_admin = recheck ? -1 : (session->is_admin ? 1 : 0);
  std::optional<KLIBUserIdentity> identity;
  if (!recheck && session->has_identity) identity = session->identity;
  job.work = [path, user = session->user, known_admin, identity]() {
    return RunFileOpen(path, user, known_admin, identity ? &*identity : nullptr);
  };
  job.on_outcome = [this, connection, id = session->id, uid, path, as_attachment](Outcome outcome) {
    if (--pending_[uid] <= 0) pending_.erase(uid);
    if (outcome.admin >= 0) {
      sessions_.SetLookup(id, outcome.admin == 1,
                          outcome.has_identity ? &outcome.identity : nullptr, Clock::now());
    }
    Json::Value answer;
    if (!outcome.answered || !Json::fromString(answer, outcome.text)) {
      connection->SendJson(http::status::internal_server_error,
                           ErrorAnswer(outcome.answered ? kErrWorkerEnded : outcome.code));
      return;
    }
    const int code = AnswerCode(answer);
    if (code != 0 || outcome.fd.get() < 0) {
      const auto status = code == kErrNoSuchFile   ? http::status::not_found
                          : code == kErrFileDenied ? http::status::forbidden
                                                   : http::status::internal_server_error;
      connection->SendJson(status, code != 0 ? answer : ErrorAnswer(kErrInternal));
      return;
    }
    const uint64_t size = answer["data"]["size"].asUInt64();
    const std::string etag = answer["data"]["etag"].asString();
    const auto& req = connection->request();
    ByteRange range = ParseRange(std::string(req[http::field::range]), size);
    // A range of a file that changed since the client's first piece would
    // splice two versions: send the whole file instead.
    const std::string if_range(req[http::field::if_range]);
    if (!if_range.empty() && if_range != etag) range = ByteRange();
    if (range.state == ByteRange::kUnsatisfiable) {
      connection->SendRangeRefused(size);
      return;
    }
    connection->SendDownload(std::make_shared<UniqueFd>(std::move(outcome.fd)), path, size, etag,
                             range, as_attachment);
  };
  Submit(std::move(job));
}

const Session* ServerImpl::Authenticate(const std::shared_ptr<Connection>& connection,
                                        const Json::Value& sid_param, bool cookie_alone,
                                        http::status http_status) {
  const auto& req = connection->request();
  std::string sid;
  const bool from_cookie = !sid_param.isString();
  if (from_cookie) {
    sid = CookieValue(std::string(req[http::field::cookie]), kSessionCookie);
  } else {
    sid = sid_param.asString();
  }
  const Session* session = sid.empty() ? nullptr : sessions_.Find(sid, Clock::now());
  if (!session) {
    connection->SendJson(http_status, ErrorAnswer(kErrNotLoggedIn));
    return nullptr;
  }
  connection->SetUser(session->user);
  // A cross-site page can make the browser send the cookie, never a header
  // with a token it cannot read.
  if (from_cookie && !cookie_alone &&
      !TokensEqual(std::string(req[kTokenHeader]), session->csrf_token)) {
    connection->SendJson(http_status, ErrorAnswer(kErrBadToken));
    return nullptr;
  }
  return session;
}

void ServerImpl::Login(const std::shared_ptr<Connection>& connection, const Json::Value& params) {
  const Json::Value& account_value = params["account"];
  const Json::Value& password_value = params["passwd"];
  if (!account_value.isString() || !PlainText(account_value.asString(), 256)) {
    connection->SendJson(http::status::ok,
                         ParamError("account", account_value.isNull() ? "required" : "invalid"));
    return;
  }
  // A NUL would cut the password short on its way into PAM.
  if (!password_value.isString() || password_value.asString().empty() ||
      password_value.asString().size() > 4096 ||
      password_value.asString().find('\0') != std::string::npos) {
    connection->SendJson(http::status::ok,
                         ParamError("passwd", password_value.isNull() ? "required" : "invalid"));
    return;
  }
  const std::string account = account_value.asString();
  const std::string address = connection->peer();
  connection->SetUser(account);
  if (!throttle_.Begin(account, connection->client(), Clock::now())) {
    syslog(LOG_WARNING, "login for \"%s\" from %s refused: too many failures", account.c_str(),
           address.c_str());
    connection->SendJson(http::status::ok, ErrorAnswer(kErrLoginThrottled));
    return;
  }
  Job job;
  job.connection = connection;
  job.label = "login";
  job.work = [service = config_.pam_service, account, password = password_value.asString(),
              min_uid = config_.min_login_uid]() {
    return RunLogin(service, account, password, min_uid);
  };
  job.on_outcome = [this, connection, account, address,
                    client = connection->client()](Outcome outcome) {
    Json::Value answer;
    const bool parsed = outcome.answered && Json::fromString(answer, outcome.text);
    const bool ok = parsed && answer["ok"].asBool();
    throttle_.Finish(account, client, ok, Clock::now());
    if (!parsed) {
      connection->SendJson(http::status::ok,
                           ErrorAnswer(outcome.answered ? kErrWorkerEnded : outcome.code));
      return;
    }
    if (!ok) {
      syslog(LOG_NOTICE, "login for \"%s\" from %s failed: %s", account.c_str(), address.c_str(),
             answer["reason"].asString().c_str());
      // The delay is paid here, by a timer, not by a worker sleeping in PAM.
      auto timer = std::make_shared<asio::steady_timer>(io_);
      timer->expires_after(std::chrono::milliseconds(config_.login_failure_delay_ms));
      timer->async_wait([timer, connection](beast::error_code) {
        connection->SendJson(http::status::ok, ErrorAnswer(kErrLoginFailed));
      });
      return;
    }
    const std::string user = answer["user"].asString();
    const uid_t uid = answer["uid"].asUInt();
    Json::Value data(Json::objectValue);
    std::vector<std::string> cookies;
    try {
      // A login answer without groups (the user vanished after PAM) leaves
      // the identity to the workers' own lookups.
      KLIBUserIdentity identity;
      const bool has_identity = answer["groups"].isArray() && !answer["groups"].empty();
      if (has_identity) {
        identity.uid = uid;
        identity.gid = answer["gid"].asUInt();
        for (const Json::Value& gid : answer["groups"]) identity.groups.push_back(gid.asUInt());
      }
      const Session& session = sessions_.Create(user, uid, answer["is_admin"].asBool(),
                                                has_identity ? &identity : nullptr, Clock::now());
      data["sid"] = session.id;
      data["csrf_token"] = session.csrf_token;
      cookies.push_back(SessionCookie(session.id));
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "login for \"%s\": %s", user.c_str(), e.what());
      connection->SendJson(http::status::ok, ErrorAnswer(kErrInternal));
      return;
    }
    data["account"] = user;
    data["is_admin"] = answer["is_admin"].asBool();
    connection->SetUser(user);
    syslog(LOG_INFO, "login of \"%s\" from %s", user.c_str(), address.c_str());
    connection->SendJson(http::status::ok, SuccessAnswer(data), cookies);
  };
  Submit(std::move(job));
}

void ServerImpl::Logout(const std::shared_ptr<Connection>& connection,
                        const Json::Value& sid_param) {
  const Session* session = Authenticate(connection, sid_param);
  if (!session) return;
  sessions_.Remove(std::string(session->id));
  connection->SendJson(http::status::ok, SuccessAnswer(Json::Value()), {ExpiredSessionCookie()});
}

void ServerImpl::ServeStatic(const std::shared_ptr<Connection>& connection,
                             const std::string& path) {
  const auto& req = connection->request();
  const std::string file = ResolveStaticFile(static_root_, path);
  const std::string twin = file.empty() ? "" : StaticGzipTwin(static_root_, file);
  const bool gzipped = !twin.empty() && AcceptsGzip(std::string(req[http::field::accept_encoding]));
  const std::string& sent = gzipped ? twin : file;
  http::file_body::value_type body;
  beast::error_code ec;
  struct stat st;
  if (!file.empty()) body.open(sent.c_str(), beast::file_mode::scan, ec);
  if (file.empty() || ec || fstat(body.file().native_handle(), &st) != 0) {
    connection->SendJson(http::status::not_found, ErrorAnswer(kErrBadRequest));
    return;
  }
  // The validator of what is sent: the gzip twin and the plain file differ.
  const std::string etag = FileETag(st);
  if (ETagMatches(std::string(req[http::field::if_none_match]), etag)) {
    connection->SendNotModified(file, etag, !twin.empty());
    return;
  }
  connection->SendStatic(std::move(body), file, etag, gzipped, !twin.empty());
}

void ServerImpl::Submit(Job job) {
  job.connection->Wait();
  if (workers_.size() < static_cast<size_t>(config_.max_workers) && queue_.empty()) {
    Start(std::move(job));
  } else if (queue_.size() < static_cast<size_t>(config_.max_queue)) {
    queue_.push_back(std::move(job));
  } else {
    job.on_outcome(ServerError(kErrTooBusy));
  }
}

void ServerImpl::Start(Job job) {
  int fd = -1;
  const pid_t pid = ForkWorker(
      job.work, EncodeAnswer({kErrInternal, -1}, Json::toString(ErrorAnswer(kErrInternal))),
      kLogIdent, &fd);
  if (pid < 0) {
    syslog(LOG_ERR, "cannot start a worker for %s: %m", job.label.c_str());
    job.on_outcome(ServerError(kErrInternal));
    return;
  }
  // Also here, not only in the worker: a time-out may come before the worker
  // ran far enough to make its own group.
  setpgid(pid, pid);
  auto worker = std::make_shared<Worker>(io_, fd, pid, std::move(job));
  workers_[pid] = worker;
  WaitAnswer(worker);
  worker->timer.expires_after(std::chrono::seconds(config_.request_timeout));
  worker->timer.async_wait([this, worker](beast::error_code ec) {
    if (!ec) TimeOut(worker);
  });
}

void ServerImpl::WaitAnswer(const std::shared_ptr<Worker>& worker) {
  worker->pipe.async_wait(asio::posix::stream_descriptor::wait_read,
                          [this, worker](beast::error_code ec) {
                            if (ec || worker->pipe_done) return;
                            if (!ReadAnswer(worker)) WaitAnswer(worker);
                          });
}

bool ServerImpl::ReadAnswer(const std::shared_ptr<Worker>& worker) {
  if (worker->pipe_done) return true;
  for (;;) {
    const ssize_t n =
        ReadAnswerChunk(worker->pipe.native_handle(), &worker->received, &worker->passed);
    if (n > 0) {
      if (worker->received.size() > kMaxAnswerSize + 4) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    const bool end_of_file = n == 0;
    if (!end_of_file && errno != EAGAIN) break;
    std::string frame;
    const FrameState state = DecodeFrame(worker->received, &frame);
    if (state == FrameState::kBad) break;
    if (state == FrameState::kIncomplete) {
      // At the end of the file, the worker's exit decides what to answer.
      if (end_of_file) worker->pipe_done = true;
      return end_of_file;
    }
    Outcome outcome;
    outcome.answered = true;
    AnswerHeader header;
    if (!DecodeAnswer(frame, &header, &outcome.text)) break;
    outcome.code = header.code;
    outcome.admin = header.admin;
    outcome.has_identity = header.has_identity;
    outcome.identity = std::move(header.identity);
    outcome.fd = std::move(worker->passed);
    worker->pipe_done = true;
    Finish(worker, std::move(outcome));
    return true;
  }
  syslog(LOG_ERR, "worker %d for %s sent a malformed answer", worker->pid,
         worker->job.label.c_str());
  worker->pipe_done = true;
  Finish(worker, ServerError(kErrWorkerEnded));
  return true;
}

void ServerImpl::Finish(const std::shared_ptr<Worker>& worker, Outcome outcome) {
  if (worker->finished) return;
  worker->finished = true;
  worker->timer.cancel();
  beast::error_code ignored;
  worker->pipe.close(ignored);
  worker->pipe_done = true;
  Job job = std::move(worker->job);
  worker->job = Job();
  job.on_outcome(std::move(outcome));
}

void ServerImpl::TimeOut(const std::shared_ptr<Worker>& worker) {
  if (worker->finished) return;
  syslog(LOG_ERR, "worker %d for %s ran past %d s; killing it", worker->pid,
         worker->job.label.c_str(), config_.request_timeout);
  kill(-worker->pid, SIGKILL);
  kill(worker->pid, SIGKILL);
  Finish(worker, ServerError(kErrTimedOut));
}

void ServerImpl::ReapChildren() {
  for (;;) {
    int status = 0;
    const pid_t pid = waitpid(-1, &status, WNOHANG);
    if (pid <= 0) break;
    ChildExited(pid, status);
  }
}

void ServerImpl::ChildExited(pid_t pid, int status) {
  const auto it = workers_.find(pid);
  if (it == workers_.end()) return;  // a module's own child, reaped for it
  const std::shared_ptr<Worker> worker = it->second;
  workers_.erase(it);
  if (!worker->finished) {
    // Everything the worker wrote is in the pipe now.
    ReadAnswer(worker);
  }
  if (!worker->finished) {
    if (WIFSIGNALED(status)) {
      syslog(LOG_ERR, "worker %d for %s was ended by signal %d before answering", pid,
             worker->job.label.c_str(), WTERMSIG(status));
    } else {
      syslog(LOG_ERR, "worker %d for %s exited with status %d before answering", pid,
             worker->job.label.c_str(), WEXITSTATUS(status));
    }
    Finish(worker, ServerError(kErrWorkerEnded));
  }
  worker->timer.cancel();
  beast::error_code ignored;
  worker->pipe.close(ignored);
  Dispatch();
}

void ServerImpl::Dispatch() {
  while (workers_.size() < static_cast<size_t>(config_.max_workers) && !queue_.empty()) {
    Job job = std::move(queue_.front());
    queue_.pop_front();
    Start(std::move(job));
  }
  MaybeStop();
}

Server::Server(const ServerConfig& config, const ModuleRegistry& registry, AccessLog* access_log)
    : impl_(std::make_unique<ServerImpl>(config, registry, access_log)) {}

Server::~Server() = default;

bool Server::Listen(std::string* error) { return impl_->Listen(error); }

int Server::Run() { return impl_->Run(); }

}  // namespace host
}  // namespace kestondri
