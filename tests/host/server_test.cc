// The web API server as a process: real HTTP, PAM logins, both modules, real files and links.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <set>
#include <thread>

#include "host/server_harness.h"
#include "server/login_throttle.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

constexpr char kTeam[] = "/volume1/docs/team/";
constexpr char kOddName[] = "sub/q\"uo\\te;\r\nX-Evil: 1 \xc3\xa9\xff.pdf";

Fields TestCall(const std::string& method, const Fields& extra = {},
                const std::string& api = kTestAPI, const std::string& version = "1") {
  Fields fields = {{"api", api}, {"method", method}, {"version", version}};
  fields.insert(fields.end(), extra.begin(), extra.end());
  return fields;
}

// 0 for a success, the error code otherwise, -1 for an answer that is no JSON.
int Code(const HttpReply& reply) {
  if (!reply.json.isObject()) return -1;
  return reply.json["success"].asBool() ? 0 : reply.json["error"]["code"].asInt();
}

// After each test: no descendant left behind; on a failure, what the server said.
void CheckAfterTest(const ServerProcess& server) {
  SetClientAddress("");
  if (testing::Test::HasFailure()) printf("server output: %s\n", server.Output().c_str());
  EXPECT_TRUE(server.WaitQuiet()) << "descendants left behind";
}

// One server for single requests: the shipped settings, indexed shares with files of every
// kind, and static files with links that lead out of their folder.
class ServerTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    WriteFile("/etc/pam.d/kestondri", ReadFile(KEST_SOURCE_DIR "/host/dist/kestondri.pam"));
    WriteFile("/etc/kest/shares.conf",
              "[global]\nadmin group = administrators\nuser home = yes\n"
              "[docs]\npath = /volume1/docs\ninvalid users = dave\n"
              "[other]\npath = /volume1/other\n[homes]\npath = /volume1/homes\n");
    const std::string team = kTeam;
    for (const auto& [path, text] : std::vector<std::pair<std::string, std::string>>{
             {team + "hello.txt", "hello"},
             {team + "page.html", "<script>alert(1)</script>"},
             {team + "logo.svg", "<svg onload=alert(1)/>"},
             {team + "empty.txt", ""},
             {team + kOddName, "%PDF"},
             {"/volume1/docs/unindexed.txt", "outside the indexed folder"},
             {"/volume1/other/far.txt", "another share"},
             {"/volume1/homes/ann/mine.txt", "ann's home"},
             {"/volume1/homes/bob/open.txt", "bob's home, readable by all"},
             {"/tmp/www/index.html", "<html>page</html>"},
             {"/tmp/www/js/app.js", "let a = 1;"},
             {"/tmp/secret.txt", "secret"},
             {"/tmp/outside/index.html", "secret"},
         })
      WriteFile(path, text);
    WriteFile(team + "ann-only.txt", "ann", 0600);
    ASSERT_EQ(0, chown((team + "ann-only.txt").c_str(), kAnnUid, kAnnUid));
    ASSERT_EQ(0, system("cd /volume1/docs/team && ln -s /volume1/other/far.txt link.txt && "
                        "ln -s /volume1/other linkdir && mkfifo fifo.txt && cd /tmp/www && "
                        "mkdir linked && ln -s /tmp/secret.txt link.txt "
                        "&& ln -s /tmp/outside away && ln -s /tmp/secret.txt linked/index.html"));
    server_.Start(ReadFile(KEST_BINARY_DIR "/dist/webapi-server.conf") +
                  TestConfig("[server]\nstatic_root = /tmp/www\nadmin_recheck_interval = 0\n"
                             "max_body_size = 4096\nmax_header_size = 2048\n"));
    for (auto [session, name] :
         {std::pair{&ann_, "ann"}, {&bob_, "bob"}, {&carol_, "carol"}, {&dave_, "dave"}}) {
      *session = Login(name, UserByName(name).password);
      ASSERT_FALSE(session->sid.empty()) << session->reply;
    }
    const HttpReply added = CallApi(
        TestCall("add",
                 {{"folder", R"([{"path": "/volume1/docs/team"}, {"path": "/volume1/homes"}])"}},
                 "KEST.Ondri.FileIndexing.Folder"),
        carol_.sid);
    ASSERT_EQ(Code(added), 0) << added.body;
  }
  static void TearDownTestSuite() { server_.Stop(); }
  void TearDown() override { CheckAfterTest(server_); }

  static HttpReply Fetch(const std::string& path, const std::string& sid, Fields headers = {},
                         const std::string& extra = "") {
    const std::string query = FormEncode({{"path", path}}) + extra + (sid.empty() ? "" : "&_sid=");
    return SendHttp({"GET", "/webapi/file?" + query + sid, "", "", std::move(headers)});
  }

  inline static ServerProcess server_;
  inline static LoginSession ann_, bob_, carol_, dave_;
};

TEST_F(ServerTest, RoutesEachCallDecodesItsParametersAndLogsWithoutSecrets) {
  const auto param = [](const std::string& name, const std::string& reason) {
    return R"({"name":")" + name + R"(","reason":")" + reason + "\"}";
  };
  const char* kAuth = "KEST.API.Auth";
  // The call, its code, and the error's data when it has some.
  for (const auto& [fields, code, errors] : std::vector<std::tuple<Fields, int, std::string>>{
           {{{"method", "echo"}, {"version", "1"}}, 101, ""},
           {TestCall("echo", {}, "KEST.Test.Nothing"), 102, ""},
           {TestCall("echo", {}, "true"), 102, ""},  // the route stays text
           {TestCall("nothing"), 103, ""},
           {TestCall("echo", {}, kTestAPI, "3"), 104, ""},
           {TestCall("echo", {}, kTestAPI, "abc"), 104, ""},
           {TestCall("echo", {}, kTestAPI, "2"), 0, ""},  // another version is its own route
           {TestCall("nothing", {}, kAuth), 103, ""},
           // Checked, but served by no module: the checker answers first.
           {TestCall("run", {}, "KEST.Test.CheckedOnly"), 120, param("x", "required")},
           {TestCall("checked"), 120, param("x", "required")},
           {TestCall("fail", {{"code", "507"}}), 507, ""},
           {TestCall("fail", {{"code", "800"}, {"data", R"({"why":"x"})"}}), 800, R"({"why":"x"})"},
           {TestCall("throw"), 117, ""},
           {TestCall("get", {}, "KEST.Ondri.FileIndexing.Folder"), 120, param("path", "required")},
           {TestCall("login", {{"account", "ann"}, {"passwd", "wrong"}}, kAuth), 112, ""},
           {TestCall("login", {{"passwd", "x"}}, kAuth), 115, param("account", "required")},
           {TestCall("login", {{"account", "ann"}}, kAuth), 115, param("passwd", "required")},
           {TestCall("login", {{"account", "12"}, {"passwd", "x"}}, kAuth), 115,
            param("account", "invalid")},
           {TestCall("login", {{"account", "ann"}, {"passwd", {"a\0b", 3}}}, kAuth), 115,
            param("passwd", "invalid")},
           {TestCall("login", {{"account", "a\nb"}, {"passwd", "x"}}, kAuth), 115,
            param("account", "invalid")},
       }) {
    const HttpReply reply = CallApi(fields, ann_.sid);
    EXPECT_EQ(reply.header("content-type"), "application/json; charset=utf-8");
    EXPECT_EQ(Code(reply), code) << FormEncode(fields) << " -> " << reply.body;
    EXPECT_EQ(reply.json["error"].get("errors", Json::Value()),
              errors.empty() ? Json::Value() : ParseJson(errors))
        << reply.body;
  }
  // Form values mean what they mean in JSON; what JSON would not write so (007, 1.) stays text.
  const HttpReply echo = CallApi(
      TestCall("echo", {{"n", "-5e1"}, {"id", "007"}, {"b", "1."}, {"t", {"a b\0", 4}}}), ann_.sid);
  EXPECT_EQ(echo.json["data"]["params"],
            ParseJson(R"({"n":-50.0,"id":"007","b":"1.","t":"a b\u0000"})"));

  // Log lines hold no query, and a client's path cannot forge a field.
  EXPECT_EQ(SendHttp({"GET", "/a\"b\\c?hidden-query"}).status, 404);
  const std::string log = ReadFile(kAccessLog);
  for (
      const char* line :
      {R"(\dZ 127\.0\.0\.1 ann "POST /webapi/entry\.cgi" 200 \d+ KEST\.API\.Auth/login/1 ok \d+ms\n)",
       R"(\dZ 127\.0\.0\.1 ann "GET /webapi/entry\.cgi" 200 \d+ KEST\.Test\.Host/fail/1 800 \d+ms\n)",
       R"(\dZ 127\.0\.0\.1 - "GET /a\\x22b\\x5cc" 404 \d+ - 105 \d+ms\n)"})
    EXPECT_TRUE(std::regex_search(log, std::regex(line))) << line << " in " << log;
  EXPECT_EQ(log.find("hidden-query"), std::string::npos);
  EXPECT_EQ(log.find(ann_.sid), std::string::npos);
}

TEST_F(ServerTest, LoginGivesACookieAndCallsNeedALiveSessionTheCsrfTokenAndAdminsTheGroup) {
  const HttpReply login =
      CallApi(TestCall("login", {{"account", "ann"}, {"passwd", "ann-secret"}}, "KEST.API.Auth"));
  const std::string fresh = login.json["data"]["sid"].asString();
  EXPECT_EQ(login.json["data"]["account"], "ann");
  for (const std::string& key : {fresh, login.json["data"]["csrf_token"].asString()})
    EXPECT_TRUE(std::regex_match(key, std::regex("[0-9a-f]{64}"))) << login.body;
  EXPECT_EQ(login.header("set-cookie"),
            "kest_sid=" + fresh + "; Path=/; HttpOnly; SameSite=Strict");
  for (const std::string& sid :
       {std::string(), std::string("nonsense"), std::string(64, '0'), ann_.token})
    EXPECT_EQ(Code(CallApi(TestCall("echo"), sid)), 106) << sid;
  // A foreign page can make a browser send the cookie, never the header; only kest_sid counts.
  const std::string cookie = "other=1; kest_sid=" + ann_.sid;
  for (const auto& [cookies, token, code] : std::vector<std::tuple<std::string, std::string, int>>{
           {cookie, "", 108},
           {cookie, "wrong", 108},
           {cookie, bob_.token, 108},
           {cookie, ann_.sid, 108},
           {cookie, ann_.token, 0},
           {"xkest_sid=" + ann_.sid + "; kest_sidx=" + ann_.sid, ann_.token, 106},
       }) {
    const HttpReply reply =
        CallApi(TestCall("echo"), "", {{"Cookie", cookies}, {"X-Kest-CSRF-Token", token}});
    EXPECT_EQ(Code(reply), code) << cookies << " " << token << " -> " << reply.body;
    EXPECT_EQ(reply.json["data"]["user"], code ? Json::Value() : Json::Value("ann"));
  }
  // The administrator flag follows the group's members.
  const std::string groups = ReadFile("/etc/group");
  WriteFile("/etc/group", std::regex_replace(groups, std::regex("administrators:.*"), "$&,dave"));
  const Json::Value data = CallApi(TestCall("echo"), dave_.sid).json["data"];
  WriteFile("/etc/group", groups);
  EXPECT_EQ(data["is_admin"], true);
  EXPECT_EQ(CallApi(TestCall("echo"), dave_.sid).json["data"]["is_admin"], false);
}

TEST_F(ServerTest, BadHttpAndPathsOutOfTheStaticFolderAreRefusedClearly) {
  for (const auto& [request, status, code] : std::vector<std::tuple<HttpRequest, int, int>>{
           {{"GET", "/webapi/entry.cgi?api=%zz&method=echo&version=1"}, 400, 105},
           {{"GET", "/webapi/entry.cgi?api%=1"}, 400, 105},
           {{"POST", "/webapi/entry.cgi", "{\"api\":", "application/json"}, 400, 105},
           {{"POST", "/webapi/entry.cgi", "[1,2]", "application/json"}, 400, 105},
           {{"POST", "/webapi/entry.cgi", "{\"a\":1} trailing", "application/json"}, 400, 105},
           {{"POST", "/webapi/entry.cgi", "api=x", "text/plain"}, 415, 105},
           {{"POST", "/webapi/entry.cgi", std::string(5000, 'a'), "application/json"}, 413, 109},
           {{"GET", "/webapi/entry.cgi", "", "", {{"X-Big", std::string(3000, 'h')}}}, 431, 109},
           {{"PUT", "/webapi/entry.cgi"}, 405, 105},
           {{"POST", "/elsewhere"}, 404, 105},
       }) {
    const HttpReply reply = SendHttp(request);
    EXPECT_EQ(reply.status, status) << request.method << " " << request.target << request.body;
    EXPECT_EQ(Code(reply), code) << reply.body;
  }

  // A client that expects 100-continue gets it before it sends the body.
  const std::string body = FormEncode(
      TestCall("fail", {{"code", "801"}, {"_sid", ann_.sid}, {"pad", std::string(2000, 'p')}}));
  const std::string head =
      "POST /webapi/entry.cgi HTTP/1.1\r\nHost: x\r\nConnection: close\r\nExpect: 100-continue\r\n"
      "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
      std::to_string(body.size()) + "\r\n\r\n";
  const int fd = Connect();
  char buffer[65536];
  send(fd, head.data(), head.size(), MSG_NOSIGNAL);
  std::string answer(buffer, std::max<ssize_t>(recv(fd, buffer, sizeof(buffer), 0), 0));
  send(fd, body.data(), body.size(), MSG_NOSIGNAL);
  for (ssize_t n; (n = recv(fd, buffer, sizeof(buffer), 0)) > 0;) answer.append(buffer, n);
  close(fd);
  EXPECT_TRUE(std::regex_search(
      answer, std::regex(R"(^HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 [\s\S]*\{"code":801\})")))
      << answer;

  // Static files come from their folder alone, locked down.
  for (const char* target :
       {"/js/", "/../secret.txt", "/js/%2e%2e/%2e%2e/secret.txt", "/link.txt", "/away/",
        "/away/index.html", "/linked/", "/linked", "/index.html%00.js"}) {
    const HttpReply reply = SendHttp({"GET", target});
    EXPECT_EQ(reply.status, 404) << target;
    EXPECT_EQ(reply.body.find("secret"), std::string::npos) << target;
  }
  const HttpReply page = SendHttp({"GET", "/"});
  EXPECT_EQ(SendHttp({"GET", "/", "", "", {{"If-None-Match", page.header("etag")}}}).status, 304);
  EXPECT_EQ(page.header("cache-control") + " " + page.header("x-frame-options"), "no-cache DENY");
  const std::string policy = page.header("content-security-policy");
  EXPECT_TRUE(policy.find("script-src 'self';") != std::string::npos &&
              policy.find("require-trusted-types-for 'script'") != std::string::npos &&
              policy.find("unsafe-inline") == std::string::npos)
      << policy;
}

TEST_F(ServerTest, DownloadsServeOnlyWhatTheUserMayReadNeverAsThePageAndInRanges) {
  const std::string team = kTeam, file = team + "hello.txt";
  // Who asks, for what, the HTTP status and for a refusal the code.
  for (const auto& [who, path, status, code] :
       std::vector<std::tuple<const LoginSession*, std::string, int, int>>{
           {&bob_, file, 200, 0},
           {&bob_, team + "empty.txt", 200, 0},
           {&bob_, team + "ann-only.txt", 403, 118},       // the kernel says no
           {&ann_, team + "ann-only.txt", 200, 0},         // her own
           {&carol_, team + "ann-only.txt", 200, 0},       // an administrator acts as root
           {&dave_, file, 404, 116},                       // no privilege on the share
           {&bob_, team + "link.txt", 404, 116},           // a link, even to a readable file
           {&carol_, team + "linkdir/far.txt", 404, 116},  // a linked folder on the way
           {&carol_, team + "fifo.txt", 404, 116},         // not a regular file
           {&bob_, team + "missing.txt", 404, 116},
           {&carol_, "/volume1/docs/unindexed.txt", 404, 116},  // in a share, not indexed
           {&ann_, "/volume1/homes/ann/mine.txt", 200, 0},
           {&ann_, "/volume1/homes/bob/open.txt", 404, 116},  // in homes, only one's own
           {&bob_, team + "../team/hello.txt", 400, 115},
           {&bob_, "hello.txt", 400, 115},
           {&bob_, team + "/hello.txt", 400, 115},
           {&bob_, "hex:2f6", 400, 115},  // half a byte
           {nullptr, file, 403, 106},
       }) {
    const HttpReply reply = Fetch(path, who ? who->sid : "");
    EXPECT_EQ(reply.status, status) << path << " " << reply.body;
    EXPECT_EQ(Code(reply), status == 200 ? -1 : code) << path << " " << reply.body;
    EXPECT_EQ(reply.body, status == 200 ? ReadFile(path) : reply.body) << path;
  }
  // A name that is not UTF-8 is asked for in hexadecimal; no byte of it ends its header.
  std::string hex = "hex:";
  for (unsigned char c : team + kOddName)
    hex += {"0123456789abcdef"[c >> 4], "0123456789abcdef"[c & 15]};
  const HttpReply odd = Fetch(hex, bob_.sid);
  EXPECT_EQ(odd.body, "%PDF");
  EXPECT_EQ(odd.header("content-disposition"),
            "inline; filename=\"q_uo_te;__X-Evil: 1 __.pdf\"; "
            "filename*=UTF-8''q%22uo%5Cte%3B%0D%0AX-Evil%3A%201%20%C3%A9%EF%BF%BD.pdf");
  EXPECT_EQ(odd.header("x-content-type-options"), "nosniff");
  EXPECT_EQ(odd.header("cache-control"), "private, no-store");
  EXPECT_EQ(odd.header("content-security-policy").rfind("sandbox;", 0), 0u);
  EXPECT_EQ(odd.header("cross-origin-resource-policy"), "same-origin");
  // Its type, and how it is shown: the source of a page, never the page.
  for (const auto& [name, extra, shown] :
       std::vector<std::tuple<const char*, const char*, const char*>>{
           {"hello.txt", "", "text/plain inline"},
           {"page.html", "", "text/plain inline"},
           {"logo.svg", "", "application/octet-stream attachment"},
           {"hello.txt", "&download=1", "text/plain attachment"},
       }) {
    const HttpReply reply = Fetch(kTeam + std::string(name), bob_.sid, {}, extra);
    const std::string disposition = reply.header("content-disposition");
    EXPECT_EQ(reply.header("content-type") + " " + disposition.substr(0, disposition.find(';')),
              shown);
  }
  // Links carry the cookie alone; another site's page never gets a file.
  const std::pair<std::string, std::string> cookie = {"Cookie", "kest_sid=" + bob_.sid};
  EXPECT_EQ(Fetch(file, "", {cookie}).status, 200);
  EXPECT_EQ(Code(Fetch(file, "", {cookie, {"Sec-Fetch-Site", "cross-site"}})), 108);

  // Ranges: the end bound to the file, nothing past it, for no valid range the whole file.
  for (const auto& [range, expected] :
       std::vector<std::pair<const char*, const char*>>{{"bytes=2-99", "206 llo bytes 2-4/5"},
                                                        {"bytes=5-", "416  bytes */5"},
                                                        {"bytes=x-y", "200 hello "}}) {
    const HttpReply reply = Fetch(file, bob_.sid, {{"Range", range}});
    EXPECT_EQ(std::to_string(reply.status) + " " + (reply.status == 416 ? "" : reply.body) + " " +
                  reply.header("content-range"),
              expected);
  }
}

class ServerScenarioTest : public testing::Test {
 protected:
  void Start(const std::string& settings) {
    WriteFile("/etc/pam.d/kestondri", ReadFile(KEST_SOURCE_DIR "/host/dist/kestondri.pam"));
    SyslogCapture::Instance().Clear();
    server_.Start(TestConfig("[server]\n" + settings));
  }
  void TearDown() override {
    CheckAfterTest(server_);
    EXPECT_EQ(server_.Stop(), 0) << server_.Output();
  }

  ServerProcess server_;
};

TEST_F(ServerScenarioTest, WorkersAnswerEachRequestAsItsUserAndLeaveNothingBehind) {
  Start("request_timeout = 2\nmax_workers = 8\nmax_queue = 400\nmax_requests_per_user = 200\n");
  const LoginSession ann = Login("ann", "ann-secret"), carol = Login("carol", "carol-secret");
  ASSERT_TRUE(server_.WaitQuiet());
  const int fds_before = server_.OpenDescriptors();
  // Two users at once; every tenth request forks a child that outlives the time-out holding
  // the answer socket: neither the answer nor the time-out may wait for it.
  std::vector<HttpReply> replies(200);
  std::vector<std::thread> clients;
  for (int i = 0; i < 200; ++i)
    clients.emplace_back([&, i] {
      replies[i] = CallApi(i % 10 ? TestCall("echo", {{"n", std::to_string(i)}})
                                  : TestCall("fork", {{"seconds", "3"}}),
                           (i % 2 ? carol : ann).sid);
    });
  for (auto& t : clients) t.join();
  std::set<int> pids;
  for (int i = 0; i < 200; ++i) {
    Json::Value data = replies[i].json["data"];
    ASSERT_EQ(Code(replies[i]), 0) << i << ": " << replies[i].body;
    if (i % 10 == 0) continue;
    EXPECT_TRUE(pids.insert(data["pid"].asInt()).second) << "a process of its own";
    data.removeMember("pid");
    // The parameters alone; as root whatever the one before became; only the standard three
    // and its answer socket open.
    const std::string user = i % 2 ? "carol" : "ann";
    EXPECT_EQ(data, ParseJson("{\"params\":{\"n\":" + std::to_string(i) + "},\"user\":\"" + user +
                              "\",\"uid\":" + std::to_string(UserByName(user).uid) + ",\"sid\":\"" +
                              (i % 2 ? carol : ann).sid + "\",\"is_admin\":" +
                              (i % 2 ? "true" : "false") + ",\"euid\":0,\"fds\":4,\"pad\":\"\"}"));
  }
  EXPECT_GT(server_.Children(), 0) << "the forked children live on";

  // Workers that end without answering, with the system's fixed log texts.
  for (const auto& [call, code, logged] : std::vector<std::tuple<Fields, int, const char*>>{
           {TestCall("die", {{"signal", "6"}}), 111, "was ended by signal 6 before answering"},
           {TestCall("die", {{"signal", "9"}}), 111, "was ended by signal 9"},  // a newer search
           {TestCall("sleep", {{"seconds", "60"}}), 110, "ran past 2 s; killing it"},
       }) {
    EXPECT_EQ(Code(CallApi(call, ann.sid)), code) << logged;
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor(logged)) << logged;
  }
  // Answers of many reads, whole.
  for (size_t size : {0, 65535, 65536 * 4 + 7, 8 << 20}) {
    const HttpReply reply = CallApi(TestCall("echo", {{"size", std::to_string(size)}}), ann.sid);
    EXPECT_EQ(reply.json["data"]["pad"].asString().size(), size);
  }
  EXPECT_TRUE(server_.WaitQuiet());
  EXPECT_EQ(server_.OpenDescriptors(), fds_before);
  EXPECT_EQ(SyslogCapture::Instance().Matching("killing it").size(), 1u);
}

TEST_F(ServerScenarioTest, NoClientCrowdsOutAnother) {
  Start(
      "max_workers = 2\nmax_queue = 1\nmax_requests_per_user = 2\nclient_timeout = 2\n"
      "max_connections = 200\nmax_connections_per_address = 60\n"
      "max_sessions = 5\nmax_sessions_per_user = 3\n");
  const LoginSession ann = Login("ann", "ann-secret"), carol = Login("carol", "carol-secret");
  // Logins end one's own oldest sessions; when all are taken, the oldest of whoever holds most.
  std::vector<std::string> bob;
  for (int i = 0; i < 10; ++i) bob.push_back(Login("bob", "bob-secret").sid);
  const std::string dave = Login("dave", "dave-secret").sid;
  for (const std::string& sid : {ann.sid, carol.sid, dave, bob[8], bob[9]})
    EXPECT_EQ(Code(CallApi(TestCall("echo"), sid)), 0);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(Code(CallApi(TestCall("echo"), bob[i])), 106) << i;
  // A logout gives its room back: bob's next login ends none of his others.
  EXPECT_EQ(Code(CallApi(TestCall("logout", {}, "KEST.API.Auth"), bob[8])), 0);
  ASSERT_FALSE(Login("bob", "bob-secret").sid.empty());
  EXPECT_EQ(Code(CallApi(TestCall("echo"), bob[9])), 0);

  // ann holds both workers: hers is refused at once, others' wait in the queue or find it full.
  ASSERT_TRUE(server_.WaitQuiet());
  std::atomic<int> sleepers{0}, others{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < 2; ++i)
    clients.emplace_back([&] {
      sleepers += Code(CallApi(TestCall("sleep", {{"seconds", "3"}}), ann.sid));
    });
  ASSERT_TRUE(WaitUntil([&] { return server_.Children() == 2; }));
  EXPECT_EQ(Code(CallApi(TestCall("echo"), ann.sid)), 107);
  for (const std::string& sid : {carol.sid, bob[9]})
    clients.emplace_back([&, sid] { others += Code(CallApi(TestCall("echo"), sid)); });
  for (auto& t : clients) t.join();
  EXPECT_EQ(sleepers, 0);
  EXPECT_EQ(others, 107) << "one waited in the queue, the other found it full";

  // Idle connections, every third with half a request: past its share an address is refused
  // at once, at the global bound the longest waiting make room, the rest go at the time-out.
  for (const auto& [addresses, each] : std::vector<std::pair<int, int>>{{1, 250}, {4, 60}}) {
    std::vector<int> idle;
    for (int a = 1; a <= addresses; ++a) {
      SetClientAddress("127.0.1." + std::to_string(a));
      for (int i = 0; i < each; ++i) {
        idle.push_back(Connect());
        ASSERT_GE(idle.back(), 0);
        if (i % 3 == 1)
          send(idle.back(), "GET /webapi/entry.cgi HTTP/1.1\r\nHost: x\r\n", 41, MSG_NOSIGNAL);
      }
    }
    SetClientAddress("");
    EXPECT_EQ(Code(CallApi(TestCall("echo"), ann.sid)), 0) << addresses;
    char byte;
    for (int fd : {idle.back(), idle.front()})
      EXPECT_EQ(recv(fd, &byte, 1, 0), 0) << "a connection over the share or stalling is closed";
    for (int fd : idle) close(fd);
  }
}

TEST_F(ServerScenarioTest, FailedLoginsLockTheGuessingAddressAndIdleSessionsExpire) {
  Start(
      "session_idle_timeout = 1\nlogin_max_failures = 3\nlogin_max_failures_address = 5\n"
      "login_max_failures_account = 4\n");
  std::string sid;
  // From where, who, with what password, and the code (0: signed in).
  for (const auto& [from, account, password, code] :
       std::vector<std::tuple<const char*, const char*, const char*, int>>{
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
       }) {
    SetClientAddress(from);
    const LoginSession session = Login(account, password);
    EXPECT_EQ(session.reply["error"]["code"].asInt(), code) << account << " from " << from;
    sid = session.sid;
  }
  // Logins still running count: of a burst of guesses, no more than the bound reach PAM.
  std::atomic<int> asked{0};
  std::vector<std::thread> burst;
  for (int i = 0; i < 8; ++i)
    burst.emplace_back([&] {
      SetClientAddress("127.0.0.6");
      asked += Login("carol", "wrong").reply["error"]["code"] == 112;
    });
  for (auto& t : burst) t.join();
  EXPECT_LE(asked, 3);
  // Use keeps a session alive past its idle time-out.
  for (int i = 0; i < 4; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(500)))
    ASSERT_EQ(Code(CallApi(TestCall("echo"), sid)), 0) << i;
  std::this_thread::sleep_for(std::chrono::milliseconds(2000));
  EXPECT_EQ(Code(CallApi(TestCall("echo"), sid)), 106) << "an idle session expires";
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("too many failures"));
}

// Failures leave the window; made-up keys fill a table that then takes none until a sweep.
TEST(LoginThrottleTest, FailuresAgeAndKeysAreBounded) {
  using kestondri::host::LoginThrottle;
  const auto t0 = LoginThrottle::Clock::now(), t60 = t0 + std::chrono::seconds(60);
  LoginThrottle throttle({1, 30, 20}, std::chrono::seconds(60));
  ASSERT_TRUE(throttle.Begin("ann", "a", t0));
  throttle.Finish("ann", "a", true, t0);
  for (size_t i = 0; i < LoginThrottle::kMaxKeys; ++i) {
    const std::string n = std::to_string(i);
    ASSERT_TRUE(throttle.Begin("guess" + n, n, t0));
    throttle.Finish("guess" + n, n, false, t0);
  }
  EXPECT_FALSE(throttle.Begin("bob", "b", t0));
  EXPECT_TRUE(throttle.Begin("ann", "a", t0));
  EXPECT_FALSE(throttle.Begin("guess0", "0", t60 - std::chrono::seconds(1)));
  EXPECT_TRUE(throttle.Begin("guess0", "0", t60)) << "the failure left the window";
  throttle.Sweep(t60);
  EXPECT_TRUE(throttle.Begin("bob", "b", t60));
}

TEST(ServerStartTest, RefusesBadModulesSettingsAndUsersWithAClearMessage) {
  const std::string base = "[server]\nport = 5000\naccess_log = /tmp/webapi-test/a.log\n";
  const std::string good = KEST_TEST_MODULE, conf = "/tmp/webapi-test/server.conf:";
  // The settings, the message, and who starts the server (root when null).
  for (const auto& [config, message, user] :
       std::vector<std::tuple<std::string, std::string, const char*>>{
           {base + "[modules]\nbad = " KEST_NO_EXPORTS_MODULE "\n",
            KEST_NO_EXPORTS_MODULE ": does not export GetAPITable and GetAPICheckTable", nullptr},
           {base + "[modules]\nbad = " KEST_BAD_TABLE_MODULE "\n",
            KEST_BAD_TABLE_MODULE ": handler table row 2: bad method name", nullptr},
           {base + "[modules]\nbad = /tmp/missing.so\n", "/tmp/missing.so: cannot load", nullptr},
           {base + "[modules]\na = " + good + "\nb = " + good + "\n",
            good + ": handler table row 1: serves a method twice", nullptr},
           {base + "address = x\n[modules]\nt = " + good + "\n", "bad listen address", nullptr},
           {TestConfig(), "must run as root", "ann"},
           // The first refused line is named, with its reason.
           {"[server]\nport = 0\nportt = 1\n", conf + "2: bad value \"0\" for \"port\"", nullptr},
           {"[server]\nport = 5000x\n", "bad value \"5000x\" for \"port\"", nullptr},
           {"[server]\nport = 1\nportt = 1\n", conf + "3: unknown key \"portt\"", nullptr},
           {"[other]\nx = 1\n", "unknown section [other]", nullptr},
           {"[modules]\na = relative.so\n", "module \"a\" needs an absolute path", nullptr},
           {"[server]\nstatic_root = www\n", "bad value \"www\" for \"static_root\"", nullptr},
           {"[server]\nport\n", conf + "2: syntax error", nullptr},
       }) {
    ServerProcess server;
    EXPECT_EQ(server.RunToExit(config, user), 1) << config << server.Output();
    EXPECT_NE(server.Output().find(message), std::string::npos) << server.Output();
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(KEST_BAD_TABLE_MODULE));
}

}  // namespace
}  // namespace kesttest
