// The web API server as a real process in the test sandbox, over HTTP on loopback.
#ifndef KEST_TESTS_HOST_SERVER_HARNESS_H_
#define KEST_TESTS_HOST_SERVER_HARNESS_H_

#include <json/json.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/sandbox.h"

namespace kesttest {

constexpr int kServerPort = 5000;
constexpr char kTestAPI[] = "KEST.Test.Host";
constexpr char kAccessLog[] = "/tmp/webapi-test/access.log";

using Fields = std::vector<std::pair<std::string, std::string>>;

struct HttpRequest {
  HttpRequest(std::string m = "GET", std::string t = "/webapi/entry.cgi", std::string b = "",
              std::string type = "", Fields h = {})
      : method(m), target(t), body(b), content_type(type), headers(h) {}
  std::string method, target, body, content_type;
  Fields headers;
};

struct HttpReply {
  int status = 0;  // 0: the server closed without answering
  std::string body;
  Json::Value json;                            // the body parsed, null when it is no JSON
  std::map<std::string, std::string> headers;  // by lower-case name; the last of a name
  std::string header(const std::string& n) const { return headers.count(n) ? headers.at(n) : ""; }
};

// Where this thread's connections come from (127.0.0.x plays other hosts; empty: 127.0.0.1).
void SetClientAddress(const std::string& address);
int Connect();  // -1 on failure
std::string FormEncode(const Fields& fields);
HttpReply SendHttp(const HttpRequest& request);
// GET of the entry point with `fields`, plus "_sid" when `sid` is not empty.
HttpReply CallApi(const Fields& fields, const std::string& sid = "", const Fields& headers = {});

struct LoginSession {
  std::string sid, token;
  Json::Value reply;  // the whole login answer
};
// Logs in with a form body; `sid` stays empty when the login failed.
LoginSession Login(const std::string& account, const std::string& password);

// Port, logs, no delay after a failed login, the test and real modules; then `extra`.
std::string TestConfig(const std::string& extra = "");

bool WaitUntil(const std::function<bool()>& done, int timeout_ms = 10000);  // polls every 10 ms

// The server as a child of the test, its output in a file; a test that dies takes it along.
class ServerProcess : public ChildProcess {
 public:
  // Waits until it accepts connections; fails the test when it does not.
  void Start(const std::string& config);
  // Runs it (as `user` when given) until it exits, killed if it serves instead: its exit status.
  int RunToExit(const std::string& config, const char* user = nullptr);
  int Stop();                  // SIGTERM, then waits; the exit status, or 128 + signal
  std::string Output() const;  // its stdout and stderr
  int OpenDescriptors() const;
  // Its living children (a subreaper: any living descendant), or its zombies.
  int Children(bool zombies = false) const;
  int Zombies() const { return Children(true); }
  bool WaitQuiet() const;  // until it has neither (bounded)

 private:
  void Launch(const std::string& config, const char* user);
};

}  // namespace kesttest

#endif  // KEST_TESTS_HOST_SERVER_HARNESS_H_
