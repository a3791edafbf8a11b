// The highlight method: the read check before any daemon traffic, the
// request as sent, and the reply passed through.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "kest/json.h"
#include "module/api_runner.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "webapi/highlight.h"

namespace kesttest {
namespace {

using kestondri::webapi::HighlightAPI;

Json::Value Params(const std::string& path) {
  Json::Value params = ParseJson(R"({"doc_id": 17, "keyword": "kw",
      "highlight": {"field": "KESTMDTextContent", "frag_length": 100, "num_fragments": 3,
                    "extra": "kept"}})");
  params["full_path"] = path;
  return params;
}

class HighlightTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    MakeSearchShares();
    SyslogCapture::Instance().Clear();
  }
  void TearDown() override {
    BecomeRoot();
    ReapChildren();
  }
};

TEST_F(HighlightTest, UnreadableFileIs507WithoutDaemonTraffic) {
  struct Case {
    Login login;
    const char* path;
  } cases[] = {
      {kAnn, "/volume1/docs/closed.txt"},  // the file's own mode
      {kDave, "/volume1/docs/open.txt"},   // no privilege on the share
      {kAnn, "/volume1/private/p.txt"},    // a share closed to the user
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    SyslogCapture::Instance().Clear();
    const auto response = RunAPI<HighlightAPI>(c.login, Params(c.path));
    EXPECT_EQ(507, response.GetErrorCode()) << c.path;
    EXPECT_EQ(0, daemon.Connections()) << c.path;
    const std::string line = std::string("Failed [!file_perm.CheckRead(full_path.Get())], ") +
                             "reason: No file permission, path: " + c.path +
                             ", user: " + c.login.name;
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor(line)) << line;
  }
}

// A user's request names the user: the path checked here is the client's,
// and only the daemon can tell whether the document is that file.
TEST_F(HighlightTest, RequestIsSentAsBuiltAndTheDataComesBackUnchanged) {
  WriteFile("/volume1/homes/note.txt", "x", 0644);
  const struct {
    Login login;
    const char* path;
    const char* id;
  } cases[] = {
      {kAnn, "/volume1/docs/open.txt", "fileindex_docs"},
      {kCarol, "/volume1/homes/note.txt", "fileindex_homes"},
  };
  for (const auto& c : cases) {
    const Login& login = c.login;
    FakeDaemon daemon;
    const Json::Value data =
        ParseJson(R"({"KESTMDTextContent": ["a <em>kw</em> b"], "n": [1, 2]})");
    daemon.On("highlight", DaemonReply::Success(data));
    const auto response = RunAPI<HighlightAPI>(login, Params(c.path));
    ASSERT_TRUE(response.IsSuccess()) << response.GetErrorCode();
    EXPECT_EQ(data, response.GetData());
    const auto requests = daemon.Requests();
    ASSERT_EQ(1u, requests.size());
    Json::Value expected = ParseJson(R"({"command": "highlight", "data": {
        "doc_id": 17,
        "highlight": {"field": "KESTMDTextContent", "frag_length": 100, "num_fragments": 3,
                      "extra": "kept"},
        "keyword": "kw", "search_weight_list": []}})");
    expected["data"]["id"] = c.id;
    if (!login.admin) {
      expected["data"]["filters"] = ParseJson(R"([{"name": "permission", "data": 2001}])");
    }
    EXPECT_EQ(expected, requests[0]) << login.name;
  }
}

TEST_F(HighlightTest, DaemonReplies) {
  struct Case {
    const char* what;
    DaemonReply reply;
    int code;  // 0: success
    Json::Value data;
    const char* log;
  } cases[] = {
      {"success without data", DaemonReply().Text(R"({"success": true})"), 0, Json::Value(), ""},
      {"the daemon's own code", DaemonReply::Failure(4321, "gone"), 4321, Json::Value(), ""},
      {"not JSON", DaemonReply().Text("oops"), 121, Json::Value(),
       "Malformed resp from daemon: oops"},
      {"a failure without a code", DaemonReply().Text(R"({"success": false})"), 121, Json::Value(),
       "Malformed resp from daemon"},
      {"closed early", DaemonReply().Close(), 121, Json::Value(), "Recv from daemon fail"},
      {"a length that lies", DaemonReply().Header(1000).Raw("{}").Close(), 121, Json::Value(),
       "Recv from daemon fail"},
  };
  for (auto& c : cases) {
    FakeDaemon daemon;
    SyslogCapture::Instance().Clear();
    daemon.On("highlight", c.reply);
    const auto response = RunAPI<HighlightAPI>(kAnn, Params("/volume1/docs/open.txt"));
    EXPECT_EQ(c.code, response.IsSuccess() ? 0 : response.GetErrorCode()) << c.what;
    if (c.code == 0) {
      EXPECT_EQ(c.data, response.GetData()) << c.what;
    }
    if (*c.log) {
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(c.log)) << c.what;
    }
  }
}

TEST_F(HighlightTest, NoDaemonIs605) {
  const auto response = RunAPI<HighlightAPI>(kAnn, Params("/volume1/docs/open.txt"));
  EXPECT_EQ(605, response.GetErrorCode());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Cannot connect to kestelastic daemon"));
}

}  // namespace
}  // namespace kesttest
