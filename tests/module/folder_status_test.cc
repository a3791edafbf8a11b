// The Folder and Status methods through the module's handlers, on the real
// indexing library, shares, users and queue files: what the handlers make of
// their parameters, and the status words. Who may change which folder, and
// the listing itself, are the library's (its own tests).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kest/json.h"
#include "kestondri/fileindex.h"
#include "module/api_runner.h"
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

class FolderStatusTest : public ModuleTest {
 protected:
  void SetUp() override {
    (void)!system("rm -rf /var/packages/KestOndri /volume1/* /volume1/@kestondri /volume2/*");
    WriteSharesConf(
        "[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\n"
        "[music]\npath = /volume2/music\n");
    for (const char* dir :
         {"/volume1/photo/a", "/volume1/photo/b", "/volume1/docs/c", "/volume2/music/d"}) {
      WriteFile(std::string(dir) + "/keep", "");
    }
    ModuleTest::SetUp();  // last: a clean log and errno
  }
  void Add(const std::string& folders) {
    ASSERT_TRUE(Request<FolderAddAPI>(kAnn, R"({"folder": )" + folders + "}").IsSuccess());
  }
  std::string Status(const char* word = "index") {
    return Request<StatusGetAPI>(kAnn, "{}").GetData()["status"][word].asString();
  }
};

TEST_F(FolderStatusTest, FolderMethods) {
  Add(R"([{"path": "/volume1/photo/a", "name": "first"}, {"path": "/volume1/photo/b"},
          {"path": "/volume1/docs/c"}])");
  // Set changes only what it names.
  ASSERT_TRUE(
      Request<FolderSetAPI>(kAnn, R"({"folder": [{"path": "/volume1/photo/a", "paused": true}]})")
          .IsSuccess());
  const Json::Value got = Request<FolderGetAPI>(kAnn, R"({"path": "/volume1/photo/a"})").GetData();
  EXPECT_EQ("first ann true", got["name"].asString() + " " + got["owner"].asString() + " " +
                                  Json::toString(got["paused"]));
  unlink("/volume1/@kestondri/queue/photo.queue");
  EXPECT_TRUE(
      Request<FolderReIndexAPI>(kAnn, R"({"path": ["/volume1/photo/a"]})").GetData().isNull());
  EXPECT_EQ("# kestondri queue 2\nreindex\t/volume1/photo/a\n",
            ReadFile("/volume1/@kestondri/queue/photo.queue"));
  // bob may read the folder but not reindex it.
  EXPECT_EQ(507,
            Request<FolderReIndexAPI>(kBob, R"({"path": ["/volume1/photo/a"]})").GetErrorCode());

  // Lists, "<total>:<names>", after a delete. Delete takes the path before
  // the owner and needs one of them.
  const struct {
    char method;  // d(elete) or l(ist)
    const char* params;
    const char* answer;
  } cases[] = {
      // No limit: -1 reaches the library as "no limit"; no group: "all".
      {'l', "{}", "3:c,first,b,"},
      {'l', R"({"limit": 1, "offset": 1})", "3:first,"},
      {'l', R"({"offset": -1})", "3:"},  // arrives huge: an empty page
      {'l', R"({"sort_by": "name", "direction": "desc", "group": "share:photo", "pattern": ""})",
       "2:first,b,"},
      // Parameters of the wrong type read as absent (the checker guards the
      // type before the class).
      {'l', R"({"limit": "2", "group": 5})", "3:c,first,b,"},
      {'l', R"({"sort_by": "size"})", "120"},
      {'d', R"({"path": ["/volume1/photo/a"], "owner": "ann"})", "2:c,b,"},
      {'d', R"({"owner": ""})", "120"},
      {'d', R"({"owner": "ann"})", "0:"},
  };
  for (const auto& c : cases) {
    std::string answer = "0";
    if (c.method == 'd') {
      answer = std::to_string(Request<FolderDelAPI>(kAnn, c.params).GetErrorCode());
    }
    if (answer == "0") {
      const auto list = Request<FolderListAPI>(kAnn, c.method == 'l' ? c.params : "{}");
      answer = list.IsError() ? std::to_string(list.GetErrorCode())
                              : std::to_string(list.GetData()["total"].asInt64()) + ":";
      for (const auto& f : list.GetData()["folders"]) answer += f["name"].asString() + ",";
    }
    EXPECT_EQ(c.answer, answer) << c.params;
  }
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Got exception: Need path or owner"));
}

// The index word: "processing" while a queue (or its twin) waits in a share
// that can be indexed, "paused" instead while paused (0: until resumed);
// a share that vanished is logged and skipped. The term word follows the
// updater's pid file.
TEST_F(FolderStatusTest, StatusWords) {
  EXPECT_EQ("finished", Status());  // no indexed share at all
  Add(R"([{"path": "/volume1/photo/a"}, {"path": "/volume1/docs/c"}, {"path": "/volume2/music/d"}])");
  EXPECT_EQ("processing", Status());
  for (const char* length : {"0", "3600"}) {
    EXPECT_TRUE(
        Request<StatusPauseAPI>(kCarol, std::string(R"({"length": )") + length + "}").IsSuccess());
    EXPECT_EQ("paused", Status());
  }
  EXPECT_EQ(507, Request<StatusResumeAPI>(kAnn, "{}").GetErrorCode());
  EXPECT_TRUE(Request<StatusResumeAPI>(kCarol, "{}").IsSuccess());
  EXPECT_EQ("processing", Status());

  // Only photo's twin left, docs read-only: still pending, then finished,
  // even while paused. Without the checker an absent length reads as 0.
  rename("/volume1/@kestondri/queue/photo.queue", "/volume1/@kestondri/queue/photo.queue.tmp");
  unlink("/volume2/@kestondri/queue/music.queue");
  WriteSharesConf(
      "[photo]\npath = /volume1/photo\n[docs]\npath = /volume1/docs\nread only = yes\n"
      "[music]\npath = /volume2/music\n");
  EXPECT_EQ("processing", Status());
  unlink("/volume1/@kestondri/queue/photo.queue.tmp");
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, "{}").IsSuccess());
  EXPECT_EQ(0, kestondri::fileindex::StatusMgr().GetPauseInfo());
  EXPECT_EQ("finished", Status());

  // docs vanished: logged and skipped; photo (after it) is still inspected.
  WriteSharesConf("[photo]\npath = /volume1/photo\n[music]\npath = /volume2/music\n");
  WriteFile("/volume1/@kestondri/queue/photo.queue", "# kestondri queue 1\n");
  SyslogCapture::Instance().Clear();
  EXPECT_EQ("paused", Status());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(LogLine("status.cc", 43, "IsIndexProcessing",
                                                        "Failed to get status from share[docs]",
                                                        getpid(), kAnnUid)));

  EXPECT_EQ("finished", Status("term"));
  WriteFile("/var/packages/KestOndri/etc/updater.term.sugg.pid", std::to_string(getpid()) + "\n");
  EXPECT_EQ("processing", Status("term"));
}

}  // namespace
}  // namespace kesttest
