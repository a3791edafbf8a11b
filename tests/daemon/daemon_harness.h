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
  // Extra arguments after the program name; waits until `socket` accepts.
  // False when the daemon did not come up.
  bool Start(const std::vector<std::string>& args = {}, const std::string& socket = kDaemonSocket);
};

// Sends `request` (JSON, or raw bytes with their framing when `raw`) on a
// fresh connection, from a child process acting as `user` unless "root", and
// reads the reply: messages up to and including the first one that holds
// "success" without "total", or until the daemon closes. Empty when the
// exchange failed.
std::vector<Json::Value> Exchange(const Json::Value& request, const std::string& user = "root");
std::vector<Json::Value> ExchangeRaw(const std::string& bytes);
// A child process acting as `user` that opens `count` connections to
// `socket`, sends `bytes` on each, never reads and holds them until killed.
// Returns once all are sent; its pid.
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
