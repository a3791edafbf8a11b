#include "host/server_harness.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstring>
#include <map>
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

struct ProcInfo {
  pid_t pid;
  pid_t ppid;
  char state;
};

std::vector<ProcInfo> Processes() {
  std::vector<ProcInfo> all;
  DIR* dir = opendir("/proc");
  while (struct dirent* entry = readdir(dir)) {
    const pid_t pid = atoi(entry->d_name);
    if (pid <= 0) continue;
    const std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    const auto paren = stat.rfind(')');
    if (paren == std::string::npos) continue;
    ProcInfo info{pid, 0, 0};
    if (sscanf(stat.c_str() + paren + 1, " %c %d", &info.state, &info.ppid) == 2) {
      all.push_back(info);
    }
  }
  closedir(dir);
  return all;
}

thread_local std::string client_address;

int Connect(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (!client_address.empty()) {
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, client_address.c_str(), &local.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
      close(fd);
      return -1;
    }
  }
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    close(fd);
    return -1;
  }
  timeval timeout{90, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  return fd;
}

bool WriteAll(int fd, const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    const ssize_t n = send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
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
        if (isalnum(c) || c == '-' || c == '_' || c == '.' || c == '~' || c == '/') {
          out.push_back(static_cast<char>(c));
        } else {
          out.push_back('%');
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 0xf]);
        }
      }
      if (part == &name) out += '=';
    }
  }
  return out;
}

HttpReply SendHttp(const HttpRequest& request, int port) {
  HttpReply reply;
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

  const int fd = Connect(port);
  if (fd < 0) return reply;
  if (!WriteAll(fd, text.str())) {
    close(fd);
    return reply;
  }
  http::response_parser<http::string_body> parser;
  parser.body_limit(1u << 30);
  std::string pending;
  char chunk[65536];
  beast::error_code ec;
  while (!parser.is_done()) {
    const ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0) {
      parser.put_eof(ec);
      break;
    }
    pending.append(chunk, static_cast<size_t>(n));
    while (!pending.empty() && !parser.is_done()) {
      const size_t used = parser.put(boost::asio::buffer(pending), ec);
      pending.erase(0, used);
      if (ec == http::error::need_more) {
        ec = {};
        break;
      }
      if (ec) break;
    }
    if (ec) break;
  }
  close(fd);
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
  if (fd < 0) return "";
  timeval timeout{5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  WriteAll(fd, bytes);
  std::string received;
  char chunk[4096];
  for (;;) {
    const ssize_t n = recv(fd, chunk, sizeof(chunk), 0);
    if (n <= 0) break;
    received.append(chunk, static_cast<size_t>(n));
  }
  close(fd);
  return received;
}

int OpenConnection(int port) { return Connect(port); }

HttpReply CallApi(const Fields& fields, const std::string& sid) {
  Fields all = fields;
  if (!sid.empty()) all.emplace_back("_sid", sid);
  HttpRequest request;
  request.target = "/webapi/entry.cgi?" + FormEncode(all);
  return SendHttp(request);
}

LoginSession Login(const std::string& account, const std::string& password) {
  LoginSession session;
  HttpRequest request;
  request.method = "POST";
  request.content_type = "application/x-www-form-urlencoded";
  request.body = FormEncode({{"api", "KEST.API.Auth"},
                             {"version", "1"},
                             {"method", "login"},
                             {"account", account},
                             {"passwd", password}});
  const HttpReply reply = SendHttp(request);
  session.reply = reply.json;
  if (reply.json["success"].asBool()) {
    session.sid = reply.json["data"]["sid"].asString();
    session.token = reply.json["data"]["csrf_token"].asString();
    if (!reply.set_cookies.empty()) session.cookie = reply.set_cookies[0];
  }
  return session;
}

std::string TestModulePath() { return KEST_TEST_MODULE; }
std::string RealModulePath() { return KEST_REAL_MODULE; }
std::string BadTableModulePath() { return KEST_BAD_TABLE_MODULE; }
std::string NoExportsModulePath() { return KEST_NO_EXPORTS_MODULE; }

std::string TestConfig(const std::string& extra) {
  return std::string("[server]\n") + "port = " + std::to_string(kServerPort) + "\n" +
         "access_log = " + kAccessLog + "\n" +
         "login_failure_delay_ms = 0\n"
         "[modules]\n"
         "test = " +
         TestModulePath() + "\n" + "kestondri = " + RealModulePath() + "\n" + extra;
}

ServerProcess::~ServerProcess() {
  if (pid_ > 0) Stop();
}

void ServerProcess::Start(const std::string& config) {
  WriteFile(kConfigPath, config);
  unlink(kOutputPath);
  pid_ = fork();
  if (pid_ == 0) {
    // A test that dies must not leave a server behind.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int out = open(kOutputPath, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(out, 1);
    dup2(out, 2);
    const int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    execl(KEST_SERVER_BINARY, KEST_SERVER_BINARY, "--config", kConfigPath,
          static_cast<char*>(nullptr));
    _exit(127);
  }
  for (int i = 0; i < 1000; ++i) {
    const int fd = Connect(kServerPort);
    if (fd >= 0) {
      close(fd);
      return;
    }
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      FAIL() << "the server exited at start: " << Output();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  FAIL() << "the server does not accept connections: " << Output();
}

int ServerProcess::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string ServerProcess::Output() const { return ReadFile(kOutputPath); }

int ServerProcess::OpenDescriptors() const {
  int count = 0;
  DIR* dir = opendir(("/proc/" + std::to_string(pid_) + "/fd").c_str());
  if (!dir) return -1;
  while (struct dirent* entry = readdir(dir)) count += entry->d_name[0] != '.';
  closedir(dir);
  return count;
}

int ServerProcess::Zombies() const {
  int count = 0;
  for (const auto& p : Processes()) count += p.ppid == pid_ && p.state == 'Z';
  return count;
}

std::vector<pid_t> ServerProcess::Descendants() const {
  const auto all = Processes();
  std::vector<pid_t> found;
  std::vector<pid_t> parents = {pid_};
  while (!parents.empty()) {
    const pid_t parent = parents.back();
    parents.pop_back();
    for (const auto& p : all) {
      if (p.ppid == parent && p.state != 'Z') {
        found.push_back(p.pid);
        parents.push_back(p.pid);
      }
    }
  }
  return found;
}

bool ServerProcess::WaitQuiet(int timeout_ms) const {
  for (int waited = 0; waited < timeout_ms; waited += 20) {
    if (Zombies() == 0 && Descendants().empty()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

ExitResult RunServerToExit(const std::string& config, uid_t uid) {
  WriteFile(kConfigPath, config);
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(fds[1], 1);
    dup2(fds[1], 2);
    close(fds[0]);
    if (uid != 0) {
      const TestUser* user = nullptr;
      for (const auto& u : TestUsers()) user = u.uid == uid ? &u : user;
      if (!user || setgid(user->gid) != 0 || setuid(uid) != 0) _exit(126);
    }
    execl(KEST_SERVER_BINARY, KEST_SERVER_BINARY, "--config", kConfigPath,
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  ExitResult result;
  std::string output;
  char chunk[4096];
  for (;;) {
    pollfd ready{fds[0], POLLIN, 0};
    if (poll(&ready, 1, 10000) <= 0) {
      kill(pid, SIGKILL);  // it started serving: not what the caller expected
      break;
    }
    const ssize_t n = read(fds[0], chunk, sizeof(chunk));
    if (n <= 0) break;
    output.append(chunk, static_cast<size_t>(n));
  }
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.output = output;
  return result;
}

}  // namespace kesttest
