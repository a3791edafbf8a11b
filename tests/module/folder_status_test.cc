// The Folder and Status methods through the module's handlers, on the real
// indexing library, shares, users and queue files: what the handlers make of
// their parameters, and the status words. Who may change which folder, and
// the listing itself, are the library's (its own tests).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "kest/json.h"
#include "kest/klib.h"
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

// "<total>:<name>,<name>,..." of a folder list, or the error code.
std::string List(const std::string& params) {
  const auto response = Request<FolderListAPI>(kAnn, params);
  if (response.IsError()) return "error " + std::to_string(response.GetErrorCode());
  std::string names = std::to_string(response.GetData()["total"].asInt64()) + ":";
  for (const auto& f : response.GetData()["folders"]) names += f["name"].asString() + ",";
  return names;
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

  void AddAsAnn(const std::string& folders) {
    ASSERT_TRUE(Request<FolderAddAPI>(kAnn, R"({"folder": )" + folders + "}").IsSuccess());
  }
  std::string IndexWord() {
    return Request<StatusGetAPI>(kAnn, "{}").GetData()["status"]["index"].asString();
  }
};

TEST_F(FolderStatusTest, FolderMethods) {
  AddAsAnn(R"([{"path": "/volume1/photo/a", "name": "first"}, {"path": "/volume1/photo/b"},
               {"path": "/volume1/docs/c"}])");
  EXPECT_TRUE(
      Request<FolderSetAPI>(kAnn, R"({"folder": [{"path": "/volume1/photo/a", "paused": true}]})")
          .IsSuccess());
  const Json::Value got = Request<FolderGetAPI>(kAnn, R"({"path": "/volume1/photo/a"})").GetData();
  EXPECT_EQ("first ann true", got["name"].asString() + " " + got["owner"].asString() + " " +
                                  Json::toString(got["paused"]));
  const struct {
    const char* params;
    const char* names;
  } lists[] = {
      // No limit: -1 reaches the library as "no limit"; no group: "all".
      {"{}", "3:c,first,b,"},
      {R"({"limit": 1, "offset": 1})", "3:first,"},
      {R"({"offset": -1})", "3:"},  // arrives huge: an empty page
      {R"({"sort_by": "name", "direction": "desc", "group": "share:photo", "pattern": ""})",
       "2:first,b,"},
      // Parameters of the wrong type read as absent (the checker guards the
      // type before the class).
      {R"({"limit": "2", "group": 5})", "3:c,first,b,"},
      {R"({"sort_by": "size"})", "error 120"},
  };
  for (const auto& l : lists) EXPECT_EQ(l.names, List(l.params)) << l.params;

  unlink("/volume1/@kestondri/queue/photo.queue");
  EXPECT_TRUE(
      Request<FolderReIndexAPI>(kAnn, R"({"path": ["/volume1/photo/a"]})").GetData().isNull());
  EXPECT_EQ("# kestondri queue 2\nreindex\t/volume1/photo/a\n",
            ReadFile("/volume1/@kestondri/queue/photo.queue"));
  // bob may read the folder but not reindex it.
  EXPECT_EQ(507,
            Request<FolderReIndexAPI>(kBob, R"({"path": ["/volume1/photo/a"]})").GetErrorCode());

  // Delete takes the path before the owner and needs one of them.
  EXPECT_TRUE(
      Request<FolderDelAPI>(kAnn, R"({"path": ["/volume1/photo/a"], "owner": "ann"})").IsSuccess());
  EXPECT_EQ("2:c,b,", List("{}"));
  EXPECT_EQ(120, Request<FolderDelAPI>(kAnn, R"({"owner": ""})").GetErrorCode());
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor("Got exception: Need path or owner"));
  EXPECT_TRUE(Request<FolderDelAPI>(kAnn, R"({"owner": "ann"})").IsSuccess());
  EXPECT_EQ("0:", List("{}"));
}

TEST_F(FolderStatusTest, IndexWordOverQueuesAndThePauseRule) {
  EXPECT_EQ("finished", IndexWord());  // no indexed share at all
  AddAsAnn(R"([{"path": "/volume1/photo/a"}, {"path": "/volume2/music/d"}])");
  EXPECT_EQ("processing", IndexWord());
  for (const char* length : {"0", "3600"}) {  // 0: paused until resumed
    EXPECT_TRUE(
        Request<StatusPauseAPI>(kCarol, std::string(R"({"length": )") + length + "}").IsSuccess());
    EXPECT_EQ("paused", IndexWord());
  }
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

  // Nothing waiting: finished, even while paused. Without the checker the
  // class reads an absent length as 0.
  EXPECT_TRUE(Request<StatusPauseAPI>(kCarol, "{}").IsSuccess());
  EXPECT_EQ(0, kestondri::fileindex::StatusMgr().GetPauseInfo());
  EXPECT_EQ("finished", IndexWord());

  // The term word follows the updater's pid file (what its contents mean is
  // the platform's pid file rule).
  const auto term = [] {
    return Request<StatusGetAPI>(kAnn, "{}").GetData()["status"]["term"].asString();
  };
  EXPECT_EQ("finished", term());
  WriteFile("/var/packages/KestOndri/etc/updater.term.sugg.pid", std::to_string(getpid()) + "\n");
  EXPECT_EQ("processing", term());
}

TEST_F(FolderStatusTest, SharesThatCannotBeIndexedOrVanishedAreSkipped) {
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
  EXPECT_NE(std::string::npos, lines[0].text.find("status.cc:43 ("));
  EXPECT_NE(std::string::npos, lines[0].text.find("(IsIndexProcessing) Failed to get status"));
}

}  // namespace
}  // namespace kesttest
