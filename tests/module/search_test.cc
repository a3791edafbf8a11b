// The search method end to end: real shares and users, a scripted daemon on
// the real socket, real tracking files, processes and history database.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/process_mark.h"
#include "kest/json.h"
#include "kestondri/db.h"
#include "kestondri/pref.h"
#include "module/api_runner.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "webapi/search.h"

namespace kesttest {
namespace {

using kestondri::webapi::SearchAPI;

std::string TrackingFile(const std::string& id) { return "/tmp/vyr_query_" + id + ".pid"; }

// A search request with every parameter given.
Json::Value FullParams() {
  return ParseJson(R"({
    "indice": ["docs", "private", "nosuch", "homes"],
    "from": 10, "size": 20, "query_serial": 3,
    "fields": ["KESTMDPath", "KESTMDFSName"],
    "file_type": "document",
    "highlight": [{"field": "KESTMDTextContent", "frag_length": 80, "num_fragments": 2}],
    "keyword": "kw*", "orig_keyword": "kw",
    "criteria_list": [{"field": "KESTMDExtension", "value": "pdf"}],
    "search_weight_list": [{"field": "KESTMDFSName", "weight": 2.5}],
    "agent": "desktop"
  })");
}

// The smallest request the method accepts, searching `shares`.
Json::Value Params(const std::vector<std::string>& shares, const std::string& query_id = "",
                   int serial = 0) {
  Json::Value params = ParseJson(R"({"from": 0, "size": 10, "fields": [], "file_type": ""})");
  params["indice"] = Json::Value(Json::arrayValue);
  for (const auto& s : shares) params["indice"].append(s);
  if (!query_id.empty()) params["query_id"] = query_id;
  params["query_serial"] = serial;
  return params;
}

DaemonReply Hits(const std::vector<std::string>& messages) {
  DaemonReply reply;
  for (const auto& m : messages) reply.Text(m);
  return reply;
}

DaemonReply StatusReply() {
  return DaemonReply().Text(
      R"({"success": true, "data": {"unknown": ["fileindex_a"], "checking": ["fileindex_b"],
          "crashed": ["fileindex_c", "fileindex_a"]}})");
}

class SearchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    MakeSearchShares();
    system("rm -f /tmp/vyr_query_*");
    SyslogCapture::Instance().Clear();
  }
  void TearDown() override {
    BecomeRoot();
    ReapChildren();
    unlink("/var/run/kestelasticd.sock");
  }

  // Runs a search as `login` against the scripted daemon.
  KEST::APIResponse Search(const Login& login, const Json::Value& params) {
    return RunAPI<SearchAPI>(login, params);
  }
};

TEST_F(SearchTest, DaemonRequestIsBuiltMemberByMember) {
  const char* kCommon = R"(
      "pre_query": {"keyword": "kw*",
                    "criteria_list": [{"field": "KESTMDExtension", "value": "pdf"}],
                    "file_type": "document",
                    "search_weight_list": [{"field": "KESTMDFSName", "weight": 2.5}]},
      "orig_keyword": "kw", "from": 10, "size": 20,
      "default_search_op": "AND", "accurate_sum": false,
      "load_field": ["KESTMDPath", "KESTMDFSName", "KESTMDExtension", "KESTMDIsDir",
                     "KESTMDFSSize"],
      "lazy_field": ["KESTMDTextContent"],
      "highlight": [{"field": "KESTMDTextContent", "frag_length": 80, "num_fragments": 2}],
      "fields": ["KESTMDPath", "KESTMDFSName"])";
  struct Case {
    Login login;
    std::string data;
  } cases[] = {
      // An administrator searches every share that exists, with no filter.
      {kCarol, std::string("{") + kCommon + R"(,
         "indice": ["fileindex_docs", "fileindex_private", "fileindex_homes"],
         "collector": {"agent": "desktop", "uid": 2003, "has_criteria": true}})"},
      // Another user loses the share closed to them and carries the filter.
      {kAnn, std::string("{") + kCommon + R"(,
         "filters": [{"name": "permission", "data": 2001}],
         "indice": ["fileindex_docs", "fileindex_homes"],
         "collector": {"agent": "desktop", "uid": 2001, "has_criteria": true}})"},
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    daemon.On("search", Hits({R"({"total": 0})", R"({"success": true})"}));
    daemon.On("list_db_status", StatusReply());
    const auto response = Search(c.login, FullParams());
    ASSERT_TRUE(response.IsSuccess()) << c.login.name << " " << response.GetErrorCode();
    const auto requests = daemon.Requests("search");
    ASSERT_EQ(1u, requests.size());
    Json::Value expected;
    expected["command"] = "search";
    expected["data"] = ParseJson(c.data);
    EXPECT_EQ(expected, requests[0]) << c.login.name << "\n" << requests[0].toStyledString();
    const auto status = daemon.Requests("list_db_status");
    ASSERT_EQ(1u, status.size());
    EXPECT_EQ(ParseJson(R"({"command": "list_db_status", "data": {}})"), status[0]);
  }
}

TEST_F(SearchTest, HomesIsSearchedForEveryUserWithoutAPrivilegeCheck) {
  FakeDaemon daemon;
  daemon.On("search", Hits({R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  // dave is refused by the homes share itself, and by docs.
  ASSERT_TRUE(Search(kDave, Params({"docs", "homes"})).IsSuccess());
  EXPECT_EQ(ParseJson(R"(["fileindex_homes"])"), daemon.Requests("search").at(0)["data"]["indice"]);
}

TEST_F(SearchTest, NoShareNamedSearchesEveryIndexedShareInNameOrder) {
  IndexShares({"private", "homes", "docs"});
  struct Case {
    Login login;
    const char* indice;
  } cases[] = {
      {kCarol, R"(["fileindex_docs", "fileindex_homes", "fileindex_private"])"},
      {kAnn, R"(["fileindex_docs", "fileindex_homes"])"},
  };
  for (const auto& c : cases) {
    for (const bool absent : {true, false}) {
      FakeDaemon daemon;
      daemon.On("search", Hits({R"({"success": true})"}));
      daemon.On("list_db_status", StatusReply());
      Json::Value params = Params({});
      if (absent) params.removeMember("indice");
      ASSERT_TRUE(Search(c.login, params).IsSuccess()) << c.login.name;
      EXPECT_EQ(ParseJson(c.indice), daemon.Requests("search").at(0)["data"]["indice"])
          << c.login.name << (absent ? " without indice" : " with an empty indice");
    }
  }
  IndexShares({});
}

TEST_F(SearchTest, DefaultsOfOptionalParameters) {
  FakeDaemon daemon;
  daemon.On("search", Hits({R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  ASSERT_TRUE(Search(kAnn, Params({"docs"})).IsSuccess());
  const auto data = daemon.Requests("search").at(0)["data"];
  EXPECT_EQ("others", data["collector"]["agent"].asString());
  EXPECT_FALSE(data["collector"]["has_criteria"].asBool());
  EXPECT_FALSE(data.isMember("highlight"));
  EXPECT_EQ(Json::Value(Json::arrayValue), data["pre_query"]["criteria_list"]);
  EXPECT_TRUE(data["pre_query"]["search_weight_list"].isNull());
  EXPECT_EQ("", data["pre_query"]["keyword"].asString());
  EXPECT_EQ("", data["orig_keyword"].asString());
  EXPECT_EQ(-1, access(TrackingFile("").c_str(), F_OK)) << "untracked: no file";
}

TEST_F(SearchTest, ReplyStreamRules) {
  struct Case {
    const char* what;
    std::vector<std::string> messages;
    Json::Value total;
    std::vector<std::string> hit_names;
  } cases[] = {
      {"count, hits, end",
       {R"({"total": 2})", R"({"KESTMDFSName": "a"})", R"({"KESTMDFSName": "b"})",
        R"({"success": true})"},
       2,
       {"a", "b"}},
      {"the later count wins",
       {R"({"total": 5})", R"({"KESTMDFSName": "a"})", R"({"total": 7})", R"({"success": true})"},
       7,
       {"a"}},
      {"a hit holding total is a count",
       {R"({"KESTMDFSName": "a"})", R"({"KESTMDFSName": "b", "total": 9})", R"({"success": true})"},
       9,
       {"a"}},
      {"a count holding success is still a count",
       {R"({"total": 1, "success": false})", R"({"KESTMDFSName": "a"})", R"({"success": true})"},
       1,
       {"a"}},
      {"no count at all",
       {R"({"KESTMDFSName": "a"})", R"({"success": true})"},
       Json::Value(),
       {"a"}},
      {"nothing but the end", {R"({"success": true})"}, Json::Value(), {}},
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    daemon.On("search", Hits(c.messages));
    daemon.On("list_db_status", StatusReply());
    const auto response = Search(kCarol, Params({"docs"}));
    ASSERT_TRUE(response.IsSuccess()) << c.what;
    const auto& out = response.GetData();
    EXPECT_EQ(c.total, out["total"]) << c.what;
    ASSERT_EQ(c.hit_names.size(), out["hits"].size()) << c.what;
    for (Json::ArrayIndex i = 0; i < out["hits"].size(); ++i) {
      EXPECT_EQ(c.hit_names[i], out["hits"][i]["KESTMDFSName"].asString()) << c.what;
    }
    EXPECT_EQ(ParseJson(R"(["fileindex_a", "fileindex_b", "fileindex_c", "fileindex_a"])"),
              out["unavail"])
        << c.what;
  }
}

TEST_F(SearchTest, DaemonTroubleCostsAnErrorCode) {
  const std::string over_cap = [] {
    const uint32_t n = htonl((64u << 20) + 1);
    return std::string(reinterpret_cast<const char*>(&n), 4);
  }();
  struct Case {
    const char* what;
    DaemonReply search;
    DaemonReply status;
    int code;
    const char* check;  // the failed check logged, or ""
  } cases[] = {
      {"closed before replying", DaemonReply().Close(), StatusReply(), 121, "!conn.Recv(str_resp)"},
      {"closed in mid stream", Hits({R"({"total": 1})", R"({"KESTMDFSName": "a"})"}), StatusReply(),
       121, "!conn.Recv(str_resp)"},
      {"text that is not JSON", Hits({R"({"total": 1})", "{\"KESTMDFSName\": "}), StatusReply(),
       121, "!js_resp.fromString(str_resp)"},
      {"a length that lies", DaemonReply().Header(500).Raw("{}").Close(), StatusReply(), 121,
       "!conn.Recv(str_resp)"},
      {"a length over the cap", DaemonReply().Raw(over_cap + "{}"), StatusReply(), 121,
       "!conn.Recv(str_resp)"},
      {"a hit that is no object", Hits({"[1, 2]", R"({"success": true})"}), StatusReply(), 121,
       "!js_resp.fromString(str_resp)"},
      {"a count that is no number", Hits({R"({"total": "many"})", R"({"success": true})"}),
       StatusReply(), 121, ""},
      {"the daemon's own code", DaemonReply::Failure(4242, "index busy"), StatusReply(), 4242, ""},
      {"a failure without a code", Hits({R"({"success": false, "error": {"msg": "x"}})"}),
       StatusReply(), 120, ""},
      {"a failure without error", Hits({R"({"success": false})"}), StatusReply(), 120, ""},
      {"status that is not JSON", Hits({R"({"success": true})"}), DaemonReply().Text("oops"), 121,
       "!res.fromString(str_res)"},
      {"status closed early", Hits({R"({"success": true})"}), DaemonReply().Close(), 121,
       "!conn.Recv(str_res)"},
  };
  for (auto& c : cases) {
    SyslogCapture::Instance().Clear();
    FakeDaemon daemon;
    daemon.On("search", c.search);
    daemon.On("list_db_status", c.status);
    const auto response = Search(kAnn, Params({"docs"}));
    EXPECT_TRUE(response.IsError()) << c.what;
    EXPECT_EQ(c.code, response.GetErrorCode()) << c.what;
    EXPECT_TRUE(response.GetErrorData().isNull()) << c.what;
    if (*c.check) {
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(std::string("Failed [") + c.check +
                                                    "], reason: KestOndri error, code=121"))
          << c.what;
    }
  }
}

TEST_F(SearchTest, MalformedQueryReportsTheRequestInsteadOfTheDaemonText) {
  FakeDaemon daemon;
  daemon.On("search", DaemonReply::Failure(1001, "parse error near x"));
  const auto response = Search(kAnn, Params({"docs"}));
  EXPECT_EQ(1001, response.GetErrorCode());
  ASSERT_EQ(1u, daemon.RawRequests().size());
  const std::string expected =
      "Got exception: Unable to perform search, msg=" + std::string("Malformed search query: ") +
      daemon.RawRequests()[0];
  ASSERT_TRUE(SyslogCapture::Instance().WaitFor(expected));
  EXPECT_TRUE(SyslogCapture::Instance().Matching("parse error near x").empty());
}

TEST_F(SearchTest, SocketThatNobodyListensOnIs605) {
  BindDeadSocket(FakeDaemon::kSocketPath);
  EXPECT_EQ(605, Search(kAnn, Params({"docs"})).GetErrorCode());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      "(Search) Failed [!conn.Connect(kElasticdConnectTimeout)], reason: KestOndri error, "
      "code=605"));
}

TEST_F(SearchTest, NoShareToSearchAnswersEmptyWithoutTheDaemon) {
  FakeDaemon daemon;
  struct Case {
    const char* what;
    Login login;
    std::vector<std::string> shares;
  } cases[] = {
      {"every share closed to the user", kDave, {"docs", "private"}},
      {"shares that do not exist", kCarol, {"nosuch", "gone"}},
  };
  for (const auto& c : cases) {
    const auto response = Search(c.login, Params(c.shares, "q-empty", 4));
    ASSERT_TRUE(response.IsSuccess()) << c.what;
    EXPECT_EQ(ParseJson(R"({"hits": [], "total": 0, "unavail": []})"), response.GetData())
        << c.what;
    EXPECT_EQ(-1, access(TrackingFile("q-empty").c_str(), F_OK)) << c.what;
  }
  EXPECT_EQ(0, daemon.Connections());
}

// Reaches the protected steps of the method.
class SearchProbe : public SearchAPI {
 public:
  using SearchAPI::SearchAPI;
  Json::Value RunSearch() { return Search(); }
};

TEST_F(SearchTest, WithoutASocketTheSearchStepIsEmptyButTheStatusStepFails) {
  KEST::APIRequest request(Params({"docs"}), kAnnUid, "ann", "s", false);
  KEST::APIResponse response;
  {
    SearchProbe probe(&request, &response);
    EXPECT_EQ(ParseJson(R"({"hits": [], "total": 0})"), probe.RunSearch());
  }
  BecomeRoot();
  // The whole method still asks for the index status, which needs the daemon.
  EXPECT_EQ(605, Search(kAnn, Params({"docs"})).GetErrorCode());
}

TEST_F(SearchTest, HitsGainSharePathReadabilityOwnerAndMountFlag) {
  FakeDaemon daemon;
  daemon.On("search",
            Hits({R"({"total": 6})",
                  R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "2002"})",
                  R"({"KESTMDPath": "/volume1/docs/closed.txt", "KESTMDOwnerUserID": "2002",
                      "additional": {"kept": 1}})",
                  R"({"KESTMDPath": "/volume1/homes/ann", "KESTMDOwnerUserID": "2001"})",
                  R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "not a uid"})",
                  R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "77777"})",
                  R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "4294967296"})",
                  R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": ""})",
                  R"({"KESTMDPath": "/volume1", "KESTMDOwnerUserID": "0"})",
                  R"({"KESTMDFSName": "bare"})", R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  const auto response = Search(kAnn, Params({"docs"}));
  ASSERT_TRUE(response.IsSuccess()) << response.GetErrorCode();
  const auto& hits = response.GetData()["hits"];
  struct Expect {
    const char* share_path;
    bool readable;
    Json::Value owner;  // null: no owner name set
    bool mount_point;
  } expect[] = {
      {"/docs/open.txt", true, "bob", false},
      {"/docs/closed.txt", false, "bob", false},
      {"/home", true, "ann", false},  // the user's own home folder
      {"/docs/open.txt", true, "", false},
      {"/docs/open.txt", true, "", false},
      {"/docs/open.txt", true, "root", false},  // only the low 32 bits count
      {"/docs/open.txt", true, Json::Value(), false},
      {"", true, "root", true},  // in no share; the volume is a mount point
      {"", false, Json::Value(), false},
  };
  ASSERT_EQ(sizeof(expect) / sizeof(expect[0]), hits.size());
  for (Json::ArrayIndex i = 0; i < hits.size(); ++i) {
    EXPECT_EQ(expect[i].share_path, hits[i]["KESTMDSharePath"].asString()) << i;
    EXPECT_EQ(expect[i].readable, hits[i]["readable"].asBool()) << i;
    EXPECT_EQ(expect[i].owner, hits[i].get("KESTMDOwnerUserName", Json::Value())) << i;
    EXPECT_EQ(expect[i].mount_point, hits[i]["additional"]["is_mount_point"].asBool()) << i;
  }
  EXPECT_EQ(1, hits[1]["additional"]["kept"].asInt());
  // Members the daemon did not send are not made up as null.
  EXPECT_EQ((Json::Value::Members{"KESTMDFSName", "KESTMDSharePath", "additional", "readable"}),
            hits[8].getMemberNames());
  EXPECT_EQ(6, response.GetData()["total"].asInt());
}

TEST_F(SearchTest, QueryIdWithASlashIsRefusedBeforeAnyFile) {
  FakeDaemon daemon;
  mkdir("/tmp/vyr_query_x", 0777);
  const auto response = Search(kAnn, Params({"docs"}, "x/../../etc/passwd", 2));
  EXPECT_EQ(120, response.GetErrorCode());
  EXPECT_EQ(0, daemon.Connections());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(R"(Failed [string::npos != query_id_.find("/")])"));
  rmdir("/tmp/vyr_query_x");
}

// Runs one search in a child process and reports its answer through a pipe.
struct RemoteSearch {
  pid_t pid;
  int fd;
};

RemoteSearch StartSearch(const Json::Value& params, const Login& login = kAnn) {
  int fds[2];
  EXPECT_EQ(0, pipe(fds));
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const auto response = RunAPIUnguarded<SearchAPI>(login, params);
    const std::string text = Json::toString(response.ToJson());
    (void)!write(fds[1], text.data(), text.size());
    _exit(0);
  }
  close(fds[1]);
  return {pid, fds[0]};
}

std::string ReadAll(int fd) {
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) out.append(buf, static_cast<size_t>(n));
  close(fd);
  return out;
}

// A process that stands for an older request of the query id: a sibling of
// the searches StartSearch forks, acting as `euid` as a worker does.
pid_t SpawnSleeper(uid_t euid) {
  int ready[2];
  EXPECT_EQ(0, pipe(ready));
  const pid_t pid = fork();
  if (pid == 0) {
    close(ready[0]);
    if (seteuid(euid) != 0) _exit(1);
    close(ready[1]);
    for (;;) pause();
  }
  close(ready[1]);
  char byte;
  (void)!read(ready[0], &byte, 1);  // end of file once it acts as euid
  close(ready[0]);
  return pid;
}

void ReplaceAll(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

TEST_F(SearchTest, TrackingFileDecidesWhoRuns) {
  // A record as the module writes it; "%PID%" and "%START%" name the sleeper.
  const std::string kRecord =
      R"({"pid": %PID%, "query_serial": 6, "start_time": %START%, "mine": 1})";
  struct Case {
    const char* what;
    std::string file;
    int serial;
    int code;                    // 0: success
    bool killed;                 // the recorded process was stopped
    bool file_is_gone;           // else it is left as it was
    uid_t sleeper = kAnnUid;     // the identity the recorded process acts as
    bool sleeper_ended = false;  // it ended before the request came
    const char* refusal = nullptr;
  } cases[] = {
      {"newer serial stops the older", kRecord, 7, 0, true, true},
      {"older serial is outdated", kRecord, 5, 1600, false, false},
      {"equal serial is outdated", kRecord, 6, 1600, false, false},
      {"pid 0 is outdated", R"({"pid": 0, "query_serial": 1})", 6, 1600, false, false},
      {"negative pid is outdated", R"({"pid": -3, "query_serial": 1})", 6, 1600, false, false},
      {"no pid is outdated", R"({"query_serial": 1})", 6, 1600, false, false},
      {"unreadable record is ignored", "{not json", 6, 0, false, true},
      // A failed or killed request blocks nobody, and its pid is no target.
      {"an ended request", kRecord, 5, 0, false, true, kAnnUid, true},
      {"a reused pid", R"({"pid": %PID%, "query_serial": 6, "start_time": 1})", 5, 0, false, true},
      {"a record without start time", R"({"pid": %PID%, "query_serial": 6})", 7, 0, false, true},
      // What a user with a shell writes into a record of their own.
      {"a root process", kRecord, 7, 0, false, true, 0, false, "acts for another identity"},
      {"another user's search", kRecord, 5, 0, false, true, kBobUid, false,
       "acts for another identity"},
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    daemon.On("search", Hits({R"({"success": true})"}));
    daemon.On("list_db_status", StatusReply());
    SyslogCapture::Instance().Clear();
    const pid_t sleeper = SpawnSleeper(c.sleeper);
    kestondri::ProcessMark mark;
    ASSERT_TRUE(kestondri::ReadProcessMark(sleeper, &mark)) << c.what;
    std::string text = c.file;
    ReplaceAll(text, "%PID%", std::to_string(sleeper));
    ReplaceAll(text, "%START%", std::to_string(mark.start_time));
    int status = 0;
    if (c.sleeper_ended) {
      kill(sleeper, SIGKILL);
      ASSERT_EQ(sleeper, waitpid(sleeper, &status, 0)) << c.what;
    }
    const std::string path = TrackingFile("q1");
    WriteFile(path, text);
    chown(path.c_str(), kAnnUid, kAnnUid);  // left by an earlier request of ann's

    const RemoteSearch search = StartSearch(Params({"docs"}, "q1", c.serial));
    const auto answer = ParseJson(ReadAll(search.fd));
    ASSERT_EQ(search.pid, waitpid(search.pid, &status, 0)) << c.what;
    EXPECT_EQ(c.code, answer["success"].asBool() ? 0 : answer["error"]["code"].asInt()) << c.what;
    if (!c.sleeper_ended) {
      // Ends a sleeper that the request left alone; a killed one is a zombie.
      kill(sleeper, SIGTERM);
      ASSERT_EQ(sleeper, waitpid(sleeper, &status, 0)) << c.what;
      ASSERT_TRUE(WIFSIGNALED(status)) << c.what;
      EXPECT_EQ(c.killed ? SIGKILL : SIGTERM, WTERMSIG(status)) << c.what;
    }
    if (c.file_is_gone) {
      EXPECT_EQ(-1, access(path.c_str(), F_OK)) << c.what;
    } else {
      EXPECT_EQ(text, ReadFile(path)) << c.what;
    }
    if (c.code == 1600) {
      EXPECT_EQ(0, daemon.Connections()) << c.what;
    }
    if (c.refusal) {
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
          "Failed [IsOlderRequest(pid)], reason: refused to stop pid " + std::to_string(sleeper) +
          ": " + c.refusal))
          << c.what;
    }
    unlink(path.c_str());
  }
}

TEST_F(SearchTest, TrackingFileNotWrittenByTheModuleIsIgnored) {
  FakeDaemon daemon;
  const std::string path = TrackingFile("q3");
  const std::string victim = "/tmp/victim";

  // Planted by another user: nobody is stopped, and it is not replaced.
  daemon.On("search", Hits({R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  const pid_t sleeper = SpawnSleeper(kAnnUid);
  const std::string planted = R"({"pid": )" + std::to_string(sleeper) + R"(, "query_serial": 1})";
  WriteFile(path, planted);
  chown(path.c_str(), kBobUid, kBobUid);
  EXPECT_TRUE(RunAPIUnguarded<SearchAPI>(kAnn, Params({"docs"}, "q3", 6)).IsSuccess());
  kill(sleeper, SIGTERM);
  int status = 0;
  ASSERT_EQ(sleeper, waitpid(sleeper, &status, 0));
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(planted, ReadFile(path));
  unlink(path.c_str());

  // A symbolic link is never followed, neither to read nor to write.
  daemon.On("search", Hits({R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  WriteFile(victim, "precious");
  chown(victim.c_str(), kAnnUid, kAnnUid);
  ASSERT_EQ(0, symlink(victim.c_str(), path.c_str()));
  EXPECT_TRUE(Search(kAnn, Params({"docs"}, "q3", 7)).IsSuccess());
  EXPECT_EQ("precious", ReadFile(victim));
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Failed [!query_info.toFile(query_info_file_)]"));
  unlink(path.c_str());
  unlink(victim.c_str());
}

TEST_F(SearchTest, FailedSearchLeavesItsClaimWhichDoesNotStopItsOwnProcess) {
  FakeDaemon daemon;
  daemon.On("search", DaemonReply::Failure(4242, "broken"));
  ASSERT_EQ(4242, Search(kAnn, Params({"docs"}, "q2", 9)).GetErrorCode());
  const auto record = ParseJson(ReadFile(TrackingFile("q2")));
  EXPECT_EQ(static_cast<int>(getpid()), record["pid"].asInt());
  EXPECT_EQ(9, record["query_serial"].asInt());
  // The worker goes on serving: the next request of the query id must not
  // stop the process it runs in.
  daemon.On("search", Hits({R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());
  EXPECT_TRUE(Search(kAnn, Params({"docs"}, "q2", 10)).IsSuccess());
  EXPECT_EQ(-1, access(TrackingFile("q2").c_str(), F_OK));
}

TEST_F(SearchTest, NewerRequestOfTheSameQueryKillsTheOlderProcess) {
  FakeDaemon daemon;
  // The older request waits for a reply that never comes.
  daemon.On("search", DaemonReply().HoldUntilClientGoes());
  daemon.On("search", Hits({R"({"total": 1})", R"({"KESTMDPath": "/volume1/docs/open.txt"})",
                            R"({"success": true})"}));
  daemon.On("list_db_status", StatusReply());

  const RemoteSearch older = StartSearch(Params({"docs"}, "typeahead", 5));
  ASSERT_TRUE(daemon.WaitForRequests(1));
  const auto claim = ParseJson(ReadFile(TrackingFile("typeahead")));
  EXPECT_EQ(older.pid, claim["pid"].asInt());
  EXPECT_EQ(5, claim["query_serial"].asInt());

  const RemoteSearch newer = StartSearch(Params({"docs"}, "typeahead", 6));
  const auto answer = ParseJson(ReadAll(newer.fd));
  int status = 0;
  ASSERT_EQ(newer.pid, waitpid(newer.pid, &status, 0));
  EXPECT_TRUE(answer["success"].asBool()) << Json::toString(answer);

  // Were the older one still running, this would end it with another signal.
  kill(older.pid, SIGTERM);
  ASSERT_EQ(older.pid, waitpid(older.pid, &status, 0));
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(SIGKILL, WTERMSIG(status));
  EXPECT_EQ("", ReadAll(older.fd));  // the older request never answered
  EXPECT_EQ(1, answer["data"]["total"].asInt());
  EXPECT_EQ(-1, access(TrackingFile("typeahead").c_str(), F_OK));
  EXPECT_TRUE(daemon.WaitIdle());
}

class SearchHistoryTest : public SearchTest {
 protected:
  void SetUp() override {
    SearchTest::SetUp();
    system("rm -f /var/packages/KestOndri/var/kestondri.db*");
  }
  static std::vector<std::string> History(uid_t uid) {
    std::vector<std::string> out;
    kestondri::db::SearchHistoryTable table(kestondri::db::DBSession::Instance());
    for (const auto& row : table.List(uid)) out.push_back(row.keyword);
    return out;
  }
};

TEST_F(SearchHistoryTest, TheChildRecordsTheTypedKeyword) {
  struct Case {
    const char* what;
    Login login;
    bool enabled;
    bool child;                        // a history child is forked
    const char* orig_keyword;          // null: not given
    const char* share;                 // the share searched
    std::vector<std::string> history;  // the user's whole history afterwards
  } cases[] = {
      {"trimmed keyword", kAnn, true, true, "  quarterly report \t", "docs", {"quarterly report"}},
      {"history switched off", kBob, false, false, "hidden", "docs", {}},
      {"no keyword typed", kAnn, true, false, nullptr, "docs", {"quarterly report"}},
      {"empty keyword", kAnn, true, false, "", "docs", {"quarterly report"}},
      // Blank alone passes the test before trimming: recorded as "".
      {"blank keyword", kDave, true, true, "   ", "docs", {""}},
      {"even when nothing may be searched", kDave, true, true, "lonely", "private", {"lonely", ""}},
      {"an administrator", kCarol, true, true, "audit", "docs", {"audit"}},
  };
  for (const auto& c : cases) {
    kestondri::pref::Preference(c.login.uid).Set<bool>("enable_history", c.enabled);
    FakeDaemon daemon;
    daemon.On("search", Hits({R"({"success": true})"}));
    daemon.On("list_db_status", StatusReply());
    Json::Value params = Params({c.share});
    if (c.orig_keyword) params["orig_keyword"] = c.orig_keyword;
    std::vector<int> children;
    ASSERT_TRUE(RunAPI<SearchAPI>(c.login, params, &children).IsSuccess()) << c.what;
    // The after-answer child of every request, and the history child.
    EXPECT_TRUE(AllExitedZero(children, c.child ? 2 : 1)) << c.what << " " << children.size();
    EXPECT_EQ(c.history, History(c.login.uid)) << c.what;
  }
  // Each user's rows stay their own.
  EXPECT_EQ((std::vector<std::string>{"quarterly report"}), History(kAnnUid));
  EXPECT_TRUE(History(kBobUid).empty());
  EXPECT_TRUE(SyslogCapture::Instance().Matching("Failed to execute").empty());
}

TEST_F(SearchHistoryTest, HistoryKeepsTheUsersLimit) {
  kestondri::pref::Preference(kAnnUid).Set<int>("max_history_num", 2);
  FakeDaemon daemon;
  for (const char* word : {"one", "two", "three"}) {
    daemon.On("search", Hits({R"({"success": true})"}));
    daemon.On("list_db_status", StatusReply());
    Json::Value params = Params({"docs"});
    params["orig_keyword"] = word;
    ASSERT_TRUE(Search(kAnn, params).IsSuccess());
  }
  EXPECT_EQ((std::vector<std::string>{"three", "two"}), History(kAnnUid));
}

}  // namespace
}  // namespace kesttest
