#include "daemon/daemon_harness.h"

#include <arpa/inet.h>
#include <grp.h>
#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include "support/sandbox.h"

namespace kesttest {

bool DaemonProcess::Start(const std::vector<std::string>& args, const std::string& socket) {
  std::string program = std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd";
  pid_ = fork();
  if (pid_ == 0) {
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  if (pid_ < 0) return false;
  for (int i = 0; i < 500; ++i) {
    kestdaemon::DomainSockConnection conn(socket);
    if (conn.Connect(5)) return true;
    int status;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = -1;
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

int DaemonProcess::Stop() {
  if (pid_ <= 0) return -1;
  kill(pid_, SIGTERM);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return status;
}

namespace {

std::vector<Json::Value> ReadReply(kestdaemon::SockConnection& conn) {
  std::vector<Json::Value> messages;
  std::string text;
  while (conn.Recv(text)) {
    Json::Value v;
    if (!Json::fromString(v, text)) {
      messages.push_back(Json::Value("<not json>"));
      break;
    }
    messages.push_back(v);
    if (v.isObject() && v.isMember("success") && !v.isMember("total")) break;
  }
  return messages;
}

}  // namespace

std::vector<Json::Value> Exchange(const Json::Value& request) {
  kestdaemon::DomainSockConnection conn(kDaemonSocket);
  if (!conn.Connect(30) || !conn.Send(Json::toString(request))) return {};
  return ReadReply(conn);
}

std::vector<Json::Value> ExchangeRaw(const std::string& bytes) {
  kestdaemon::DomainSockConnection conn(kDaemonSocket);
  if (!conn.Connect(30)) return {};
  if (send(conn.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
      static_cast<ssize_t>(bytes.size())) {
    return {};
  }
  // Nothing more will come: a cut-short frame is now a broken one.
  shutdown(conn.fd(), SHUT_WR);
  return ReadReply(conn);
}

namespace {

// In a child: takes the uid, gid and groups of the sandbox's `user`.
void BecomeUser(const std::string& user) {
  if (user == "root") return;
  const TestUser& u = UserByName(user);
  std::vector<gid_t> groups = {u.gid};
  for (const char* g : u.groups) {
    if (struct group* gr = getgrnam(g)) groups.push_back(gr->gr_gid);
  }
  if (setgroups(groups.size(), groups.data()) != 0 || setgid(u.gid) != 0 || setuid(u.uid) != 0) {
    _exit(3);
  }
}

}  // namespace

std::vector<Json::Value> ExchangeAs(const std::string& user, const Json::Value& request) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  pid_t child = fork();
  if (child == 0) {
    close(fds[0]);
    BecomeUser(user);
    Json::Value all(Json::arrayValue);
    for (auto& m : Exchange(request)) all.append(m);
    std::string text = Json::toString(all);
    size_t off = 0;
    while (off < text.size()) {
      ssize_t n = write(fds[1], text.data() + off, text.size() - off);
      if (n <= 0) _exit(4);
      off += static_cast<size_t>(n);
    }
    _exit(0);
  }
  close(fds[1]);
  std::string text;
  char buf[65536];
  ssize_t n;
  while ((n = read(fds[0], buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(child, &status, 0);
  Json::Value all;
  std::vector<Json::Value> out;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0 || !Json::fromString(all, text)) return out;
  for (const auto& m : all) out.push_back(m);
  return out;
}

pid_t HoldConnectionsAs(const std::string& user, int count, const std::string& bytes,
                        const std::string& socket) {
  int ready[2];
  if (pipe(ready) != 0) return -1;
  pid_t child = fork();
  if (child == 0) {
    close(ready[0]);
    BecomeUser(user);
    std::vector<std::unique_ptr<kestdaemon::DomainSockConnection>> held;
    for (int i = 0; i < count; ++i) {
      held.push_back(std::make_unique<kestdaemon::DomainSockConnection>(socket));
      // Refused ones (closed by the daemon) fail here or later: no matter.
      if (held.back()->Connect(5)) {
        ssize_t n = send(held.back()->fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
        (void)n;
      }
    }
    close(ready[1]);
    for (;;) pause();
  }
  close(ready[1]);
  char c;
  ssize_t n = read(ready[0], &c, 1);  // end of file once all are sent
  (void)n;
  close(ready[0]);
  return child;
}

Json::Value Request(const std::string& command, const Json::Value& data) {
  Json::Value r(Json::objectValue);
  r["command"] = command;
  r["data"] = data;
  return r;
}

Json::Value SearchRequest(const std::vector<std::string>& indice, const std::string& keyword,
                          int from, int size) {
  Json::Value d(Json::objectValue);
  d["fields"] = Json::Value(Json::arrayValue);
  d["pre_query"]["keyword"] = keyword;
  d["pre_query"]["criteria_list"] = Json::Value(Json::arrayValue);
  d["pre_query"]["file_type"] = "";
  d["pre_query"]["search_weight_list"] = Json::Value(Json::nullValue);
  d["orig_keyword"] = keyword;
  for (const auto& i : indice) d["indice"].append(i);
  d["from"] = from;
  d["size"] = size;
  d["default_search_op"] = "AND";
  d["accurate_sum"] = false;
  for (const char* f :
       {"KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir", "KESTMDFSSize"}) {
    d["load_field"].append(f);
  }
  d["lazy_field"].append("KESTMDTextContent");
  d["collector"]["agent"] = "others";
  d["collector"]["uid"] = 0;
  d["collector"]["has_criteria"] = false;
  return Request("search", d);
}

std::vector<Json::Value> Hits(const std::vector<Json::Value>& reply) {
  std::vector<Json::Value> hits;
  for (const auto& m : reply) {
    if (m.isObject() && !m.isMember("total") && !m.isMember("success")) hits.push_back(m);
  }
  return hits;
}

std::vector<std::string> HitNames(const std::vector<Json::Value>& reply) {
  std::vector<std::string> names;
  for (const auto& h : Hits(reply)) names.push_back(h["KESTMDFSName"].asString());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kesttest
