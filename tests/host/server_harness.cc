#include "host/server_harness.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/algorithm/string.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <filesystem>
#include <thread>

#include "kest/json.h"

namespace kesttest {
namespace {

namespace fs = std::filesystem;
namespace http = boost::beast::http;

const char kConfigPath[] = "/tmp/webapi-test/server.conf";
const char kOutputPath[] = "/tmp/webapi-test/server.out";

thread_local std::string client_address;

int ExitCode(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

}  // namespace

void SetClientAddress(const std::string& address) { client_address = address; }

int Connect() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in local{}, address{};
  local.sin_family = address.sin_family = AF_INET;
  address.sin_port = htons(kServerPort);
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

std::string FormEncode(const Fields& fields) {
  std::string out;
  const char* hex = "0123456789ABCDEF";
  for (const auto& [name, value] : fields) {
    out += (out.empty() ? "" : "&") + name + "=";
    for (unsigned char c : value)
      out += isalnum(c) || (c && strchr("-_./", c)) ? std::string(1, c)
                                                    : std::string{'%', hex[c >> 4], hex[c & 15]};
  }
  return out;
}

HttpReply SendHttp(const HttpRequest& request) {
  std::string text = request.method + " " + request.target +
                     " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\nContent-Length: " +
                     std::to_string(request.body.size()) + "\r\n";
  if (!request.content_type.empty()) text += "Content-Type: " + request.content_type + "\r\n";
  for (const auto& [name, value] : request.headers) text += name + ": " + value + "\r\n";
  text += "\r\n" + request.body;
  // Everything the server sends on a fresh connection, until it closes it.
  HttpReply reply;
  const int fd = Connect();
  if (fd < 0) return reply;
  std::string received;
  char chunk[65536];
  send(fd, text.data(), text.size(), MSG_NOSIGNAL);  // a blocking socket takes it all
  for (ssize_t n; (n = recv(fd, chunk, sizeof(chunk), 0)) > 0;) received.append(chunk, n);
  close(fd);
  // Beast's parser, not a hand-written one: an answer whose framing is wrong
  // (a length that does not match its body, a broken header) stays unparsed.
  http::response_parser<http::string_body> parser;
  parser.eager(true);
  parser.body_limit(1u << 30);
  boost::beast::error_code ec;
  for (size_t used = 0; !ec && !parser.is_done() && used < received.size();)
    used += parser.put(boost::asio::buffer(received.data() + used, received.size() - used), ec);
  if (!parser.is_done()) parser.put_eof(ec);
  if (!parser.is_done()) return reply;
  reply.status = static_cast<int>(parser.get().result_int());
  reply.body = parser.get().body();
  for (const auto& field : parser.get())
    reply.headers[boost::algorithm::to_lower_copy(std::string(field.name_string()))] =
        std::string(field.value());
  if (!Json::fromString(reply.json, reply.body)) reply.json = Json::Value();
  return reply;
}

HttpReply CallApi(const Fields& fields, const std::string& sid, const Fields& headers) {
  Fields all = fields;
  if (!sid.empty()) all.emplace_back("_sid", sid);
  return SendHttp({"GET", "/webapi/entry.cgi?" + FormEncode(all), "", "", headers});
}

LoginSession Login(const std::string& account, const std::string& password) {
  const HttpReply reply = SendHttp({"POST", "/webapi/entry.cgi",
                                    "api=KEST.API.Auth&version=1&method=login&" +
                                        FormEncode({{"account", account}, {"passwd", password}}),
                                    "application/x-www-form-urlencoded; charset=UTF-8"});
  const Json::Value& data = reply.json["data"];
  return {data["sid"].asString(), data["csrf_token"].asString(), reply.json};
}

std::string TestConfig(const std::string& extra) {
  return "[server]\nport = " + std::to_string(kServerPort) + "\naccess_log = " + kAccessLog +
         "\nlogin_failure_delay_ms = 0\n[modules]\ntest = " KEST_TEST_MODULE
         "\nkestondri = " KEST_REAL_MODULE "\n" +
         extra;
}

bool WaitUntil(const std::function<bool()>& done, int timeout_ms) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

void ServerProcess::Launch(const std::string& config, const char* user) {
  WriteFile(kConfigPath, config);
  const std::string as = user ? " --reuid=" + std::to_string(UserByName(user).uid) +
                                    " --regid=" + std::to_string(UserByName(user).gid) +
                                    " --clear-groups"
                              : "";
  Run({"sh", "-c",
       "exec setpriv --pdeathsig KILL" + as + " " KEST_SERVER_BINARY " --config " + kConfigPath +
           " >" + kOutputPath + " 2>&1 </dev/null"});
}

void ServerProcess::Start(const std::string& config) {
  Launch(config, nullptr);
  const bool serving = WaitUntil([&] {
    const int fd = Connect();
    if (fd >= 0) close(fd);
    return fd >= 0 || !Running();
  });
  ASSERT_TRUE(serving && Running()) << "the server does not serve: " << Output();
}

int ServerProcess::RunToExit(const std::string& config, const char* user) {
  Launch(config, user);
  if (!WaitUntil([&] { return !Running(); })) kill(pid(), SIGKILL);
  return ExitCode(ChildProcess::Stop(true));
}

int ServerProcess::Stop() { return ExitCode(ChildProcess::Stop()); }

std::string ServerProcess::Output() const { return ReadFile(kOutputPath); }

int ServerProcess::OpenDescriptors() const {
  std::error_code ec;
  return std::distance(fs::directory_iterator("/proc/" + std::to_string(pid()) + "/fd", ec), {});
}

int ServerProcess::Children(bool zombies) const {
  return static_cast<int>(ChildrenOf(pid(), zombies).size());
}

bool ServerProcess::WaitQuiet() const {
  // The living first: one that dies between two scans is then a zombie.
  return WaitUntil([&] { return Children(false) == 0 && Children(true) == 0; });
}

}  // namespace kesttest
