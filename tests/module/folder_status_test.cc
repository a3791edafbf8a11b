// The Folder and Status methods end to end through the module's handlers,
// on the real indexing library, shares, users and queue files. Every request
// runs under a RequestGuard (descriptors, children, identity, lock).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kest/klib.h"
#include "kest/webapi.h"
#include "kestondri/fileindex.h"
#include "module/api_runner.h"
#include "support/request_guard.h"
#include "support/sandbox.h"
#include "support/syslog_capture.h"
#include "webapi/folder.h"
#include "webapi/status.h"

namespace kesttest {
namespace {

using namespace kestondri::webapi;  // NOLINT: the API classes

// A request through the handler template; a success forks one child.
template <typename Class>
KEST::APIResponse Request(const Login& login, const std::string& params) {
  std::vector<int> children;
  KEST::APIResponse response = RunAPI<Class>(login, ParseJson(params), &children);
  EXPECT_TRUE(AllExitedZero(children, response.IsSuccess() ? 1 : 0));
  return response;
}

std::string Names(const KEST::APIResponse& response) {
  std::string names;
  for (const auto& f : response.GetData()["folders"]) names += f["name"].asString() + ",";
  return std::to_string(response.GetData()["total"].asInt64()) + ":" + names;
}

class FolderAPITest : public ::testing::Test {
 protected:
  void SetUp() override {
    system("rm -rf /var/packages/KestOndri /volume1/* /volume1/@kestondri /volume2/*");
    WriteSharesConf(
        "[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\n"
        "[music]\npath = /volume2/music\n");
    for (const char* dir :
         {"/volume1/photo/a", "/volume1/photo/b", "/volume1/docs/c", "/volume2/music/d"}) {
      WriteFile(std::string(dir) + "/keep", "");
    }
    SyslogCapture::Instance().Clear();
  }
  void TearDown() override { BecomeRoot(); }

  void AddAsAnn(const std::string& folders) {
    auto r = Request<FolderAddAPI>(kAnn, R"({"folder": )" + folders + "}");
    ASSERT_TRUE(r.IsSuccess()) << r.GetErrorCode();
  }
};

TEST_F(FolderAPITest, DeleteTakesPathBeforeOwnerAndNeedsOne) {
  AddAsAnn(R"([{"path": "/volume1/photo/a"}, {"path": "/volume1/photo/b"}])");
  auto both = Request<FolderDelAPI>(kAnn, R"({"path": ["/volume1/photo/a"], "owner": "ann"})");
  EXPECT_TRUE(both.IsSuccess());
  EXPECT_EQ("1:b,", Names(Request<FolderListAPI>(kAnn, "{}")));

  auto none = Request<FolderDelAPI>(kAnn, R"({"owner": ""})");
  EXPECT_EQ(120, none.GetErrorCode());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Got exception: Need path or owner"));
  EXPECT_EQ(120, Request<FolderDelAPI>(kAnn, "{}").GetErrorCode());
  EXPECT_EQ("1:b,", Names(Request<FolderListAPI>(kAnn, "{}")));

  EXPECT_TRUE(Request<FolderDelAPI>(kAnn, R"({"owner": "ann"})").IsSuccess());
  EXPECT_EQ("0:", Names(Request<FolderListAPI>(kAnn, "{}")));
}

TEST_F(FolderAPITest, ListDefaultsAndSignExtension) {
  AddAsAnn(R"([{"path": "/volume1/photo/a"}, {"path": "/volume1/photo/b"},
               {"path": "/volume1/docs/c"}])");
  // No limit: -1 reaches the library as "no limit"; no group: "all".
  EXPECT_EQ("3:c,a,b,", Names(Request<FolderListAPI>(kAnn, "{}")));
  EXPECT_EQ("3:a,", Names(Request<FolderListAPI>(kAnn, R"({"limit": 1, "offset": 1})")));
  // A negative offset arrives huge: an empty page.
  EXPECT_EQ("3:", Names(Request<FolderListAPI>(kAnn, R"({"offset": -1})")));
  EXPECT_EQ("2:b,a,", Names(Request<FolderListAPI>(kAnn, R"({"sort_by": "name", "direction": "desc",
                                               "group": "share:photo", "pattern": ""})")));
  // Parameters of the wrong type read as absent in the class (the checker
  // guards the type before it).
  EXPECT_EQ("3:c,a,b,", Names(Request<FolderListAPI>(kAnn, R"({"limit": "2", "group": 5})")));
  auto bad = Request<FolderListAPI>(kAnn, R"({"sort_by": "size"})");
  EXPECT_EQ(120, bad.GetErrorCode());
  EXPECT_TRUE(bad.GetErrorData().isNull());
}

TEST_F(FolderAPITest, AddAndSetNeverReplace) {
  AddAsAnn(R"([{"path": "/volume1/photo/a", "name": "first", "audio": false}])");
  EXPECT_EQ(
      120,
      Request<FolderAddAPI>(kAnn, R"({"folder": [{"path": "/volume1/photo/a"}]})").GetErrorCode());
  EXPECT_TRUE(
      Request<FolderSetAPI>(kAnn, R"({"folder": [{"path": "/volume1/photo/a", "paused": true}]})")
          .IsSuccess());
  auto get = Request<FolderGetAPI>(kAnn, R"({"path": "/volume1/photo/a"})");
  ASSERT_TRUE(get.IsSuccess());
  // Without replacing, what set did not name stays.
  EXPECT_EQ("first", get.GetData()["name"].asString());
  EXPECT_FALSE(get.GetData()["audio"].asBool());
  EXPECT_TRUE(get.GetData()["paused"].asBool());
  EXPECT_EQ("ann", get.GetData()["owner"].asString());
}

TEST_F(FolderAPITest, GroupsSummaryAndReindexPassThrough) {
  AddAsAnn(R"([{"path": "/volume1/photo/a"}, {"path": "/volume1/docs/c"}])");
  Json::Value groups, summary;
  ASSERT_TRUE(ResetCredentialsByName("ann", true));
  kestondri::fileindex::FolderListGroups(groups);
  kestondri::fileindex::FolderSummary(summary);
  BecomeRoot();
  EXPECT_EQ(groups, Request<FolderListGroupAPI>(kAnn, R"({"ignored": 1})").GetData());
  EXPECT_EQ(summary, Request<FolderSummaryAPI>(kAnn, "{}").GetData());

  unlink("/volume1/@kestondri/queue/photo.queue");
  auto reindex = Request<FolderReIndexAPI>(kAnn, R"({"path": ["/volume1/photo/a"]})");
  EXPECT_TRUE(reindex.IsSuccess());
  EXPECT_TRUE(reindex.GetData().isNull());
  EXPECT_EQ("# kestondri queue 2\nreindex\t/volume1/photo/a\n",
            ReadFile("/volume1/@kestondri/queue/photo.queue"));
  // bob may read the folder but not reindex it.
  EXPECT_EQ(507,
            Request<FolderReIndexAPI>(kBob, R"({"path": ["/volume1/photo/a"]})").GetErrorCode());
}

class StatusAPITest : public FolderAPITest {
 protected:
  std::string IndexWord(const Login& login = kAnn) {
    auto r = Request<StatusGetAPI>(login, "{}");
    EXPECT_TRUE(r.IsSuccess());
    return r.GetData()["status"]["index"].asString();
  }
  std::string TermWord() {
    return Request<StatusGetAPI>(kAnn, "{}").GetData()["status"]["term"].asString();
  }
};

TEST_F(StatusAPITest, IndexWordsOverQueuesAndThePauseRule) {
  EXPECT_EQ("finished", IndexWord());  // no indexed share at all
  AddAsAnn(R"([{"path": "/volume1/photo/a"}, {"path": "/volume2/music/d"}])");
  EXPECT_EQ("processing", IndexWord());

  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, R"({"length": 0})").IsSuccess());
  EXPECT_EQ("paused", IndexWord());  // 0: paused until resumed
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, R"({"length": 3600})").IsSuccess());
  EXPECT_EQ("paused", IndexWord());
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, R"({"length": -20})").IsSuccess());
  EXPECT_EQ(0, kestondri::fileindex::StatusMgr().GetPauseInfo());
  EXPECT_EQ(507, Request<StatusResumeAPI>(kAnn, "{}").GetErrorCode());
  EXPECT_TRUE(Request<StatusResumeAPI>(kCarol, "{}").IsSuccess());
  EXPECT_EQ("processing", IndexWord());

  // Only the twin left: still pending.
  rename("/volume1/@kestondri/queue/photo.queue", "/volume1/@kestondri/queue/photo.queue.tmp");
  unlink("/volume2/@kestondri/queue/music.queue");
  EXPECT_EQ("processing", IndexWord());
  unlink("/volume1/@kestondri/queue/photo.queue.tmp");
  EXPECT_EQ("finished", IndexWord());

  // Nothing waiting: finished, even while paused.
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, R"({"length": 0})").IsSuccess());
  EXPECT_EQ("finished", IndexWord());
}

TEST_F(StatusAPITest, SharesThatCannotBeIndexedOrVanishedAreSkipped) {
  AddAsAnn(R"([{"path": "/volume1/docs/c"}, {"path": "/volume1/photo/a"}])");
  // docs turns read-only: its queue no longer counts.
  WriteSharesConf(
      "[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\nread only = yes\n");
  unlink("/volume1/@kestondri/queue/photo.queue");
  EXPECT_EQ("finished", IndexWord());
  // docs vanished: logged and skipped; photo (after it) is still inspected.
  WriteSharesConf("[photo]\npath = /volume1/photo\n");
  WriteFile("/volume1/@kestondri/queue/photo.queue", "# kestondri queue 1\n");
  SyslogCapture::Instance().Clear();
  EXPECT_EQ("processing", IndexWord());
  const auto lines = SyslogCapture::Instance().Matching("Failed to get status from share[docs]");
  ASSERT_EQ(1u, lines.size());
  EXPECT_NE(std::string::npos, lines[0].text.find("status.cc:"));
  EXPECT_NE(std::string::npos, lines[0].text.find("(IsIndexProcessing) Failed to get status"));
}

TEST_F(StatusAPITest, TermWordFollowsTheUpdaterPidFile) {
  const std::string pid_file = "/var/packages/KestOndri/etc/updater.term.sugg.pid";
  EXPECT_EQ("finished", TermWord());
  // What the file's contents mean is the platform's pid file rule.
  WriteFile(pid_file, std::to_string(getpid()) + "\n");
  EXPECT_EQ("processing", TermWord());
}

TEST_F(StatusAPITest, PauseNeedsAnInteger) {
  // Without the checker the class reads an absent length as 0.
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, "{}").IsSuccess());
  EXPECT_EQ(0, kestondri::fileindex::StatusMgr().GetPauseInfo());
}

}  // namespace
}  // namespace kesttest
