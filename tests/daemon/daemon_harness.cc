#include "daemon/daemon_harness.h"

#include <kest/json.h>
#include <kestdaemon/sock_connection.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

namespace kesttest {

bool DaemonProcess::Start(const std::vector<std::string>& args, const std::string& socket) {
  std::vector<std::string> argv = {std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd"};
  argv.insert(argv.end(), args.begin(), args.end());
  Run(argv);
  for (int i = 0; i < 500 && Running(); ++i) {
    if (kestdaemon::DomainSockConnection(socket).Connect(5)) return true;
    usleep(10000);
  }
  return false;
}

// Messages up to the end of the reply; a null one for text that is not JSON.
static std::vector<Json::Value> ReadReply(kestdaemon::SockConnection& conn) {
  std::vector<Json::Value> messages;
  std::string text;
  while (conn.Recv(text)) {
    Json::Value& v = messages.emplace_back();
    if (!Json::fromString(v, text)) break;
    if (v.isObject() && v.isMember("success") && !v.isMember("total")) break;
  }
  return messages;
}

std::vector<Json::Value> Exchange(const Json::Value& request, const std::string& user) {
  if (user != "root") {
    const Json::Value all = ParseJson(InChildAs(user, [&request] {
      Json::Value all(Json::arrayValue);
      for (auto& m : Exchange(request)) all.append(m);
      return Json::toString(all);
    }));
    return std::vector<Json::Value>(all.begin(), all.end());
  }
  kestdaemon::DomainSockConnection conn(kDaemonSocket);
  if (!conn.Connect(30) || !conn.Send(Json::toString(request))) return {};
  return ReadReply(conn);
}

std::vector<Json::Value> ExchangeRaw(const std::string& bytes) {
  kestdaemon::DomainSockConnection conn(kDaemonSocket);
  if (!conn.Connect(30) || send(conn.fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL) !=
                               static_cast<ssize_t>(bytes.size())) {
    return {};
  }
  // Nothing more will come: a cut-short frame is now a broken one.
  shutdown(conn.fd(), SHUT_WR);
  return ReadReply(conn);
}

pid_t HoldConnectionsAs(const std::string& user, int count, const std::string& bytes,
                        const std::string& socket) {
  pid_t pid = -1;
  // Leaked on purpose, held until killed; refused ones fail here or later.
  const auto hold = [&] {
    for (int i = 0; i < count; ++i) {
      auto* conn = new kestdaemon::DomainSockConnection(socket);
      if (conn->Connect(5)) (void)!send(conn->fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    return std::string();
  };
  InChildAs(user, hold, &pid);
  return pid;
}

Json::Value Request(const std::string& command, const Json::Value& data) {
  Json::Value r(Json::objectValue);
  r["command"] = command;
  r["data"] = data;
  return r;
}

Json::Value SearchRequest(const std::vector<std::string>& indice, const std::string& keyword,
                          int from, int size) {
  Json::Value d;
  Json::fromString(d, R"({"fields": [], "pre_query": {"criteria_list": [], "file_type": "",
      "search_weight_list": null}, "default_search_op": "AND", "accurate_sum": false,
      "load_field": ["KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir",
                     "KESTMDFSSize"], "lazy_field": ["KESTMDTextContent"],
      "collector": {"agent": "others", "uid": 0, "has_criteria": false}})");
  d["pre_query"]["keyword"] = keyword;
  d["orig_keyword"] = keyword;
  for (const auto& i : indice) d["indice"].append(i);
  d["from"] = from;
  d["size"] = size;
  return Request("search", d);
}

std::vector<Json::Value> Hits(const std::vector<Json::Value>& reply) {
  if (reply.size() < 2) return {};
  return std::vector<Json::Value>(reply.begin() + 1, reply.end() - 1);
}

std::vector<std::string> HitNames(const std::vector<Json::Value>& reply) {
  std::vector<std::string> names;
  for (const auto& h : Hits(reply)) names.push_back(h["KESTMDFSName"].asString());
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kesttest
