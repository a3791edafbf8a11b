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

// Sends `request` on a fresh connection, from a child process acting as
// `user` unless "root", and reads the reply: messages up to and including
// the first one that holds "success" without "total", or until the daemon
// closes. An empty vector when the exchange failed.
std::vector<Json::Value> Exchange(const Json::Value& request, const std::string& user = "root");
// Sends raw bytes (framing included), no more, and returns the reply.
std::vector<Json::Value> ExchangeRaw(const std::string& bytes);
// A child process acting as `user` that opens `count` connections to
// `socket`, sends `bytes` on each, never reads and holds them until killed.
// Returns once all are sent; its pid.
pid_t HoldConnectionsAs(const std::string& user, int count, const std::string& bytes,
                        const std::string& socket = kDaemonSocket);

// Builds {"command": command, "data": data}.
Json::Value Request(const std::string& command, const Json::Value& data);
// A search request over `indice` for `keyword` with the module's fixed members.
Json::Value SearchRequest(const std::vector<std::string>& indice, const std::string& keyword,
                          int from = 0, int size = 100);
// Hits of a search reply (messages between the count and the end).
std::vector<Json::Value> Hits(const std::vector<Json::Value>& reply);
// The file names of the hits, sorted.
std::vector<std::string> HitNames(const std::vector<Json::Value>& reply);

}  // namespace kesttest

#endif  // KEST_TESTS_DAEMON_DAEMON_HARNESS_H_
