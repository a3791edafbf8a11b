// Runs the real kestelasticd in the sandbox and talks to it over its real
// socket, as root or as one of the test users.
#ifndef KEST_TESTS_DAEMON_DAEMON_HARNESS_H_
#define KEST_TESTS_DAEMON_DAEMON_HARNESS_H_

#include <json/json.h>

#include <string>
#include <vector>

#include "support/fake_daemon.h"
#include "support/sandbox.h"

namespace kesttest {

constexpr const char kDaemonSocket[] = "/var/run/kestelasticd.sock";

class DaemonProcess : public ChildProcess {
 public:
  // Extra arguments after the program name; true once `socket` accepts.
  bool Start(const std::vector<std::string>& args = {}, const std::string& socket = kDaemonSocket);
};

// The reply's messages to `request` (or raw bytes, framed) on a fresh connection, as `user`
// from a child unless "root", up to "success" without "total"; empty on a failed exchange.
std::vector<Json::Value> Exchange(const Json::Value& request, const std::string& user = "root");
std::vector<Json::Value> ExchangeRaw(const std::string& bytes);
// The pid of a child process acting as `user` that sent `bytes` on `count`
// connections to `socket`, and holds them, reading nothing, until killed.
pid_t HoldConnectionsAs(const std::string& user, int count, const std::string& bytes,
                        const std::string& socket = kDaemonSocket);

Json::Value Request(const std::string& command, const Json::Value& data);
// A search request over `indice` for `keyword` with the module's fixed members.
Json::Value SearchRequest(const std::vector<std::string>& indice, const std::string& keyword,
                          int from = 0, int size = 100);
// The hits of a search reply (between the count and the end), and their
// file names, sorted.
std::vector<Json::Value> Hits(const std::vector<Json::Value>& reply);
std::vector<std::string> HitNames(const std::vector<Json::Value>& reply);

}  // namespace kesttest

#endif  // KEST_TESTS_DAEMON_DAEMON_HARNESS_H_
