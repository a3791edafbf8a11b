#include "host/server_harness.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <sstream>
#include <thread>

#include "kest/json.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;

const char kConfigPath[] = "/tmp/webapi-test/server.conf";
const char kOutputPath[] = "/tmp/webapi-test/server.out";

thread_local std::string client_address;

int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{}, address{};
  local.sin_family = address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if ((!client_address.empty() &&
       (inet_pton(AF_INET, client_address.c_str(), &local.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0)) ||
      connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  timeval timeout{90, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  return fd;
}

bool WriteAll(int fd, const std::string& data) {
  for (size_t done = 0; done < data.size();) {
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

// The server's process with its output in kOutputPath, as `user` when given.
pid_t Spawn(const std::string& config, const char* user) {
  WriteFile(kConfigPath, config);
  const pid_t pid = fork();
  if (pid == 0) {
    // A test that dies must not leave a server behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = open(kOutputPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    dup2(open("/dev/null", O_RDONLY), 0);
    if (user && (setgid(UserByName(user).gid) != 0 || setuid(UserByName(user).uid) != 0))
      _exit(126);
    execl(KEST_SERVER_BINARY, KEST_SERVER_BINARY, "--config", kConfigPath,
          static_cast<char*>(nullptr));
    _exit(127);
  }
  return pid;
}

// The exit status of `pid` once it ended (128 + signal), -1 while it runs.
int Exited(pid_t pid, int options = WNOHANG) {
  int status = 0;
  if (waitpid(pid, &status, options) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

void SetClientAddress(const std::string& address) { client_address = address; }

std::string FormEncode(const Fields& fields) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (const auto& [name, value] : fields) {
    if (!out.empty()) out += '&';
    for (const std::string* part : {&name, &value}) {
      for (unsigned char c : *part) {
        if (isalnum(c) || (c && strchr("-_.~/", c))) {
          out.push_back(static_cast<char>(c));
        } else {
          out += {'%', kHex[c >> 4], kHex[c & 0xf]};
        }
      }
      if (part == &name) out += '=';
    }
  }
  return out;
}

HttpReply SendHttp(const HttpRequest& request, int port) {
  http::request<http::string_body> message(http::string_to_verb(request.method), request.target,
                                           11);
  message.set(http::field::host, "127.0.0.1");
  message.set(http::field::connection, "close");
  if (!request.content_type.empty()) message.set(http::field::content_type, request.content_type);
  for (const auto& [name, value] : request.headers) message.insert(name, value);
  message.body() = request.body;
  message.prepare_payload();
  std::ostringstream text;
  text << message;
  // The whole answer: the server closes the connection after it.
  const std::string received = SendRaw(text.str(), port);
  http::response_parser<http::string_body> parser;
  parser.eager(true);
  parser.body_limit(1u << 30);
  beast::error_code ec;
  for (size_t used = 0; !ec && !parser.is_done() && used < received.size();) {
    used += parser.put(boost::asio::buffer(received.data() + used, received.size() - used), ec);
  }
  if (!parser.is_done()) parser.put_eof(ec);
  HttpReply reply;
  if (!parser.is_done()) return reply;
  const auto& response = parser.get();
  reply.status = static_cast<int>(response.result_int());
  reply.body = response.body();
  reply.content_type = std::string(response[http::field::content_type]);
  for (const auto& field : response) {
    if (field.name() == http::field::set_cookie) reply.set_cookies.emplace_back(field.value());
    std::string name(field.name_string());
    for (char& c : name) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    reply.headers[name] = std::string(field.value());
  }
  if (!Json::fromString(reply.json, reply.body)) reply.json = Json::Value();
  return reply;
}

std::string SendRaw(const std::string& bytes, int port) {
  const int fd = Connect(port);
  std::string received;
  char chunk[65536];
  if (fd >= 0 && WriteAll(fd, bytes)) {
    for (ssize_t n; (n = recv(fd, chunk, sizeof(chunk), 0)) > 0;) received.append(chunk, n);
  }
  if (fd >= 0) close(fd);
  return received;
}

int OpenConnection(int port) { return Connect(port); }

HttpReply CallApi(const Fields& fields, const std::string& sid) {
  Fields all = fields;
  if (!sid.empty()) all.emplace_back("_sid", sid);
  return SendHttp({"GET", "/webapi/entry.cgi?" + FormEncode(all), "", "", {}});
}

LoginSession Login(const std::string& account, const std::string& password) {
  const std::string form = FormEncode({{"api", "KEST.API.Auth"},
                                       {"version", "1"},
                                       {"method", "login"},
                                       {"account", account},
                                       {"passwd", password}});
  const HttpReply reply = SendHttp(
      {"POST", "/webapi/entry.cgi", form, "application/x-www-form-urlencoded; charset=UTF-8", {}});
  LoginSession session;
  session.reply = reply.json;
  if (reply.json["success"].asBool()) {
    session.sid = reply.json["data"]["sid"].asString();
    session.token = reply.json["data"]["csrf_token"].asString();
    if (!reply.set_cookies.empty()) session.cookie = reply.set_cookies[0];
  }
  return session;
}

std::string TestConfig(const std::string& extra) {
  return "[server]\nport = " + std::to_string(kServerPort) + "\naccess_log = " + kAccessLog +
         "\nlogin_failure_delay_ms = 0\n[modules]\ntest = " KEST_TEST_MODULE
         "\nkestondri = " KEST_REAL_MODULE "\n" +
         extra;
}

bool WaitUntil(const std::function<bool()>& done, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

ServerProcess::~ServerProcess() { Stop(); }

void ServerProcess::Start(const std::string& config) {
  pid_ = Spawn(config, nullptr);
  int status = -1;
  const bool serving = WaitUntil([&] {
    const int fd = Connect(kServerPort);
    if (fd >= 0) close(fd);
    return fd >= 0 || (status = Exited(pid_)) >= 0;
  });
  if (status >= 0) pid_ = -1;
  ASSERT_TRUE(serving && status < 0) << "the server does not serve: " << Output();
}

int ServerProcess::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  const int status = Exited(pid_, 0);
  pid_ = -1;
  return status;
}

std::string ServerProcess::Output() const { return ReadFile(kOutputPath); }

int ServerProcess::OpenDescriptors() const {
  DIR* dir = opendir(("/proc/" + std::to_string(pid_) + "/fd").c_str());
  if (!dir) return -1;
  int count = 0;
  while (struct dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

int ServerProcess::Children(bool zombies) const {
  int count = 0;
  DIR* dir = opendir("/proc");
  while (struct dirent* entry = readdir(dir)) {
    const std::string stat =
        atoi(entry->d_name) > 0 ? ReadFile(std::string("/proc/") + entry->d_name + "/stat") : "";
    const auto paren = stat.rfind(')');
    char state = 0;
    pid_t parent = 0;
    if (paren != std::string::npos &&
        sscanf(stat.c_str() + paren + 1, " %c %d", &state, &parent) == 2 && parent == pid_) {
      count += (state == 'Z') == zombies;
    }
  }
  closedir(dir);
  return count;
}

bool ServerProcess::WaitQuiet(int timeout_ms) const {
  return WaitUntil([&] { return Children(true) + Children(false) == 0; }, timeout_ms);
}

int RunServerToExit(const std::string& config, std::string* output, const char* user) {
  const pid_t pid = Spawn(config, user);
  int status = -1;
  // A server that starts serving instead is not what the caller expected.
  if (!WaitUntil([&] { return (status = Exited(pid)) >= 0; })) {
    kill(pid, SIGKILL);
    status = Exited(pid, 0);
  }
  *output = ReadFile(kOutputPath);
  return status;
}

}  // namespace kesttest
