// The server's parts that decide alone, without a process or a socket:
// parameter decoding, login throttling, settings, answer frames
// and access-log lines.
#include <gtest/gtest.h>

#include <chrono>

#include "kest/json.h"
#include "server/access_log.h"
#include "server/login_throttle.h"
#include "server/request_params.h"
#include "server/server_config.h"
#include "server/worker_answer.h"
#include "server/worker_process.h"
#include "support/sandbox.h"

namespace kestondri {
namespace host {
namespace {

using std::chrono::seconds;
using Clock = std::chrono::steady_clock;
using kesttest::ParseJson;

TEST(RequestParamsTest, FieldsDecodeToTheirJsonMeaningAndBodiesAreOneObject) {
  struct Case {
    char kind;  // 'f': a query or form, 'j': a JSON body
    std::string text;
    const char* expected;  // the params object as JSON, or null for a refusal
  } cases[] = {
      {'f', "limit=10&path=/photo", R"({"limit":10,"path":"/photo"})"},
      {'f', "flag=true&none=null&real=1.5", R"({"flag":true,"none":null,"real":1.5})"},
      {'f', "obj=%7B%22a%22%3A%5B1%2C2%5D%7D", R"({"obj":{"a":[1,2]}})"},
      // JSON has no leading zeros: such a value stays text, as a name must.
      {'f', "quoted=%22007%22&bare=007", R"({"quoted":"007","bare":"007"})"},
      {'f', "a=-0.5e3&b=1.&c=.5&d=-&e=1e", R"({"a":-500.0,"b":"1.","c":".5","d":"-","e":"1e"})"},
      {'f', "text=a+b%20c&empty=&novalue&na+me=1",
       R"({"text":"a b c","empty":"","novalue":"","na me":1})"},
      {'f', "broken={\"a\":&half=[1,", R"({"broken":"{\"a\":","half":"[1,"})"},
      {'f', "dup=1&dup=2&&=skipped", R"({"dup":2})"},
      {'f', "nul=a%00b", R"({"nul":"a\u0000b"})"},
      {'f', "_sid=1234&api=true&n=1234", R"({"_sid":"1234","api":"true","n":1234})"},
      {'f', "bad=%zz", nullptr},
      {'f', "bad=%4", nullptr},
      {'f', "bad%=1", nullptr},
      {'f', "bad=100%", nullptr},
      {'j', R"({"api":"x","limit":10,"list":[1]})", R"({"api":"x","limit":10,"list":[1]})"},
      {'j', "[1,2]", nullptr},
      {'j', "{\"a\":1} trailing", nullptr},
      {'j', "", nullptr},
      {'j', std::string(2000, '['), nullptr},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    std::string error;
    // The session id and the route stay text, whatever they look like.
    const bool ok = c.kind == 'f' ? ParseFormParams(c.text, &params, &error, {"_sid", "api"})
                                  : ParseJsonParams(c.text, &params, &error);
    EXPECT_EQ(ok, c.expected != nullptr) << c.text;
    EXPECT_EQ(error.empty(), ok) << c.text;
    if (ok && c.expected) {
      EXPECT_EQ(params, ParseJson(c.expected)) << c.text;
    }
  }
  for (const auto& [header, value] :
       std::vector<std::pair<const char*, const char*>>{{"a=1; kest_sid=abc; b=2", "abc"},
                                                        {"kest_sid=abc", "abc"},
                                                        {"xkest_sid=abc; kest_sidx=def", ""},
                                                        {"", ""},
                                                        {"garbage;;=;kest_sid", ""}}) {
    EXPECT_EQ(CookieValue(header, "kest_sid"), value) << header;
  }
}

// Which bound locks whom is checked through the server; here what takes
// time or very many addresses.
TEST(LoginThrottleTest, FailuresAgeRunningLoginsCountAndKeysAreBounded) {
  const auto t0 = Clock::now(), t60 = t0 + seconds(60);
  LoginThrottle throttle({2, 30, 20}, seconds(60));
  // Logins still running count, so parallel guesses cannot slip past.
  EXPECT_TRUE(throttle.Begin("ann", "a", t0) && throttle.Begin("ann", "a", t0));
  EXPECT_FALSE(throttle.Begin("ann", "a", t0));
  throttle.Finish("ann", "a", false, t0);
  throttle.Finish("ann", "a", false, t0 + seconds(1));
  EXPECT_FALSE(throttle.Begin("ann", "a", t0 + seconds(59)));
  EXPECT_TRUE(throttle.Begin("ann", "a", t60)) << "the oldest failure left the window";
  throttle.Finish("ann", "a", true, t60);
  EXPECT_TRUE(throttle.Begin("ann", "a", t60));
  throttle.Finish("ann", "a", false, t60);
  EXPECT_TRUE(throttle.Begin("ann", "a", t60)) << "the success forgot the pair's failures";
  throttle.Finish("ann", "a", true, t60);
  throttle.Sweep(t0 + seconds(200));
  EXPECT_EQ(throttle.keys(), 0u);

  // A full table takes no new key until a sweep, except where the account
  // signed in.
  LoginThrottle full({5, 30, 20}, seconds(60));
  ASSERT_TRUE(full.Begin("ann", "a", t0));
  full.Finish("ann", "a", true, t0);
  for (size_t i = 0; i < LoginThrottle::kMaxKeys; ++i) {
    const std::string n = std::to_string(i);
    ASSERT_TRUE(full.Begin("guess" + n, "10.1." + n, t0));
    full.Finish("guess" + n, "10.1." + n, false, t0);
  }
  EXPECT_FALSE(full.Begin("bob", "b", t0));
  EXPECT_TRUE(full.Begin("ann", "a", t0));
  full.Finish("ann", "a", true, t0);
  full.Sweep(t60);
  EXPECT_TRUE(full.Begin("bob", "b", t60));
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
  // A file that is not there: the defaults, unless it was named.
  ServerConfig defaults;
  EXPECT_TRUE(LoadServerConfig("/tmp/no-such.conf", false, &defaults, &error));
  ASSERT_EQ(defaults.modules.size(), 1u);
  EXPECT_STREQ(defaults.modules[0].second.c_str(), DefaultModulePath());

  struct Case {
    const char* text;
    const char* message_part;
  } bad[] = {
      {"[server]\nport = 0\n", ":2: bad value \"0\" for \"port\""},
      {"[server]\nport = 5000x\n", "bad value"},
      {"[server]\nportt = 1\n", "unknown key \"portt\""},
      {"[other]\nx = 1\n", "unknown section [other]"},
      {"[modules]\na = relative.so\n", "needs an absolute path"},
      {"[server]\nstatic_root = www\n", "bad value"},
      {"[server]\nport\n", "syntax error"},
      {"[server]\nport = 99999\nmax_queue = x\n", ":2: bad value"},
      {nullptr, "/tmp/no-such.conf"},
  };
  for (const auto& c : bad) {
    std::string file = c.text ? path : "/tmp/no-such.conf";
    if (c.text) kesttest::WriteFile(path, c.text);
    ServerConfig refused;
    error.clear();
    EXPECT_FALSE(LoadServerConfig(file, true, &refused, &error)) << file;
    EXPECT_NE(error.find(file), std::string::npos) << error;
    EXPECT_NE(error.find(c.message_part), std::string::npos) << error;
  }
}

TEST(WorkerAnswerTest, FramesAndHeadersArriveWholeOrNotAtAll) {
  const std::string frame = EncodeFrame("{\"success\":true}");
  std::string text;
  for (size_t cut = 0; cut < frame.size(); ++cut) {
    EXPECT_EQ(DecodeFrame(frame.substr(0, cut), &text), FrameState::kIncomplete) << cut;
  }
  ASSERT_EQ(DecodeFrame(frame, &text), FrameState::kComplete);
  EXPECT_EQ(text, "{\"success\":true}");
  EXPECT_EQ(DecodeFrame(frame + "x", &text), FrameState::kBad);
  EXPECT_EQ(DecodeFrame(std::string("\x7f\xff\xff\xff", 4), &text), FrameState::kBad);

  const AnswerHeader looked_up{0, 1, true, {"", 2003, 2003, {2003, 2200, 4294967294u}}};
  // Not looked up; looked up, not found (0) or without an identity to send.
  for (const AnswerHeader& sent :
       {AnswerHeader{-5, -1}, AnswerHeader{0, 0}, AnswerHeader{120, 1}, looked_up}) {
    AnswerHeader got;
    ASSERT_TRUE(DecodeAnswer(EncodeAnswer(sent, "{\"a\":\"x\\ny\"}"), &got, &text));
    EXPECT_EQ(got.code, sent.code);
    EXPECT_EQ(got.admin, sent.admin);
    EXPECT_EQ(got.has_identity, sent.has_identity);
    EXPECT_EQ(got.identity.uid, sent.identity.uid);
    EXPECT_EQ(got.identity.gid, sent.identity.gid);
    EXPECT_EQ(got.identity.groups, sent.identity.groups);
    EXPECT_EQ(text, "{\"a\":\"x\\ny\"}");
  }
  for (const char* bad : {"", "{}", "0\n{}", "0 2\n{}", "x 0\n{}", " 0 0\n", "99999999999 0\n{}",
                          "0 0 0\n{}",       // ids without groups
                          "0 -1 5 5 5\n{}",  // ids without a lookup
                          "0 1 5 5 5,\n{}", "0 1 5 5 5,,6\n{}", "0 1 -5 5 5\n{}",
                          "0 1 5 5 4294967296\n{}", "0 1 5 5 5 6\n{}"}) {
    AnswerHeader got;
    EXPECT_FALSE(DecodeAnswer(bad, &got, &text)) << bad;
  }
}

TEST(AccessLogTest, LinesHoldNoQueryAndCannotBeForged) {
  AccessRecord record{"127.0.0.1",
                      "ann",
                      "GET",
                      "/webapi/entry.cgi\n2026 forged \"line",
                      200,
                      42,
                      "KEST.Test.Host",
                      "echo",
                      1,
                      120,
                      7};
  EXPECT_EQ(FormatAccessRecord(record, 0),
            "1970-01-01T00:00:00Z 127.0.0.1 ann \"GET "
            "/webapi/entry.cgi\\x0a2026 forged "
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
