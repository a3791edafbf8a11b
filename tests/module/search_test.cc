// Search, highlight and indicate on the real system against a scripted daemon on the socket.
#include <gtest/gtest.h>
#include <signal.h>
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
#include "webapi/highlight.h"
#include "webapi/indicate.h"
#include "webapi/search.h"

namespace kesttest {
namespace {

using kestondri::webapi::HighlightAPI;
using kestondri::webapi::IndicateAPI;
using kestondri::webapi::SearchAPI;

void IndexShares(const std::vector<std::string>& shares) {
  (void)!system("rm -f /var/packages/KestOndri/var/fileindex/folders.db*");
  Json::Value folders(Json::arrayValue);
  for (const auto& share : shares) folders.append(Json::Value())["path"] = "/volume1/" + share;
  if (!folders.empty()) kestondri::fileindex::FolderAdd(folders, false);
}

std::string TrackingFile(const std::string& id) { return "/tmp/vyr_query_" + id + ".pid"; }

// The smallest search request the method accepts, over `shares`.
Json::Value Params(const std::vector<std::string>& shares, const std::string& query_id = "",
                   int serial = 0) {
  Json::Value params = ParseJson(R"({"from": 0, "size": 10, "fields": [], "file_type": ""})");
  params["indice"] = Json::Value(Json::arrayValue);
  for (const auto& s : shares) params["indice"].append(s);
  if (!query_id.empty()) params["query_id"] = query_id;
  params["query_serial"] = serial;
  return params;
}

Json::Value HighlightParams(const std::string& path) {
  Json::Value params = ParseJson(R"({"doc_id": 17, "keyword": "kw", "highlight": {"f": 1}})");
  params["full_path"] = path;
  return params;
}

Json::Value IndicateParams(const std::string& file_types) {
  Json::Value params = ParseJson(
      R"({"keyword": "kw", "criteria_list": [{"value": "pdf"}], "search_weight_list": [{"w": 1}]})");
  params["file_type"] = ParseJson(file_types);
  return params;
}

// One framed message per '|'-separated part of `messages`.
DaemonReply Hits(const std::string& messages) {
  DaemonReply reply;
  for (size_t at = 0, end = 0; end != std::string::npos; at = end + 1) {
    end = messages.find('|', at);
    reply.Text(messages.substr(at, end - at));
  }
  return reply;
}

DaemonReply StatusReply() {
  return DaemonReply().Text(
      R"({"success": true, "data": {"unknown": ["fileindex_a"], "checking": ["fileindex_b"],
          "crashed": ["fileindex_c", "fileindex_a"]}})");
}

void ScriptSearch(FakeDaemon& daemon) {
  daemon.On("search", DaemonReply::Success());
  daemon.On("list_db_status", StatusReply());
}

class DaemonMethodsTest : public ModuleTest {
 protected:
  void SetUp() override {
    MakeSearchShares();
    IndexShares({"docs", "homes", "private"});
    (void)!system("rm -f /tmp/vyr_query_*");
    ModuleTest::SetUp();  // last: a clean log and errno
  }
  void TearDown() override {
    ModuleTest::TearDown();
    unlink(FakeDaemon::kSocketPath);
  }
};

// What reaches the daemon that the end-to-end test cannot see: a user's permission filter (none
// for an administrator); the shares searched (none named: every indexed one in name order, as
// indicate asks; none left: an empty answer unasked); one indicate sub-query per file type. A
// highlight of a file the user may not read is 507 unasked; otherwise it names the user.
TEST_F(DaemonMethodsTest, RequestsAsSent) {
  IndexShares({"private", "homes", "docs"});
  WriteFile("/volume1/homes/note.txt", "x", 0644);
  const struct {
    Login login;
    const char* shares;     // null: no "indice" at all
    const char* indice;     // null: nothing to search
    const char* highlight;  // a file to highlight
    const char* id;         // its index, null: refused
  } cases[] = {
      {kCarol, nullptr, R"(["fileindex_docs", "fileindex_homes", "fileindex_private"])",
       "/volume1/homes/note.txt", "fileindex_homes"},
      {kAnn, nullptr, R"(["fileindex_docs", "fileindex_homes"])", "/volume1/docs/open.txt",
       "fileindex_docs"},
      {kDave, nullptr, R"(["fileindex_homes"])", "/volume1/docs/open.txt", nullptr},
      {kAnn, R"(["private", "homes", "nosuch", "docs"])",
       R"(["fileindex_homes", "fileindex_docs"])", "/volume1/docs/closed.txt",
       nullptr},  // its mode
      {kCarol, R"(["nosuch", "gone"])", nullptr, "/volume1/private/p.txt", nullptr},
  };
  for (const auto& c : cases) {
    const std::string what = std::string(c.login.name) + " " + (c.shares ? c.shares : "none");
    FakeDaemon daemon;
    ScriptSearch(daemon);
    const Json::Value counts = ParseJson(R"({"document": 3})");
    daemon.On("highlight", DaemonReply::Success(counts));
    daemon.On("indicate", DaemonReply::Success(counts));
    Json::Value filters(Json::arrayValue);  // the user's
    if (!c.login.admin)
      filters.append(ParseJson(R"({"name": "permission"})"))["data"] =
          static_cast<int>(c.login.uid);
    SyslogCapture::Instance().Clear();
    const auto highlighted = RunAPI<HighlightAPI>(c.login, HighlightParams(c.highlight));
    if (c.id) {
      const Json::Value sent = daemon.Requests("highlight").at(0)["data"];
      EXPECT_EQ(c.id, sent["id"].asString()) << what;
      EXPECT_EQ(c.login.admin ? Json::Value() : filters, sent["filters"]) << what;
    } else {
      EXPECT_EQ(507, highlighted.GetErrorCode()) << what;
      EXPECT_EQ(0, daemon.Connections()) << what;
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
          std::string("Failed [!file_perm.CheckRead(full_path.Get())], reason: No file "
                      "permission, path: ") +
          c.highlight + ", user: " + c.login.name))
          << what;
    }

    Json::Value params = Params({}, "q-shares", 4);
    if (c.shares)
      params["indice"] = ParseJson(c.shares);
    else
      params.removeMember("indice");
    const auto response = RunAPI<SearchAPI>(c.login, params);
    ASSERT_TRUE(response.IsSuccess()) << what;
    EXPECT_EQ(-1, access(TrackingFile("q-shares").c_str(), F_OK)) << what;
    if (!c.indice) {
      EXPECT_EQ(ParseJson(R"({"hits": [], "total": 0, "unavail": []})"), response.GetData())
          << what;
      EXPECT_TRUE(daemon.Requests("search").empty()) << what;
      continue;
    }
    const Json::Value sent = daemon.Requests("search").at(0)["data"];
    EXPECT_EQ(ParseJson(c.indice), sent["indice"]) << what;
    EXPECT_EQ(c.login.admin ? Json::Value() : filters, sent["filters"]) << what;
    if (c.shares) continue;
    RunAPI<IndicateAPI>(c.login, IndicateParams(R"(["document", "image", "document"])"));
    const Json::Value asked = daemon.Requests("indicate").at(0)["data"];
    EXPECT_EQ(sent["indice"], asked["indice"]) << what;
    ASSERT_EQ(3u, asked["queries"].size()) << what;
    Json::ArrayIndex at = 0;
    for (const char* type : {"document", "image", "document"}) {
      Json::Value expected = filters;
      expected.append(ParseJson(R"({"name": "file_type"})"))["data"] = type;
      EXPECT_EQ(expected, asked["queries"][at++]["query"]["filters"]) << what;
    }
  }
}

// What each method makes of the daemon's messages, or of no daemon: what breaks costs an error
// code and is logged. Indicate ignores "success", and without a socket file answers zeros.
TEST_F(DaemonMethodsTest, Replies) {
  const char* const kDead = "a socket nobody listens on";
  const std::string kUnreachable =
      "Failed [!conn.Connect(kElasticdConnectTimeout)], reason: KestOndri error, code=605";
  const auto check = [](const char* what) {
    return std::string("Failed [") + what + "], reason: KestOndri error, code=121";
  };
  const struct {
    char method;         // s(earch), h(ighlight), i(ndicate)
    const char* reply;   // the messages, '|'-separated; "": closed at once; null: no socket
    const char* status;  // of a search, null: the usual reply; "": closed at once
    const char* answer;  // "<total>:<hit names>" of a search, the data of the others, or the code
    std::string log;     // waited for, or ""
  } cases[] = {
      // A count that says "success" is a count; a hit holding "total" is one
      // too, and the last count wins.
      {'s',
       R"({"total": 2, "success": false}|{"KESTMDFSName": "a"}|{"KESTMDFSName": "b", "total": 7}|)"
       R"({"success": true})",
       nullptr, "7:a,", ""},
      {'s', R"({"KESTMDFSName": "a"}|{"success": true})", nullptr, "null:a,", ""},
      {'s', R"({"total": 1}|{"KESTMDFSName": "a"})", nullptr, "121", check("!conn.Recv(str_resp)")},
      {'s', R"([1, 2]|{"success": true})", nullptr, "121", check("!js_resp.fromString(str_resp)")},
      {'s', R"({"total": "many"}|{"success": true})", nullptr, "121", ""},
      {'s', R"({"success": false, "error": {"code": 4242, "msg": "busy"}})", nullptr, "4242", ""},
      {'s', R"({"success": false})", nullptr, "120", ""},
      {'s', R"({"success": true})", "[1]", "121", check("!res.fromString(str_res)")},
      {'s', R"({"success": true})", "", "121", check("!conn.Recv(str_res)")},
      {'s', kDead, nullptr, "605", "(Search) " + kUnreachable},
      {'s', nullptr, nullptr, "605", "(GetUnavailDB) " + kUnreachable},
      {'h', R"({"success": false, "error": {"code": 4321, "msg": "gone"}})", nullptr, "4321", ""},
      {'h', "oops", nullptr, "121", "Malformed resp from daemon: oops"},
      {'h', R"({"success": false})", nullptr, "121", "Malformed resp from daemon"},
      {'h', "", nullptr, "121", "Recv from daemon fail"},
      {'h', nullptr, nullptr, "605", "Cannot connect to kestelastic daemon"},
      {'i', R"({"success": false, "data": {"document": 1}})", nullptr, R"({"document":1})", ""},
      {'i', kDead, nullptr, "605", "Cannot connect to kestelastic daemon"},
      {'i', nullptr, nullptr, R"({"document":0,"image":0})", ""},
  };
  for (auto& c : cases) {
    const std::string what = std::string(1, c.method) + " " + (c.reply ? c.reply : "no socket");
    SyslogCapture::Instance().Clear();
    unlink(FakeDaemon::kSocketPath);
    std::unique_ptr<FakeDaemon> daemon;
    if (c.reply == kDead) {
      BindDeadSocket(FakeDaemon::kSocketPath);
    } else if (c.reply) {
      daemon.reset(new FakeDaemon);
      const char* command = c.method == 's' ? "search" : c.method == 'h' ? "highlight" : "indicate";
      daemon->On(command, *c.reply ? Hits(c.reply) : DaemonReply().Close());
      daemon->On("list_db_status", !c.status   ? StatusReply()
                                   : *c.status ? DaemonReply().Text(c.status)
                                               : DaemonReply().Close());
    }
    const auto response =
        c.method == 's'   ? RunAPI<SearchAPI>(kAnn, Params({"docs"}))
        : c.method == 'h' ? RunAPI<HighlightAPI>(kAnn, HighlightParams("/volume1/docs/open.txt"))
                          : RunAPI<IndicateAPI>(kAnn, IndicateParams(R"(["document", "image"])"));
    const Json::Value& out = response.GetData();
    std::string answer = std::to_string(response.GetErrorCode());
    if (response.IsSuccess() && c.method != 's') answer = Json::toString(out);
    if (response.IsSuccess() && c.method == 's') {
      answer = Json::toString(out["total"]) + ":";
      for (const auto& hit : out["hits"]) answer += hit["KESTMDFSName"].asString() + ",";
      EXPECT_EQ(ParseJson(R"(["fileindex_a", "fileindex_b", "fileindex_c", "fileindex_a"])"),
                out["unavail"]);
    }
    EXPECT_EQ(c.answer, answer) << what;
    EXPECT_TRUE(c.log.empty() || SyslogCapture::Instance().WaitFor(c.log)) << what;
  }

  // A malformed query is logged with the request, not the daemon's text.
  SyslogCapture::Instance().Clear();
  FakeDaemon daemon;
  daemon.On("search", DaemonReply::Failure(1001, "parse error near x"));
  EXPECT_EQ(1001, RunAPI<SearchAPI>(kAnn, Params({"docs"})).GetErrorCode());
  ASSERT_EQ(1u, daemon.RawRequests().size());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      "Got exception: Unable to perform search, msg=Malformed search query: " +
      daemon.RawRequests()[0]));
  EXPECT_TRUE(SyslogCapture::Instance().Matching("parse error near x").empty());
}

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
    const std::string text = Json::toString(RunAPIUnguarded<SearchAPI>(login, params).ToJson());
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

// Waits for `pid`, after SIGTERM when `end` says so; the signal that ended it.
int EndedBy(pid_t pid, bool end = true) {
  if (end) kill(pid, SIGTERM);
  int status = 0;
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

// Anyone may write a query id's record in /tmp naming any pid: only a live sibling worker of the
// same identity, started when the record says, is stopped, and only by a newer serial. A record
// the module did not write is never read nor written through; a query id with "/" is refused.
TEST_F(DaemonMethodsTest, TrackingFileDecidesWhoRuns) {
  // "%PID%" and "%START%" name the sleeper: an older request, sibling of StartSearch's search.
  const std::string kRecord =
      R"({"pid": %PID%, "query_serial": 6, "start_time": %START%, "mine": 1})";
  enum File { kAnns, kBobs, kLink };  // ann's own file, bob's, a link to ann's file
  const struct {
    const char* what;
    std::string record;
    int serial;
    int code;           // 0: success
    bool killed;        // the recorded process was stopped
    bool file_is_gone;  // else it is left as it was
    const char* sleeper = "ann";
    int ended = 0;  // before the request came: 1 and reaped, 2 and not yet reaped
    File file = kAnns;
    const char* refusal = nullptr;
    const char* query_id = "q1";
  } cases[] = {
      {"newer serial stops the older", kRecord, 7, 0, true, true},
      {"older serial is outdated", kRecord, 5, 1600, false, false},
      {"equal serial is outdated", kRecord, 6, 1600, false, false},
      {"pid 0 is outdated", R"({"pid": 0, "query_serial": 1})", 6, 1600, false, false},
      {"unreadable record is ignored", "{not json", 6, 0, false, true},
      // A failed or killed request blocks nobody, and its pid is no target.
      {"an ended request", kRecord, 5, 0, false, true, "ann", 1},
      {"an ended request not yet reaped", kRecord, 5, 0, false, true, "ann", 2},
      {"a reused pid", R"({"pid": %PID%, "query_serial": 6, "start_time": 1})", 5, 0, false, true},
      {"a record without start time", R"({"pid": %PID%, "query_serial": 6})", 7, 0, false, true},
      // What a user with a shell writes into a record of their own.
      {"another user's search", kRecord, 5, 0, false, true, "bob", 0, kAnns,
       "acts for another identity"},
      // What another user plants: neither trusted nor replaced.
      {"bob's file", kRecord, 7, 0, false, false, "ann", 0, kBobs},
      {"a link to ann's file", kRecord, 7, 0, false, false, "ann", 0, kLink},
      {"a slash in the query id", kRecord, 7, 120, false, false, "ann", 0, kAnns, nullptr,
       "q1/../q1"},
  };
  const std::string path = TrackingFile("q1");
  const std::string target = "/tmp/link-target";
  for (const auto& c : cases) {
    FakeDaemon daemon;
    ScriptSearch(daemon);
    SyslogCapture::Instance().Clear();
    pid_t sleeper = 0;
    InChildAs(
        c.sleeper, [] { return ""; }, &sleeper);
    // No ASSERT until the sleeper is ended: a request guard would wait for it.
    kestondri::ProcessMark mark{};
    EXPECT_TRUE(kestondri::ReadProcessMark(sleeper, &mark)) << c.what;
    std::string text = c.record;
    for (const auto& from_to : {std::make_pair("%PID%", std::to_string(sleeper)),
                                std::make_pair("%START%", std::to_string(mark.start_time))}) {
      const size_t at = text.find(from_to.first);
      if (at != std::string::npos) text.replace(at, strlen(from_to.first), from_to.second);
    }
    if (c.ended) {
      kill(sleeper, SIGKILL);
      siginfo_t info;
      EXPECT_EQ(0, waitid(P_PID, sleeper, &info, WEXITED | WNOWAIT)) << c.what;  // a zombie
      if (c.ended == 1) EndedBy(sleeper, false);
    }
    // The link is root's, as /tmp is: the kernel lets it be followed.
    const std::string written = c.file == kLink ? target : path;
    WriteFile(written, text);
    (void)!chown(written.c_str(), c.file == kBobs ? kBobUid : kAnnUid, kAnnUid);
    if (c.file == kLink) {
      EXPECT_EQ(0, symlink(target.c_str(), path.c_str()));
    }

    const RemoteSearch search = StartSearch(Params({"docs"}, c.query_id, c.serial));
    const auto answer = ParseJson(ReadAll(search.fd));
    EXPECT_EQ(0, EndedBy(search.pid, false));
    EXPECT_EQ(c.code, answer["success"].asBool() ? 0 : answer["error"]["code"].asInt()) << c.what;
    // A sleeper the request left alone ends by this test's signal.
    if (c.ended != 1) {
      EXPECT_EQ(c.killed || c.ended ? SIGKILL : SIGTERM, EndedBy(sleeper, !c.ended)) << c.what;
    }
    EXPECT_EQ(c.file_is_gone, access(path.c_str(), F_OK) != 0) << c.what;
    EXPECT_TRUE(c.file_is_gone || text == ReadFile(written)) << c.what;
    EXPECT_TRUE(c.code == 0 || daemon.Connections() == 0) << c.what;
    if (c.refusal) {
      EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
          "Failed [IsOlderRequest(pid)], reason: refused to stop pid " + std::to_string(sleeper) +
          ": " + c.refusal))
          << c.what;
    }
    if (c.file != kAnns) {
      EXPECT_TRUE(
          SyslogCapture::Instance().WaitFor("Failed [!query_info.toFile(query_info_file_)]"))
          << c.what;
    }
    unlink(path.c_str());
    unlink(target.c_str());
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(R"(Failed [string::npos != query_id_.find("/")])"));
}

// A failed search leaves its claim naming the worker, which the next request must not stop. A
// newer request stops the older one still waiting; another user's stops nothing.
TEST_F(DaemonMethodsTest, ClaimsOfAQueryId) {
  FakeDaemon daemon;
  daemon.On("search", DaemonReply::Failure(4242, "broken"));
  ASSERT_EQ(4242, RunAPI<SearchAPI>(kAnn, Params({"docs"}, "q2", 9)).GetErrorCode());
  EXPECT_EQ(static_cast<int>(getpid()), ParseJson(ReadFile(TrackingFile("q2")))["pid"].asInt());
  ScriptSearch(daemon);
  EXPECT_TRUE(RunAPI<SearchAPI>(kAnn, Params({"docs"}, "q2", 10)).IsSuccess());
  EXPECT_EQ(-1, access(TrackingFile("q2").c_str(), F_OK));

  daemon.On("search", DaemonReply().HoldUntilClientGoes());
  const RemoteSearch older = StartSearch(Params({"docs"}, "q2", 11));
  EXPECT_TRUE(daemon.WaitForRequests(4));
  for (const Login& login : {kBob, kAnn}) {
    ScriptSearch(daemon);
    const RemoteSearch newer = StartSearch(Params({"docs"}, "q2", 12), login);
    EXPECT_TRUE(ParseJson(ReadAll(newer.fd))["success"].asBool()) << login.name;
    EXPECT_EQ(0, EndedBy(newer.pid, false)) << login.name;
    EXPECT_TRUE(login.uid != kBobUid || 0 == waitpid(older.pid, nullptr, WNOHANG)) << "stopped";
  }
  // Were the older one still running, this would end it with another signal.
  EXPECT_EQ(SIGKILL, EndedBy(older.pid));
  EXPECT_EQ("", ReadAll(older.fd));  // the older request never answered
}

// A forked child records the keyword, trimmed, in the user's history when the user keeps one
// (even when nothing may be searched), up to the user's limit.
TEST_F(DaemonMethodsTest, SearchHistory) {
  (void)!system("rm -f /var/packages/KestOndri/var/kestondri.db*");
  for (const Login& login : {kAnn, kBob, kCarol, kDave}) {
    kestondri::pref::Preference(login.uid).Set<bool>("enable_history", login.uid != kBobUid);
  }
  kestondri::pref::Preference(kCarolUid).Set<int>("max_history_num", 1);
  const struct {
    Login login;
    const char* orig_keyword;  // null: not given
    const char* share;
    std::vector<std::string> history;  // the user's whole history afterwards
  } cases[] = {
      {kAnn, "  quarterly report \t", "docs", {"quarterly report"}},
      {kBob, "hidden", "docs", {}},  // switched off
      {kDave, "   ", "docs", {""}},  // blank passes the test before trimming
      {kDave, "lonely", "private", {"lonely", ""}},
      {kCarol, "one", "docs", {"one"}},
      {kCarol, "two", "docs", {"two"}},  // the limit
  };
  for (const auto& c : cases) {
    FakeDaemon daemon;
    ScriptSearch(daemon);
    Json::Value params = Params({c.share});
    if (c.orig_keyword) params["orig_keyword"] = c.orig_keyword;
    std::vector<int> children;
    ASSERT_TRUE(RunAPI<SearchAPI>(c.login, params, &children).IsSuccess()) << c.login.name;
    // The after-answer child of every request, and the history child.
    const bool recorded = c.orig_keyword && c.login.uid != kBobUid;
    EXPECT_TRUE(AllExitedZero(children, recorded ? 2 : 1)) << c.login.name;
    std::vector<std::string> history;
    kestondri::db::SearchHistoryTable table(kestondri::db::DBSession::Instance());
    for (const auto& row : table.List(c.login.uid)) history.push_back(row.keyword);
    EXPECT_EQ(c.history, history) << c.login.name;
  }
}

}  // namespace
}  // namespace kesttest
