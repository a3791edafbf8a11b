// The web API server end to end: a real server process, real HTTP on
// loopback, PAM logins of the sandbox's users, the test module and the real
// module.
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "host/server_harness.h"
#include "kest/json.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

constexpr char kFolderAPI[] = "KEST.Ondri.FileIndexing.Folder";

Fields Route(const std::string& api, const std::string& method, const std::string& version = "1") {
  return {{"api", api}, {"method", method}, {"version", version}};
}

Fields TestCall(const std::string& method, Fields extra = {}) {
  Fields fields = Route(kTestAPI, method);
  fields.insert(fields.end(), extra.begin(), extra.end());
  return fields;
}

int ErrorCode(const HttpReply& reply) {
  if (!reply.json.isObject() || reply.json["success"].asBool()) return 0;
  return reply.json["error"]["code"].asInt();
}

class ServerTest : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile("/etc/pam.d/kestondri",
              ReadFile(std::string(KEST_SOURCE_DIR) + "/host/dist/kestondri.pam"));
    unlink(kAccessLog);
    SyslogCapture::Instance().Clear();
    server_.Start(TestConfig(ExtraConfig()));
  }

  void TearDown() override {
    SetClientAddress("");
    if (HasFailure()) {
      for (const auto& line : SyslogCapture::Instance().Lines())
        printf("syslog: %s\n", line.text.c_str());
      printf("server output: %s\n", server_.Output().c_str());
    }
    if (server_.pid() > 0) {
      EXPECT_TRUE(server_.WaitQuiet()) << "descendants left behind";
      EXPECT_EQ(server_.Stop(), 0) << server_.Output();
    }
    BecomeRoot();
  }

  virtual std::string ExtraConfig() { return ""; }

  ServerProcess server_;
};

// ---------------------------------------------------------------------------
// Routing, answers and the server's own codes.

TEST_F(ServerTest, ServerCodesForRequestsThatReachNoHandler) {
  const LoginSession ann = Login("ann", "ann-secret");
  ASSERT_FALSE(ann.sid.empty()) << ann.reply;
  struct Case {
    Fields fields;
    int code;
  } cases[] = {
      {{{"method", "echo"}, {"version", "1"}}, 101},
      {{{"api", kTestAPI}, {"version", "1"}}, 101},
      {{{"api", kTestAPI}, {"method", "echo"}}, 101},
      {Route("KEST.Test.Nothing", "echo"), 102},
      {Route(kTestAPI, "nothing"), 103},
      {Route(kTestAPI, "echo", "3"), 104},
      {Route(kTestAPI, "echo", "abc"), 104},
      {Route(kTestAPI, "echo", "-1"), 104},
      {Route("KEST.API.Auth", "nothing"), 103},
      {Route("KEST.API.Auth", "login", "2"), 104},
      // Checked, but served by no module: the checker answers first.
      {Route("KEST.Test.CheckedOnly", "run"), 120},
      {Route("KEST.Test.CheckedOnly", "pass"), 103},
  };
  for (const auto& c : cases) {
    const HttpReply reply = CallApi(c.fields, ann.sid);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.json["success"], false) << reply.body;
    EXPECT_EQ(ErrorCode(reply), c.code) << FormEncode(c.fields) << " -> " << reply.body;
  }
  // A handler in another version of the same method is its own route.
  EXPECT_EQ(CallApi(TestCall("echo", {{"version", "2"}}), ann.sid).json["success"], true);
}

TEST_F(ServerTest, ModuleAnswersPassThroughWithTheirData) {
  const LoginSession ann = Login("ann", "ann-secret");
  struct Case {
    Fields fields;
    const char* answer;
  } cases[] = {
      {TestCall("fail", {{"code", "507"}}), R"({"success":false,"error":{"code":507}})"},
      {TestCall("fail", {{"code", "800"}, {"data", R"({"why":"x"})"}}),
       R"({"success":false,"error":{"code":800,"errors":{"why":"x"}}})"},
      {TestCall("checked"),
       R"({"success":false,"error":{"code":120,"errors":{"name":"x","reason":"required"}}})"},
      {TestCall("checked", {{"x", "\"text\""}}),
       R"({"success":false,"error":{"code":120,"errors":{"name":"x","reason":"required"}}})"},
      {TestCall("throw"), R"({"success":false,"error":{"code":117}})"},
      {TestCall("sleep", {{"seconds", "0"}}), R"({"success":true,"data":"slept"})"},
  };
  for (const auto& c : cases) {
    Json::Value expected;
    ASSERT_TRUE(Json::fromString(expected, c.answer));
    const HttpReply reply = CallApi(c.fields, ann.sid);
    EXPECT_EQ(reply.json, expected) << FormEncode(c.fields);
    EXPECT_EQ(reply.content_type, "application/json; charset=utf-8");
  }
}

TEST_F(ServerTest, RealModuleCheckersAnswerWithTheirData) {
  const LoginSession carol = Login("carol", "carol-secret");
  struct Case {
    Fields fields;
    const char* name;
    const char* reason;
  } cases[] = {
      {Route(kFolderAPI, "get"), "path", "required"},
      {{{"api", kFolderAPI}, {"method", "get"}, {"version", "1"}, {"path", "12"}}, "path", "type"},
  };
  for (const auto& c : cases) {
    const HttpReply reply = CallApi(c.fields, carol.sid);
    EXPECT_EQ(ErrorCode(reply), 120) << reply.body;
    const Json::Value& errors = reply.json["error"]["errors"];
    EXPECT_EQ(errors["name"], c.name) << reply.body;
    EXPECT_TRUE(errors["reason"].isString()) << reply.body;
  }
}

// The real handlers through the server: each request forks its worker, the
// worker acts as the login user, and the module forks its own child.
TEST_F(ServerTest, RealModuleServesFoldersAndStatus) {
  WriteFile("/etc/kest/shares.conf", "[photo]\npath = /volume1/photo\n");
  WriteFile("/volume1/photo/trips/keep", "");
  WriteFile("/volume1/photo/cats/keep", "");
  const LoginSession ann = Login("ann", "ann-secret");
  HttpRequest add;
  add.method = "POST";
  add.content_type = "application/json";
  add.body = R"({"api": "KEST.Ondri.FileIndexing.Folder", "method": "add", "version": 1,
                 "folder": [{"path": "/volume1/photo/trips"}, {"path": "/volume1/photo/cats"}],
                 "_sid": ")" +
             ann.sid + "\"}";
  const HttpReply added = SendHttp(add);
  EXPECT_EQ(added.json["success"], true) << added.body;
  const HttpReply list = CallApi(Route(kFolderAPI, "list"), ann.sid);
  EXPECT_EQ(list.json["data"]["total"], 2) << list.body;
  const HttpReply status = CallApi(Route("KEST.Ondri.FileIndexing.Status", "get"), ann.sid);
  EXPECT_EQ(status.json["success"], true) << status.body;
  EXPECT_TRUE(status.json["data"].isObject()) << status.body;
  system("rm -rf /var/packages/KestOndri /volume1/photo /etc/kest/shares.conf");
}

TEST_F(ServerTest, ParametersArriveDecodedFromEveryEncoding) {
  const LoginSession ann = Login("ann", "ann-secret");
  const char* expected_text =
      R"({"limit":10,"path":"/photo","flag":true,"list":[1,"a"],"text":"a b"})";
  Json::Value expected;
  ASSERT_TRUE(Json::fromString(expected, expected_text));
  const Fields params = {{"limit", "10"},
                         {"path", "/photo"},
                         {"flag", "true"},
                         {"list", R"([1,"a"])"},
                         {"text", "a b"}};

  Fields all = TestCall("echo", params);
  const HttpReply by_query = CallApi(all, ann.sid);
  EXPECT_EQ(by_query.json["data"]["params"], expected) << by_query.body;

  all.emplace_back("_sid", ann.sid);
  HttpRequest form;
  form.method = "POST";
  form.content_type = "application/x-www-form-urlencoded; charset=UTF-8";
  form.body = FormEncode(all);
  EXPECT_EQ(SendHttp(form).json["data"]["params"], expected);

  HttpRequest json;
  json.method = "POST";
  json.content_type = "application/json";
  Json::Value body = expected;
  body["api"] = kTestAPI;
  body["method"] = "echo";
  body["version"] = 1;
  body["_sid"] = ann.sid;
  json.body = Json::toString(body);
  const HttpReply by_json = SendHttp(json);
  EXPECT_EQ(by_json.json["data"]["params"], expected) << by_json.body;
}

TEST_F(ServerTest, RequestCarriesTheLoginUserAndAWorkerStartsClean) {
  struct Case {
    const char* user;
    const char* password;
    bool admin;
  } cases[] = {{"ann", "ann-secret", false}, {"carol", "carol-secret", true}};
  for (const auto& c : cases) {
    const LoginSession session = Login(c.user, c.password);
    ASSERT_FALSE(session.sid.empty());
    std::set<int> pids;
    for (int i = 0; i < 3; ++i) {
      const Json::Value data = CallApi(TestCall("echo"), session.sid).json["data"];
      EXPECT_EQ(data["user"], c.user);
      EXPECT_EQ(data["uid"].asUInt(), UserByName(c.user).uid);
      EXPECT_EQ(data["sid"], session.sid);
      EXPECT_EQ(data["is_admin"], c.admin);
      // The previous request switched to the user; this one starts as root.
      EXPECT_EQ(data["euid"].asUInt(), 0u);
      // Only the standard three and the answer pipe.
      EXPECT_EQ(data["fds"].size(), 4u) << data["fds"];
      pids.insert(data["pid"].asInt());
    }
    EXPECT_EQ(pids.size(), 3u) << "one process per request";
  }
}

class AdminRecheckServerTest : public ServerTest {
  std::string ExtraConfig() override { return "[server]\nadmin_recheck_interval = 0\n"; }
};

TEST_F(AdminRecheckServerTest, AdministratorFlagFollowsGroupMembership) {
  const LoginSession dave = Login("dave", "dave-secret");
  EXPECT_EQ(dave.reply["data"]["is_admin"], false);
  EXPECT_EQ(CallApi(TestCall("echo"), dave.sid).json["data"]["is_admin"], false);
  const std::string groups = ReadFile("/etc/group");
  std::string promoted = groups;
  const auto at = promoted.find("administrators:x:2200:carol");
  ASSERT_NE(at, std::string::npos) << groups;
  promoted.insert(at + strlen("administrators:x:2200:carol"), ",dave");
  WriteFile("/etc/group", promoted);
  const Json::Value data = CallApi(TestCall("echo"), dave.sid).json["data"];
  WriteFile("/etc/group", groups);
  EXPECT_EQ(data["is_admin"], true);
  EXPECT_EQ(CallApi(TestCall("echo"), dave.sid).json["data"]["is_admin"], false);
}

// ---------------------------------------------------------------------------
// Login, sessions and the CSRF rule.

TEST_F(ServerTest, LoginChecksThePasswordWithPam) {
  struct Case {
    const char* account;
    const char* password;
    int code;  // 0: success
  } cases[] = {
      {"ann", "ann-secret", 0},  {"carol", "carol-secret", 0},
      {"ann", "wrong", 112},     {"ann", "ann-secret\x01", 112},
      {"nobody-here", "x", 112}, {"KestOndri", "x", 112},  // the service account has no password
      {"root", "x", 112},
  };
  for (const auto& c : cases) {
    const LoginSession session = Login(c.account, c.password);
    if (c.code == 0) {
      ASSERT_FALSE(session.sid.empty()) << c.account << ": " << session.reply;
      EXPECT_EQ(session.sid.size(), 64u);
      EXPECT_EQ(session.token.size(), 64u);
      EXPECT_EQ(session.reply["data"]["account"], c.account);
      EXPECT_EQ(session.cookie, "kest_sid=" + session.sid + "; Path=/; HttpOnly; SameSite=Strict");
    } else {
      EXPECT_EQ(session.reply["error"]["code"].asInt(), c.code) << c.account << session.reply;
      EXPECT_FALSE(session.reply.isMember("data"));
    }
  }
}

TEST_F(ServerTest, LoginParametersAreChecked) {
  struct Case {
    Fields fields;
    const char* name;
  } cases[] = {
      {{{"passwd", "x"}}, "account"},
      {{{"account", "ann"}}, "passwd"},
      {{{"account", "12"}, {"passwd", "x"}}, "account"},
      {{{"account", "ann"}, {"passwd", "a%00b"}}, "passwd"},
      {{{"account", "a\nb"}, {"passwd", "x"}}, "account"},
  };
  for (const auto& c : cases) {
    Fields fields = Route("KEST.API.Auth", "login");
    fields.insert(fields.end(), c.fields.begin(), c.fields.end());
    // FormEncode would encode the '%' of "a%00b"; send that one as written.
    HttpRequest request;
    request.target = "/webapi/entry.cgi?" + FormEncode(fields);
    const auto raw = request.target.find("a%2500b");
    if (raw != std::string::npos) request.target.replace(raw, 7, "a%00b");
    const HttpReply reply = SendHttp(request);
    EXPECT_EQ(ErrorCode(reply), 115) << request.target << " " << reply.body;
    EXPECT_EQ(reply.json["error"]["errors"]["name"], c.name);
  }
}

TEST_F(ServerTest, CallsWithoutALiveSessionAreRefused) {
  const LoginSession ann = Login("ann", "ann-secret");
  for (const std::string& sid :
       {std::string(""), std::string("nonsense"), std::string(64, '0'), ann.token}) {
    EXPECT_EQ(ErrorCode(CallApi(TestCall("echo"), sid)), 106) << sid;
  }
  // Logout ends the session for every way of sending it.
  const HttpReply out = CallApi(Route("KEST.API.Auth", "logout"), ann.sid);
  EXPECT_EQ(out.json["success"], true) << out.body;
  ASSERT_EQ(out.set_cookies.size(), 1u);
  EXPECT_NE(out.set_cookies[0].find("Max-Age=0"), std::string::npos);
  EXPECT_EQ(ErrorCode(CallApi(TestCall("echo"), ann.sid)), 106);
  EXPECT_EQ(ErrorCode(CallApi(Route("KEST.API.Auth", "logout"), ann.sid)), 106);
}

TEST_F(ServerTest, CookieSessionsNeedTheCsrfToken) {
  const LoginSession ann = Login("ann", "ann-secret");
  const LoginSession bob = Login("bob", "bob-secret");
  struct Case {
    std::string token;
    int code;
  } cases[] = {{"", 108}, {"wrong", 108}, {bob.token, 108}, {ann.sid, 108}, {ann.token, 0}};
  for (const auto& c : cases) {
    HttpRequest request;
    request.target = "/webapi/entry.cgi?" + FormEncode(TestCall("echo"));
    request.headers = {{"Cookie", "other=1; kest_sid=" + ann.sid}};
    if (!c.token.empty()) request.headers.emplace_back(kTokenHeader, c.token);
    const HttpReply reply = SendHttp(request);
    EXPECT_EQ(ErrorCode(reply), c.code) << reply.body;
    if (c.code == 0) {
      EXPECT_EQ(reply.json["data"]["user"], "ann");
    }
  }
}

class ShortSessionServerTest : public ServerTest {
  std::string ExtraConfig() override {
    return "[server]\nsession_idle_timeout = 1\nlogin_max_failures = 3\n"
           "login_max_failures_address = 5\nlogin_max_failures_account = 4\n";
  }
};

TEST_F(ShortSessionServerTest, IdleSessionsExpire) {
  const LoginSession ann = Login("ann", "ann-secret");
  ASSERT_EQ(CallApi(TestCall("echo"), ann.sid).json["success"], true);
  std::this_thread::sleep_for(std::chrono::milliseconds(2500));
  EXPECT_EQ(ErrorCode(CallApi(TestCall("echo"), ann.sid)), 106);
}

TEST_F(ShortSessionServerTest, FailedLoginsLockTheGuessingAddressNotTheOwner) {
  struct Case {
    const char* from;
    const char* account;
    const char* password;
    int code;  // 0: signed in
  } cases[] = {
      {"127.0.0.1", "ann", "ann-secret", 0},  // where ann signs in
      {"127.0.0.2", "ann", "wrong", 112},
      {"127.0.0.2", "ann", "wrong", 112},
      {"127.0.0.2", "ann", "wrong", 112},
      {"127.0.0.2", "ann", "ann-secret", 113},  // not even tried
      {"127.0.0.3", "ann", "ann-secret", 0},    // the owner elsewhere still may
      {"127.0.0.2", "bob", "wrong", 112},
      {"127.0.0.2", "bob", "bob-secret", 0},
      {"127.0.0.2", "dave", "wrong", 112},
      {"127.0.0.2", "dave", "dave-secret", 113},  // the address tried too many
      {"127.0.0.2", "bob", "bob-secret", 0},      // but bob signed in there
      {"127.0.0.4", "ann", "wrong", 112},
      {"127.0.0.5", "ann", "ann-secret", 113},  // guessed from many addresses
      {"127.0.0.1", "ann", "ann-secret", 0},    // yet ann signs in where she did
      {"127.0.0.3", "ann", "ann-secret", 0},
  };
  for (const auto& c : cases) {
    SetClientAddress(c.from);
    const LoginSession session = Login(c.account, c.password);
    EXPECT_EQ(session.reply["error"]["code"].asInt(), c.code)
        << c.account << " from " << c.from << ": " << session.reply;
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("too many failures"));
}

// ---------------------------------------------------------------------------
// Workers: crashes, kills, time-outs, children, concurrency.

class WorkerServerTest : public ServerTest {
  std::string ExtraConfig() override {
    return "[server]\nrequest_timeout = 2\nmax_workers = 8\nmax_queue = 400\n"
           "max_requests_per_user = 200\n";
  }
};

TEST_F(WorkerServerTest, CrashedWorkerAnswersItsClient) {
  const LoginSession ann = Login("ann", "ann-secret");
  const HttpReply reply = CallApi(TestCall("crash"), ann.sid);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(ErrorCode(reply), 111) << reply.body;
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("was ended by signal 6 before answering"));
  EXPECT_EQ(CallApi(TestCall("echo"), ann.sid).json["success"], true);
}

TEST_F(WorkerServerTest, WorkerPastTheTimeOutIsKilledAndAnswered) {
  const LoginSession ann = Login("ann", "ann-secret");
  const HttpReply reply = CallApi(TestCall("sleep", {{"seconds", "60"}}), ann.sid);
  EXPECT_EQ(ErrorCode(reply), 110) << reply.body;
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("ran past 2 s; killing it"));
  EXPECT_TRUE(server_.WaitQuiet());
}

TEST_F(WorkerServerTest, WorkerKilledByANewerQueryStillAnswers) {
  const LoginSession ann = Login("ann", "ann-secret");
  HttpReply older;
  std::thread first([&] {
    older = CallApi(TestCall("query", {{"id", "q1"}, {"seconds", "30"}}), ann.sid);
  });
  for (int i = 0; i < 500 && access("/tmp/test_query_q1.pid", F_OK) != 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const HttpReply newer = CallApi(TestCall("query", {{"id", "q1"}}), ann.sid);
  first.join();
  EXPECT_EQ(newer.json["success"], true) << newer.body;
  EXPECT_EQ(ErrorCode(older), 111) << older.body;
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("was ended by signal 9"));
}

TEST_F(WorkerServerTest, ChildrenHoldingThePipeNeitherDelayNorPileUp) {
  const LoginSession ann = Login("ann", "ann-secret");
  // The child sleeps far beyond the time-out: the answer must not wait for
  // it, and the time-out must not fire for an answered request.
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(CallApi(TestCall("fork", {{"seconds", "3"}}), ann.sid).json["data"], "forked");
  }
  EXPECT_FALSE(server_.Descendants().empty());
  EXPECT_TRUE(server_.WaitQuiet());
  EXPECT_EQ(server_.Zombies(), 0);
  EXPECT_TRUE(SyslogCapture::Instance().Matching("killing it").empty());
}

TEST_F(WorkerServerTest, LargeAnswersArriveWhole) {
  const LoginSession ann = Login("ann", "ann-secret");
  for (int size : {0, 65535, 65536 * 4 + 7, 8 << 20}) {
    const HttpReply reply = CallApi(TestCall("big", {{"size", std::to_string(size)}}), ann.sid);
    ASSERT_TRUE(reply.json["data"].isString()) << size;
    EXPECT_EQ(reply.json["data"].asString().size(), static_cast<size_t>(size));
  }
}

TEST_F(WorkerServerTest, ManyConcurrentRequestsAreAllAnsweredWithoutLeaks) {
  const LoginSession ann = Login("ann", "ann-secret");
  const LoginSession carol = Login("carol", "carol-secret");
  CallApi(TestCall("echo"), ann.sid);
  ASSERT_TRUE(server_.WaitQuiet());
  const int fds_before = server_.OpenDescriptors();

  constexpr int kClients = 200;
  std::vector<HttpReply> replies(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      const LoginSession& who = i % 2 ? carol : ann;
      Fields fields = i % 10 == 0 ? TestCall("fork", {{"seconds", "0"}})
                                  : TestCall("echo", {{"n", std::to_string(i)}});
      replies[i] = CallApi(fields, who.sid);
    });
  }
  for (auto& t : clients) t.join();
  for (int i = 0; i < kClients; ++i) {
    ASSERT_EQ(replies[i].json["success"], true) << i << ": " << replies[i].body;
    if (i % 10 != 0) {
      EXPECT_EQ(replies[i].json["data"]["params"]["n"].asInt(), i);
      EXPECT_EQ(replies[i].json["data"]["user"], i % 2 ? "carol" : "ann");
    }
  }
  // Crashes and time-outs must not leak either.
  EXPECT_EQ(ErrorCode(CallApi(TestCall("crash"), ann.sid)), 111);
  EXPECT_EQ(ErrorCode(CallApi(TestCall("sleep", {{"seconds", "10"}}), ann.sid)), 110);
  EXPECT_TRUE(server_.WaitQuiet());
  EXPECT_EQ(server_.Zombies(), 0);
  EXPECT_EQ(server_.OpenDescriptors(), fds_before);
}

class BusyServerTest : public ServerTest {
  std::string ExtraConfig() override { return "[server]\nmax_workers = 1\nmax_queue = 1\n"; }
};

TEST_F(BusyServerTest, ExcessRequestsWaitThenGetTooBusy) {
  const LoginSession ann = Login("ann", "ann-secret");
  // The login worker may still be on its way out; the sleeper must be the
  // only descendant we see below.
  for (int i = 0; i < 500 && !server_.Descendants().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  HttpReply running;
  std::thread first([&] { running = CallApi(TestCall("sleep", {{"seconds", "3"}}), ann.sid); });
  for (int i = 0; i < 500 && server_.Descendants().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_FALSE(server_.Descendants().empty());
  HttpReply second, third;
  std::thread t2([&] { second = CallApi(TestCall("echo"), ann.sid); });
  std::thread t3([&] { third = CallApi(TestCall("echo"), ann.sid); });
  t2.join();
  t3.join();
  first.join();
  EXPECT_EQ(running.json["success"], true);
  // One waited in the queue and was served, the other found it full.
  EXPECT_EQ(ErrorCode(second) + ErrorCode(third), 107) << second.body << third.body;
}

// ---------------------------------------------------------------------------
// Bad input.

class LimitsServerTest : public ServerTest {
  std::string ExtraConfig() override {
    return "[server]\nmax_body_size = 4096\nmax_header_size = 2048\nclient_timeout = 2\n"
           "max_connections = 200\nmax_connections_per_address = 60\n"
           "max_sessions = 8\nmax_sessions_per_user = 3\nmax_requests_per_user = 2\n";
  }
};

TEST_F(LimitsServerTest, BadRequestsGetClearErrors) {
  const LoginSession ann = Login("ann", "ann-secret");
  struct Case {
    HttpRequest request;
    int status;
    int code;
  } cases[] = {
      {{"GET", "/webapi/entry.cgi?api=%zz&method=echo&version=1", "", "", {}}, 400, 105},
      {{"GET", "/webapi/entry.cgi?api=x%", "", "", {}}, 400, 105},
      {{"POST", "/webapi/entry.cgi", "{\"api\":", "application/json", {}}, 400, 105},
      {{"POST", "/webapi/entry.cgi", "[1,2]", "application/json", {}}, 400, 105},
      {{"POST", "/webapi/entry.cgi", "api=x", "text/plain", {}}, 415, 105},
      {{"POST", "/webapi/entry.cgi", std::string(5000, 'a'), "text/plain", {}}, 413, 109},
      {{"GET", "/webapi/entry.cgi", "", "", {{"X-Big", std::string(3000, 'h')}}}, 431, 109},
      {{"PUT", "/webapi/entry.cgi", "", "", {}}, 405, 105},
      {{"GET", "/elsewhere", "", "", {}}, 404, 105},
  };
  for (const auto& c : cases) {
    const HttpReply reply = SendHttp(c.request);
    EXPECT_EQ(reply.status, c.status) << c.request.method << " " << c.request.target;
    EXPECT_EQ(ErrorCode(reply), c.code) << reply.body;
  }
  // Unknown parameters are no fault: they reach the handler, which decides.
  const HttpReply extra = CallApi(TestCall("echo", {{"unknown", "1"}}), ann.sid);
  EXPECT_EQ(extra.json["data"]["params"]["unknown"], 1);
  // Garbage that is no HTTP at all.
  const std::string garbage = SendRaw(std::string("\x16\x03\x01\x02\x00\x01\x00", 7) + "\r\n\r\n");
  EXPECT_TRUE(garbage.empty() || garbage.rfind("HTTP/1.1 400", 0) == 0) << garbage;
  EXPECT_EQ(CallApi(TestCall("echo"), ann.sid).json["success"], true);
}

TEST_F(LimitsServerTest, FloodsOfConnectionsShutNoOtherClientOut) {
  const LoginSession ann = Login("ann", "ann-secret");
  struct Case {
    int addresses;
    int each;  // idle connections from each; every third one sends half a request
  } cases[] = {{1, 250}, {4, 60}};
  for (const auto& c : cases) {
    std::vector<int> idle;
    for (int a = 1; a <= c.addresses; ++a) {
      SetClientAddress("127.0.1." + std::to_string(a));
      for (int i = 0; i < c.each; ++i) {
        const int fd = OpenConnection();
        ASSERT_GE(fd, 0);
        if (i % 3 == 1) send(fd, "GET /webapi/entry.cgi HTTP/1.1\r\nHost: x\r\n", 41, MSG_NOSIGNAL);
        idle.push_back(fd);
      }
    }
    SetClientAddress("");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CallApi(TestCall("echo"), ann.sid).json["success"], true) << c.addresses;
    printf("%d x %d idle connections: another client served in %ld ms\n", c.addresses, c.each,
           static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now() - start)
                                 .count()));
    char byte;
    timeval wait{10, 0};
    setsockopt(idle.back(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    setsockopt(idle.front(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof(wait));
    // Past its share a client is refused at once; the rest go once the
    // client time-out passes.
    EXPECT_EQ(recv(idle.back(), &byte, 1, 0), 0) << "the server closes a connection over the share";
    EXPECT_EQ(recv(idle.front(), &byte, 1, 0), 0) << "the server closes a connection that stalls";
    for (int fd : idle) close(fd);
  }
}

TEST_F(LimitsServerTest, OneUserCannotHoldEveryWorker) {
  const LoginSession ann = Login("ann", "ann-secret");
  const LoginSession carol = Login("carol", "carol-secret");
  for (int i = 0; i < 500 && !server_.Descendants().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::vector<std::thread> sleepers;
  for (int i = 0; i < 2; ++i) {
    sleepers.emplace_back([&] { CallApi(TestCall("sleep", {{"seconds", "2"}}), ann.sid); });
  }
  for (int i = 0; i < 500 && server_.Descendants().size() < 2; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(ErrorCode(CallApi(TestCall("echo"), ann.sid)), 107);
  EXPECT_EQ(CallApi(TestCall("echo"), carol.sid).json["success"], true);
  for (auto& t : sleepers) t.join();
  EXPECT_EQ(CallApi(TestCall("echo"), ann.sid).json["success"], true);
}

TEST_F(LimitsServerTest, OneAccountLoggingInOverAndOverSignsNoOneElseOut) {
  const LoginSession ann = Login("ann", "ann-secret");
  const LoginSession carol = Login("carol", "carol-secret");
  std::vector<std::string> bob;
  for (int i = 0; i < 10; ++i) bob.push_back(Login("bob", "bob-secret").sid);
  struct Case {
    std::string sid;
    int code;
  } cases[] = {{ann.sid, 0},  {carol.sid, 0}, {bob[0], 106},
               {bob[6], 106}, {bob[7], 0},    {bob[9], 0}};
  for (const auto& c : cases) EXPECT_EQ(ErrorCode(CallApi(TestCall("echo"), c.sid)), c.code);
}

TEST_F(ServerTest, KeepAliveConnectionsServeSeveralRequests) {
  const LoginSession ann = Login("ann", "ann-secret");
  const std::string one = "GET /webapi/entry.cgi?" + FormEncode(TestCall("echo")) +
                          "&_sid=" + ann.sid + " HTTP/1.1\r\nHost: x\r\n\r\n";
  const std::string last = "GET /webapi/entry.cgi?" +
                           FormEncode(TestCall("fail", {{"code", "801"}})) + "&_sid=" + ann.sid +
                           " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
  const std::string received = SendRaw(one + one + last);
  size_t answers = 0;
  for (size_t at = received.find("HTTP/1.1 200"); at != std::string::npos;
       at = received.find("HTTP/1.1 200", at + 1)) {
    ++answers;
  }
  EXPECT_EQ(answers, 3u) << received;
  EXPECT_NE(received.find("{\"code\":801}"), std::string::npos);
}

TEST_F(ServerTest, ClientsWaitingForContinueGetIt) {
  const LoginSession ann = Login("ann", "ann-secret");
  const std::string body =
      FormEncode(TestCall("echo", {{"_sid", ann.sid}, {"pad", std::string(2000, 'p')}}));
  const int fd = OpenConnection();
  const std::string head =
      "POST /webapi/entry.cgi HTTP/1.1\r\nHost: x\r\nConnection: close\r\n"
      "Content-Type: application/x-www-form-urlencoded\r\n"
      "Expect: 100-continue\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n";
  ASSERT_EQ(send(fd, head.data(), head.size(), MSG_NOSIGNAL), static_cast<ssize_t>(head.size()));
  char buffer[65536];
  const ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
  ASSERT_GT(n, 0);
  EXPECT_EQ(std::string(buffer, n).rfind("HTTP/1.1 100 Continue", 0), 0u);
  ASSERT_EQ(send(fd, body.data(), body.size(), MSG_NOSIGNAL), static_cast<ssize_t>(body.size()));
  std::string answer;
  for (ssize_t got; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) answer.append(buffer, got);
  close(fd);
  EXPECT_EQ(answer.rfind("HTTP/1.1 200", 0), 0u) << answer;
  EXPECT_NE(answer.find("\"user\":\"ann\""), std::string::npos);
}

// ---------------------------------------------------------------------------
// Operation.

TEST_F(ServerTest, AccessLogRecordsRequestsWithoutSecrets) {
  const LoginSession ann = Login("ann", "ann-secret");
  CallApi(TestCall("echo"), ann.sid);
  CallApi(TestCall("fail", {{"code", "800"}}), ann.sid);
  const std::string log = ReadFile(kAccessLog);
  EXPECT_NE(log.find("127.0.0.1 ann \"POST /webapi/entry.cgi\" 200"), std::string::npos) << log;
  EXPECT_NE(log.find("KEST.API.Auth/login/1 ok"), std::string::npos) << log;
  EXPECT_NE(log.find("\"GET /webapi/entry.cgi\" 200"), std::string::npos) << log;
  EXPECT_NE(log.find("KEST.Test.Host/echo/1 ok"), std::string::npos) << log;
  EXPECT_NE(log.find("KEST.Test.Host/fail/1 800"), std::string::npos) << log;
  EXPECT_EQ(log.find("ann-secret"), std::string::npos);
  EXPECT_EQ(log.find(ann.sid), std::string::npos);
}

TEST_F(ServerTest, SigtermLetsRequestsInFlightFinish) {
  const LoginSession ann = Login("ann", "ann-secret");
  // The login worker may still be on its way out: counted as the sleeper
  // below, the stop would come before the request had even arrived.
  ASSERT_TRUE(server_.WaitQuiet(5000));
  HttpReply running;
  std::thread client([&] { running = CallApi(TestCall("sleep", {{"seconds", "2"}}), ann.sid); });
  for (int i = 0; i < 500 && server_.Descendants().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const int idle = OpenConnection();
  EXPECT_EQ(server_.Stop(), 0) << server_.Output();
  client.join();
  EXPECT_EQ(running.json["data"], "slept") << running.body;
  char byte;
  EXPECT_EQ(recv(idle, &byte, 1, 0), 0) << "idle connections are closed";
  close(idle);
  EXPECT_LT(OpenConnection(), 0) << "nothing listens any more";
}

class StaticServerTest : public ServerTest {
  std::string ExtraConfig() override {
    WriteFile("/tmp/www/index.html", "<html>search</html>");
    WriteFile("/tmp/www/js/app.js", "let a = 1;");
    WriteFile("/tmp/secret.txt", "secret");
    WriteFile("/tmp/outside/index.html", "secret");
    symlink("/tmp/secret.txt", "/tmp/www/link.txt");
    symlink("/tmp/outside", "/tmp/www/away");
    mkdir("/tmp/www/linked", 0755);
    symlink("/tmp/secret.txt", "/tmp/www/linked/index.html");
    return "[server]\nstatic_root = /tmp/www\n";
  }
};

TEST_F(StaticServerTest, ServesTheFolderAndNothingOutsideIt) {
  struct Case {
    const char* target;
    int status;
    const char* body;
    const char* type;
  } cases[] = {
      {"/", 200, "<html>search</html>", "text/html; charset=utf-8"},
      {"/index.html", 200, "<html>search</html>", "text/html; charset=utf-8"},
      {"/js/app.js", 200, "let a = 1;", "text/javascript; charset=utf-8"},
      {"/js/", 404, nullptr, nullptr},
      {"/../secret.txt", 404, nullptr, nullptr},
      {"/js/%2e%2e/%2e%2e/secret.txt", 404, nullptr, nullptr},
      {"/link.txt", 404, nullptr, nullptr},
      {"/away/", 404, nullptr, nullptr},
      {"/away/index.html", 404, nullptr, nullptr},
      {"/linked/", 404, nullptr, nullptr},
      {"/linked", 404, nullptr, nullptr},
      {"/missing.html", 404, nullptr, nullptr},
      {"/index.html%00.js", 404, nullptr, nullptr},
  };
  for (const auto& c : cases) {
    HttpRequest request;
    request.target = c.target;
    const HttpReply reply = SendHttp(request);
    EXPECT_EQ(reply.status, c.status) << c.target;
    if (c.body) {
      EXPECT_EQ(reply.body, c.body) << c.target;
      EXPECT_EQ(reply.content_type, c.type) << c.target;
    } else {
      EXPECT_EQ(reply.body.find("secret"), std::string::npos);
    }
  }
}

// ---------------------------------------------------------------------------
// Start-up refusals.

TEST(ServerStartTest, RefusesBadModulesAndSettingsWithAClearMessage) {
  const std::string base = "[server]\nport = 5000\naccess_log = /tmp/webapi-test/a.log\n";
  struct Case {
    std::string config;
    std::string message;
  } cases[] = {
      {base + "[modules]\nbad = " + NoExportsModulePath() + "\n",
       NoExportsModulePath() + ": does not export GetAPITable and GetAPICheckTable"},
      {base + "[modules]\nbad = " + BadTableModulePath() + "\n",
       BadTableModulePath() + ": handler table row 2: bad method name"},
      {base + "[modules]\nbad = /tmp/missing.so\n", "/tmp/missing.so: cannot load"},
      {base + "[modules]\na = " + TestModulePath() + "\nb = " + TestModulePath() + "\n",
       TestModulePath() + ": handler table row 1: serves a method twice"},
      {base + "max_workers = 0\n", "bad value \"0\" for \"max_workers\""},
      {base + "address = not-an-address\n[modules]\nt = " + TestModulePath() + "\n",
       "bad listen address"},
  };
  for (const auto& c : cases) {
    const ExitResult result = RunServerToExit(c.config);
    EXPECT_EQ(result.status, 1) << c.config << result.output;
    EXPECT_NE(result.output.find(c.message), std::string::npos) << result.output;
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(BadTableModulePath()));
}

TEST(ServerStartTest, RefusesToRunWithoutRoot) {
  const ExitResult result = RunServerToExit(TestConfig(), kAnnUid);
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.output.find("must run as root"), std::string::npos) << result.output;
}

}  // namespace
}  // namespace kesttest
