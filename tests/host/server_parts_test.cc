// The server's pure parts: parameter decoding, sessions, login throttling,
// configuration, answer frames and access-log lines.
#include <gtest/gtest.h>

#include <chrono>
#include <set>

#include "kest/json.h"
#include "server/access_log.h"
#include "server/login_throttle.h"
#include "server/request_params.h"
#include "server/server_config.h"
#include "server/session_store.h"
#include "server/worker_answer.h"
#include "server/worker_process.h"
#include "support/sandbox.h"

namespace kestondri {
namespace host {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

Json::Value Parsed(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::fromString(value, text)) << text;
  return value;
}

TEST(RequestParamsTest, FormFieldsDecodeToTheirJsonMeaning) {
  struct Case {
    const char* query;
    const char* expected;  // the params object as JSON, or null for a refusal
  } cases[] = {
      {"limit=10&path=/photo", R"({"limit":10,"path":"/photo"})"},
      {"flag=true&none=null&real=1.5", R"({"flag":true,"none":null,"real":1.5})"},
      {"obj=%7B%22a%22%3A%5B1%2C2%5D%7D", R"({"obj":{"a":[1,2]}})"},
      {"quoted=%22007%22&bare=007", R"({"quoted":"007","bare":"007"})"},
      {"a=-0.5e3&b=1.&c=.5&d=-&e=1e", R"({"a":-500.0,"b":"1.","c":".5","d":"-","e":"1e"})"},
      {"text=a+b%20c&empty=&novalue", R"({"text":"a b c","empty":"","novalue":""})"},
      {"broken={\"a\":&half=[1,", R"({"broken":"{\"a\":","half":"[1,"})"},
      {"dup=1&dup=2&&=skipped", R"({"dup":2})"},
      {"nul=a%00b", R"({"nul":"a\u0000b"})"},
      {"bad=%zz", nullptr},
      {"bad=%4", nullptr},
      {"bad%=1", nullptr},
      {"bad=100%", nullptr},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    std::string error;
    const bool ok = ParseFormParams(c.query, &params, &error);
    if (!c.expected) {
      EXPECT_FALSE(ok) << c.query;
      EXPECT_FALSE(error.empty()) << c.query;
    } else {
      ASSERT_TRUE(ok) << c.query << ": " << error;
      EXPECT_EQ(params, Parsed(c.expected)) << c.query;
    }
  }
}

TEST(RequestParamsTest, NamedFieldsStayText) {
  Json::Value params(Json::objectValue);
  std::string error;
  ASSERT_TRUE(ParseFormParams("_sid=1234&api=true&n=1234", &params, &error, {"_sid", "api"}));
  EXPECT_EQ(params, Parsed(R"({"_sid":"1234","api":"true","n":1234})"));
}

TEST(RequestParamsTest, JsonBodyMustBeOneObject) {
  struct Case {
    std::string body;
    bool ok;
  } cases[] = {
      {R"({"api":"x","limit":10,"list":[1]})", true},
      {"{}", true},
      {"[1,2]", false},
      {"\"text\"", false},
      {"{\"a\":1} trailing", false},
      {"{\"a\":", false},
      {"", false},
      {std::string(2000, '['), false},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    std::string error;
    EXPECT_EQ(ParseJsonParams(c.body, &params, &error), c.ok) << c.body;
    if (!c.ok) {
      EXPECT_FALSE(error.empty());
    }
  }
}

TEST(RequestParamsTest, CookieValueFindsTheNamedCookieOnly) {
  EXPECT_EQ(CookieValue("a=1; kest_sid=abc; b=2", "kest_sid"), "abc");
  EXPECT_EQ(CookieValue("kest_sid=abc", "kest_sid"), "abc");
  EXPECT_EQ(CookieValue("xkest_sid=abc; kest_sidx=def", "kest_sid"), "");
  EXPECT_EQ(CookieValue("", "kest_sid"), "");
  EXPECT_EQ(CookieValue("garbage;;=;kest_sid", "kest_sid"), "");
}

TEST(SessionStoreTest, IdsAreLongRandomAndDistinct) {
  SessionStore store(seconds(60), 1000, 1000);
  std::set<std::string> seen;
  const auto now = Clock::now();
  for (int i = 0; i < 200; ++i) {
    const Session& s = store.Create("ann", 2001, false, nullptr, now);
    EXPECT_EQ(s.id.size(), 64u);  // 256 bits in hex
    EXPECT_EQ(s.id.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(s.id, s.csrf_token);
    EXPECT_TRUE(seen.insert(s.id).second);
    EXPECT_TRUE(seen.insert(s.csrf_token).second);
  }
}

TEST(SessionStoreTest, IdleSessionsExpireAndUseKeepsThemAlive) {
  SessionStore store(seconds(10), 100, 100);
  const auto t0 = Clock::now();
  const std::string used = store.Create("ann", 2001, false, nullptr, t0).id;
  const std::string idle = store.Create("bob", 2002, false, nullptr, t0).id;
  ASSERT_NE(store.Find(used, t0 + seconds(8)), nullptr);
  EXPECT_NE(store.Find(used, t0 + seconds(16)), nullptr);
  EXPECT_EQ(store.Find(idle, t0 + seconds(16)), nullptr);
  EXPECT_EQ(store.Find(idle, t0), nullptr) << "an expired session is gone for good";
  store.Sweep(t0 + seconds(40));
  EXPECT_EQ(store.size(), 0u);
  EXPECT_EQ(store.Find("", t0), nullptr);
}

TEST(SessionStoreTest, RoomIsTakenFromTheAccountThatLogsIn) {
  SessionStore store(seconds(1000), 4, 2);  // 4 in all, 2 per user
  const auto t0 = Clock::now();
  const auto login = [&](const char* user, int at) {
    return store.Create(user, static_cast<uid_t>(user[0]), false, nullptr, t0 + seconds(at)).id;
  };
  const std::string a1 = login("ann", 0), a2 = login("ann", 1), a3 = login("ann", 2);
  const std::string b1 = login("bob", 3), c1 = login("carol", 4);
  // Full: bob replaces his own, not ann's older one; dave, holding none,
  // takes the oldest of the account holding the most.
  const std::string b2 = login("bob", 5);
  const std::string d1 = login("dave", 6);
  EXPECT_EQ(store.size(), 4u);
  for (const auto& gone : {a1, b1, a2}) EXPECT_EQ(store.Find(gone, t0 + seconds(7)), nullptr);
  for (const auto& kept : {a3, b2, c1, d1}) EXPECT_NE(store.Find(kept, t0 + seconds(7)), nullptr);
  EXPECT_TRUE(store.Remove(d1));
  EXPECT_FALSE(store.Remove(d1));
}

TEST(SessionStoreTest, TokensEqualComparesWholeTokens) {
  EXPECT_TRUE(TokensEqual("abc", "abc"));
  EXPECT_FALSE(TokensEqual("abc", "abd"));
  EXPECT_FALSE(TokensEqual("abc", "ab"));
  EXPECT_FALSE(TokensEqual("", "abc"));
}

TEST(LoginThrottleTest, GuessesLockTheGuessingAddressNotTheOwner) {
  LoginThrottle throttle({3, 5, 6}, seconds(60));
  const auto t0 = Clock::now();
  const auto attempt = [&](const char* account, const std::string& address, bool success) {
    if (!throttle.Begin(account, address, t0)) return false;
    throttle.Finish(account, address, success, t0);
    return true;
  };
  ASSERT_TRUE(attempt("ann", "10.0.0.9", true));  // ann's usual address
  struct Case {
    const char* account;
    std::string address;
    bool success;
    bool allowed;
    const char* why;
  } cases[] = {
      {"ann", "10.0.0.1", false, true, ""},
      {"ann", "10.0.0.1", false, true, ""},
      {"ann", "10.0.0.1", false, true, ""},
      {"ann", "10.0.0.1", true, false, "the pair is locked"},
      {"ann", "10.0.0.2", true, true, "the owner elsewhere is not"},
      {"bob", "10.0.0.1", false, true, ""},
      {"carol", "10.0.0.1", true, true, ""},
      {"dave", "10.0.0.1", false, true, ""},
      {"erin", "10.0.0.1", true, false, "the address is locked for everyone"},
      {"ann", "10.0.0.3", false, true, ""},
      {"ann", "10.0.0.4", false, true, ""},
      {"ann", "10.0.0.5", false, true, ""},
      {"ann", "10.0.0.6", true, false, "many addresses meet the account's bound"},
      {"ann", "10.0.0.9", true, true, "but not where ann signs in"},
      {"carol", "10.0.0.1", true, true, "nor where carol signed in"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(attempt(c.account, c.address, c.success), c.allowed)
        << c.account << " from " << c.address << ": " << c.why;
  }
  // Old failures leave the window.
  EXPECT_TRUE(throttle.Begin("dave", "10.0.0.1", t0 + seconds(61)));
  throttle.Finish("dave", "10.0.0.1", true, t0 + seconds(61));
  throttle.Sweep(t0 + seconds(200));
  EXPECT_EQ(throttle.keys(), 0u);
}

TEST(LoginThrottleTest, GuessesFromVeryManyAddressesDoNotGrowItWithoutBound) {
  LoginThrottle throttle({5, 30, 20}, seconds(60));
  const auto t0 = Clock::now();
  ASSERT_TRUE(throttle.Begin("ann", "10.0.0.9", t0));
  throttle.Finish("ann", "10.0.0.9", true, t0);
  for (size_t i = 0; i < LoginThrottle::kMaxKeys; ++i) {
    const std::string n = std::to_string(i);
    ASSERT_TRUE(throttle.Begin("guess" + n, "10.1." + n, t0));
    throttle.Finish("guess" + n, "10.1." + n, false, t0);
  }
  EXPECT_FALSE(throttle.Begin("bob", "10.0.0.1", t0)) << "full: no new key";
  EXPECT_TRUE(throttle.Begin("ann", "10.0.0.9", t0)) << "ann where she signs in";
  throttle.Finish("ann", "10.0.0.9", true, t0);
  throttle.Sweep(t0 + seconds(61));
  EXPECT_TRUE(throttle.Begin("bob", "10.0.0.1", t0 + seconds(61)));
}

TEST(LoginThrottleTest, RunningLoginsCountAgainstTheBound) {
  LoginThrottle throttle({2, 100, 100}, seconds(60));
  const auto t0 = Clock::now();
  EXPECT_TRUE(throttle.Begin("ann", "a", t0));
  EXPECT_TRUE(throttle.Begin("ann", "a", t0));
  EXPECT_FALSE(throttle.Begin("ann", "a", t0)) << "parallel guesses must not slip past";
  throttle.Finish("ann", "a", true, t0);
  EXPECT_TRUE(throttle.Begin("ann", "a", t0)) << "a success forgets the pair's failures";
}

TEST(ServerConfigTest, FileOverridesDefaultsAndBadLinesAreRefused) {
  const std::string path = "/tmp/config-test.conf";
  kesttest::WriteFile(path,
                      "; comment\n[server]\nport = 6001\nmax_workers = 3\n"
                      "static_root = /srv/www\n[modules]\na = /lib/a.so\nb = /lib/b.so\n");
  ServerConfig config;
  std::string error;
  ASSERT_TRUE(LoadServerConfig(path, true, &config, &error)) << error;
  EXPECT_EQ(config.port, 6001);
  EXPECT_EQ(config.max_workers, 3);
  EXPECT_EQ(config.static_root, "/srv/www");
  EXPECT_EQ(config.address, "127.0.0.1");
  EXPECT_EQ(config.request_timeout, 60);
  ASSERT_EQ(config.modules.size(), 2u) << "the named modules replace the default one";
  EXPECT_EQ(config.modules[1].second, "/lib/b.so");
  // The shipped file (as the build configures it) names every setting;
  // each must be one the server knows.
  ServerConfig shipped;
  EXPECT_TRUE(LoadServerConfig(std::string(KEST_BINARY_DIR) + "/dist/webapi-server.conf", true,
                               &shipped, &error))
      << error;

  struct Case {
    const char* text;
    const char* message_part;
  } bad[] = {
      {"[server]\nport = 0\n", ":2: bad value \"0\" for \"port\""},
      {"[server]\nport = 5000x\n", "bad value"},
      {"[server]\nmax_workers = -1\n", "bad value"},
      {"[server]\nportt = 1\n", "unknown key \"portt\""},
      {"[other]\nx = 1\n", "unknown section [other]"},
      {"[modules]\na = relative.so\n", "needs an absolute path"},
      {"[server]\nstatic_root = www\n", "bad value"},
      {"[server]\nport\n", "syntax error"},
      {"[server]\nport = 99999\nmax_queue = x\n", ":2: bad value"},
  };
  for (const auto& c : bad) {
    kesttest::WriteFile(path, c.text);
    ServerConfig refused;
    error.clear();
    EXPECT_FALSE(LoadServerConfig(path, true, &refused, &error)) << c.text;
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_NE(error.find(c.message_part), std::string::npos) << error;
  }
}

TEST(ServerConfigTest, MissingFileIsAnErrorOnlyWhenNamed) {
  ServerConfig config;
  std::string error;
  EXPECT_TRUE(LoadServerConfig("/tmp/no-such.conf", false, &config, &error));
  ASSERT_EQ(config.modules.size(), 1u);
  EXPECT_STREQ(config.modules[0].second.c_str(), DefaultModulePath());
  EXPECT_FALSE(LoadServerConfig("/tmp/no-such.conf", true, &config, &error));
  EXPECT_NE(error.find("/tmp/no-such.conf"), std::string::npos);
}

TEST(WorkerFrameTest, FramesAreCompleteOnlyWithTheirWholeBody) {
  const std::string frame = EncodeFrame("{\"success\":true}");
  std::string text;
  for (size_t cut = 0; cut < frame.size(); ++cut) {
    EXPECT_EQ(DecodeFrame(frame.substr(0, cut), &text), FrameState::kIncomplete) << cut;
  }
  ASSERT_EQ(DecodeFrame(frame, &text), FrameState::kComplete);
  EXPECT_EQ(text, "{\"success\":true}");
  EXPECT_EQ(DecodeFrame(frame + "x", &text), FrameState::kBad);
  EXPECT_EQ(DecodeFrame(std::string("\x7f\xff\xff\xff", 4), &text), FrameState::kBad);
  ASSERT_EQ(DecodeFrame(EncodeFrame(""), &text), FrameState::kComplete);
  EXPECT_EQ(text, "");
}

TEST(WorkerAnswerTest, HeaderCarriesCodeAdminFlagAndIdentity) {
  AnswerHeader looked_up{0, 1};
  looked_up.has_identity = true;
  looked_up.identity.uid = 2003;
  looked_up.identity.gid = 2003;
  looked_up.identity.groups = {2003, 2200, 4294967294u};
  AnswerHeader not_found{0, 0};  // looked up, no such user
  for (const AnswerHeader& sent :
       {AnswerHeader{0, -1}, AnswerHeader{120, 1}, AnswerHeader{-5, 0}, looked_up, not_found}) {
    const std::string frame = EncodeAnswer(sent, "{\"a\":\"x\\ny\"}");
    AnswerHeader got;
    std::string text;
    ASSERT_TRUE(DecodeAnswer(frame, &got, &text)) << frame;
    EXPECT_EQ(got.code, sent.code);
    EXPECT_EQ(got.admin, sent.admin);
    EXPECT_EQ(got.has_identity, sent.has_identity);
    EXPECT_EQ(got.identity.uid, sent.identity.uid);
    EXPECT_EQ(got.identity.gid, sent.identity.gid);
    EXPECT_EQ(got.identity.groups, sent.identity.groups);
    EXPECT_EQ(text, "{\"a\":\"x\\ny\"}");
  }
  AnswerHeader got;
  std::string text;
  for (const char* bad : {"", "{}", "0\n{}", "0 2\n{}", "x 0\n{}", " 0 0\n", "99999999999 0\n{}",
                          "0 0 0\n{}",       // ids without groups
                          "0 -1 5 5 5\n{}",  // ids without a lookup
                          "0 1 5 5 5,\n{}", "0 1 5 5 5,,6\n{}", "0 1 -5 5 5\n{}",
                          "0 1 5 5 4294967296\n{}", "0 1 5 5 5 6\n{}"}) {
    EXPECT_FALSE(DecodeAnswer(bad, &got, &text)) << bad;
  }
}

TEST(AccessLogTest, LinesHoldNoQueryAndCannotBeForged) {
  AccessRecord record;
  record.client = "127.0.0.1";
  record.user = "ann";
  record.http_method = "GET";
  record.path = "/webapi/entry.cgi\n2026 forged \"line";
  record.status = 200;
  record.bytes = 42;
  record.api = "KEST.Test.Host";
  record.method = "echo";
  record.version = 1;
  record.code = 120;
  record.millis = 7;
  const std::string line = FormatAccessRecord(record, 0);
  EXPECT_EQ(line,
            "1970-01-01T00:00:00Z 127.0.0.1 ann \"GET /webapi/entry.cgi\\x0a2026 forged "
            "\\x22line\" 200 42 KEST.Test.Host/echo/1 120 7ms\n");
  record.code = 0;
  record.api.clear();
  record.user.clear();
  EXPECT_NE(FormatAccessRecord(record, 0).find(" - \"GET"), std::string::npos);
  EXPECT_NE(FormatAccessRecord(record, 0).find(" 42 - ok 7ms"), std::string::npos);
}

}  // namespace
}  // namespace host
}  // namespace kestondri
