// The indicate method: one sub-query per file type over the indices the user
// may see, zeros without a daemon or without an index.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "kest/json.h"
#include "module/api_runner.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "webapi/indicate.h"

namespace kesttest {
namespace {

using kestondri::webapi::IndicateAPI;

Json::Value Params(const std::string& file_types) {
  Json::Value params = ParseJson(R"({"keyword": "kw",
      "criteria_list": [{"field": "KESTMDExtension", "value": "pdf"}],
      "search_weight_list": [{"field": "KESTMDFSName", "weight": 1.5}]})");
  params["file_type"] = ParseJson(file_types);
  return params;
}

class IndicateTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    MakeSearchShares();
    IndexShares({"docs", "homes", "private"});
    SyslogCapture::Instance().Clear();
  }
  void TearDown() override {
    BecomeRoot();
    ReapChildren();
    unlink("/var/run/kestelasticd.sock");
  }
};

TEST_F(IndicateTest, RequestPerUser) {
  struct Case {
    Login login;
    const char* indice;
    const char* permission;  // the filter that comes first, or ""
  } cases[] = {
      {kCarol, R"(["fileindex_docs", "fileindex_homes", "fileindex_private"])", ""},
      {kAnn, R"(["fileindex_docs", "fileindex_homes"])",
       R"({"name": "permission", "data": 2001}, )"},
      // Closed to every share but the homes, which nobody is asked about.
      {kDave, R"(["fileindex_homes"])", R"({"name": "permission", "data": 2004}, )"},
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    const Json::Value counts = ParseJson(R"({"document": 3, "image": 0})");
    daemon.On("indicate", DaemonReply::Success(counts));
    const auto response = RunAPI<IndicateAPI>(c.login, Params(R"(["document", "image"])"));
    ASSERT_TRUE(response.IsSuccess()) << c.login.name;
    EXPECT_EQ(counts, response.GetData()) << c.login.name;
    const auto requests = daemon.Requests();
    ASSERT_EQ(1u, requests.size());
    const std::string expected = std::string(R"({"command": "indicate", "data": {
        "keyword": "kw", "indice": )") +
                                 c.indice + R"(,
        "criteria_list": [{"field": "KESTMDExtension", "value": "pdf"}],
        "search_weight_list": [{"field": "KESTMDFSName", "weight": 1.5}],
        "queries": [
          {"query": {"filters": [)" +
                                 c.permission +
                                 R"({"name": "file_type", "data": "document"}],
                     "default_search_op": "AND"}, "name": "document"},
          {"query": {"filters": [)" +
                                 c.permission +
                                 R"({"name": "file_type", "data": "image"}],
                     "default_search_op": "AND"}, "name": "image"}]}})";
    EXPECT_EQ(ParseJson(expected), requests[0]) << c.login.name << "\n"
                                                << requests[0].toStyledString();
  }
}

TEST_F(IndicateTest, ZerosWhenTheDaemonIsNotAsked) {
  struct Case {
    const char* what;
    Login login;
    std::string file_types;
    bool daemon;
    const char* answer;
  } cases[] = {
      {"no daemon socket", kAnn, R"(["document", "image", "document"])", false,
       R"({"document": 0, "image": 0})"},
      {"no file type", kAnn, "[]", false, "{}"},
  };
  for (const auto& c : cases) {
    const auto response = RunAPI<IndicateAPI>(c.login, Params(c.file_types));
    ASSERT_TRUE(response.IsSuccess()) << c.what;
    EXPECT_EQ(ParseJson(c.answer), response.GetData()) << c.what;
  }
}

TEST_F(IndicateTest, ZerosWithoutAVisibleIndex) {
  IndexShares({"private"});
  FakeDaemon daemon;
  const auto response = RunAPI<IndicateAPI>(kDave, Params(R"(["video"])"));
  ASSERT_TRUE(response.IsSuccess());
  EXPECT_EQ(ParseJson(R"({"video": 0})"), response.GetData());
  EXPECT_EQ(0, daemon.Connections());
}

TEST_F(IndicateTest, EmptyFileTypeListSendsNoQueries) {
  FakeDaemon daemon;
  daemon.On("indicate", DaemonReply::Success(ParseJson("{}")));
  ASSERT_TRUE(RunAPI<IndicateAPI>(kAnn, Params("[]")).IsSuccess());
  ASSERT_EQ(1u, daemon.Requests().size());
  EXPECT_FALSE(daemon.Requests()[0]["data"].isMember("queries"));
}

TEST_F(IndicateTest, DuplicateFileTypesAskTwiceButCountOnce) {
  FakeDaemon daemon;
  daemon.On("indicate", DaemonReply().Text(R"({"success": true, "data": {"audio": 2}})"));
  const auto response = RunAPI<IndicateAPI>(kCarol, Params(R"(["audio", "audio"])"));
  ASSERT_TRUE(response.IsSuccess());
  const auto queries = daemon.Requests().at(0)["data"]["queries"];
  ASSERT_EQ(2u, queries.size());
  EXPECT_EQ(queries[0], queries[1]);
  EXPECT_EQ(ParseJson(R"({"audio": 2})"), response.GetData());
}

TEST_F(IndicateTest, DaemonReplies) {
  struct Case {
    const char* what;
    DaemonReply reply;
    int code;
    Json::Value data;
    const char* log;
  } cases[] = {
      // "success" is not looked at: the data is the answer.
      {"failure still answers its data",
       DaemonReply().Text(R"({"success": false, "data": {"document": 1}})"), 0,
       ParseJson(R"({"document": 1})"), ""},
      {"no data", DaemonReply().Text(R"({"success": true})"), 0, Json::Value(), ""},
      {"not JSON", DaemonReply().Text("{oops"), 121, Json::Value(),
       "Malformed resp from daemon: {oops"},
      {"closed early", DaemonReply().Close(), 121, Json::Value(), "Recv from daemon fail"},
  };
  for (auto& c : cases) {
    FakeDaemon daemon;
    SyslogCapture::Instance().Clear();
    daemon.On("indicate", c.reply);
    const auto response = RunAPI<IndicateAPI>(kAnn, Params(R"(["document"])"));
    EXPECT_EQ(c.code, response.IsSuccess() ? 0 : response.GetErrorCode()) << c.what;
    if (c.code == 0) {
      EXPECT_EQ(c.data, response.GetData()) << c.what;
    }
    if (*c.log) {
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(c.log)) << c.what;
    }
  }
}

TEST_F(IndicateTest, SocketWithoutListenerIs605) {
  BindDeadSocket(FakeDaemon::kSocketPath);
  EXPECT_EQ(605, RunAPI<IndicateAPI>(kAnn, Params(R"(["document"])")).GetErrorCode());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Cannot connect to kestelastic daemon"));
}

}  // namespace
}  // namespace kesttest
