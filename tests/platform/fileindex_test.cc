// The indexing library on the real platform: validation, who may do what,
// transactions, the queue files, the pause state across processes.
#include <algorithm>
#include <climits>
#include <ctime>
#include <set>

#include "kestondri/fileindex.h"
#include "platform/platform_test.h"
#include "support/syslog_capture.h"

namespace kestondri {
namespace fileindex {
namespace {

using kesttest::As;
using kesttest::CodeOf;
using kesttest::ParseJson;
using kesttest::ReadFile;
using kesttest::WriteFile;
using kesttest::WriteSharesConf;

void MakeDir(const std::string& path, uid_t owner, mode_t mode) {
  std::string partial;
  for (size_t pos = 1; pos != std::string::npos;) {
    pos = path.find('/', pos + 1);
    partial = path.substr(0, pos);
    mkdir(partial.c_str(), 0755);
  }
  ASSERT_EQ(0, chown(path.c_str(), owner, owner));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

std::vector<std::string> ListedPaths(const std::string& user) {
  std::vector<std::string> paths;
  As(user, [&] {
    Json::Value page;
    FolderList(page, 0, UINT64_MAX, "", "", "all", "", Json::Value());
    for (const auto& f : page["folders"]) paths.push_back(f["path"].asString());
  });
  return paths;
}

// The library's calls on JSON text, as `user`: the Error's code, 0 for none.
int Add(const std::string& user, const std::string& folders, std::string* reason = nullptr) {
  return CodeOf(
      user, [&] { FolderAdd(ParseJson(folders), false); }, reason);
}
int Set(const std::string& user, const std::string& folders, bool replace) {
  return CodeOf(user, [&] { FolderSet(ParseJson(folders), replace); });
}
int Delete(const std::string& user, const std::string& paths) {
  return CodeOf(user, [&] { FolderDelete(ParseJson(paths)); });
}
// The entry as `user` sees it; with `reason`, a folder `user` may not see.
Json::Value Get(const std::string& user, const std::string& path, std::string* reason = nullptr) {
  Json::Value entry;
  EXPECT_EQ(reason ? 120 : 0, CodeOf(
                                  user, [&] { FolderGet(entry, path); }, reason))
      << path;
  return entry;
}

class FileIndexTest : public kesttest::IdentityTest {
 protected:
  void SetUp() override {
    system("rm -rf /var/packages/KestOndri /volume1/* /volume1/@kestondri /volume2/*");
    WriteSharesConf(
        "[global]\nuser home = yes\n"
        "[photo]\npath = /volume1/photo\n"
        "[docs]\npath = /volume1/docs\ninvalid users = dave\n"
        "[vault]\npath = /volume2/vault\nencrypted = yes\n"
        "[homes]\npath = /volume1/homes\n");
    MakeDir("/volume1/photo/ann", kesttest::kAnnUid, 0700);
    MakeDir("/volume1/photo/shared", kesttest::kBobUid, 0755);
    MakeDir("/volume1/photo/bob", kesttest::kBobUid, 0700);
    MakeDir("/volume1/docs/open", 0, 0755);
    MakeDir("/volume2/vault/x", 0, 0755);
    MakeDir("/volume1/outside", 0, 0755);
    WriteFile("/volume1/photo/shared/file.txt", "x");
    symlink("/volume1/outside", "/volume1/photo/escape");
  }
};

TEST_F(FileIndexTest, AddMakesTheCallerOwnerAndQueuesTheFolder) {
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann/", "photo": false, "name": "Pics"}])"));
  const Json::Value entry = Get("ann", "/volume1/photo/ann");
  EXPECT_EQ("/volume1/photo/ann Pics ann photo",
            entry["path"].asString() + " " + entry["name"].asString() + " " +
                entry["owner"].asString() + " " + entry["share"].asString());
  EXPECT_FALSE(entry["paused"].asBool());
  EXPECT_FALSE(entry["photo"].asBool());
  EXPECT_TRUE(entry["video"].asBool());
  EXPECT_EQ("processing", entry["additional"]["status"].asString());

  EXPECT_EQ("# kestondri queue 2\nupdate\t/volume1/photo/ann\n",
            ReadFile("/volume1/@kestondri/queue/photo.queue"));
  // Root's own, closed to others but for the queue folder the indexer reads.
  for (const auto& file :
       {std::make_pair("/var/packages/KestOndri/var/fileindex", 0700u),
        std::make_pair("/var/packages/KestOndri/var/fileindex/folders.db", 0600u),
        std::make_pair("/volume1/@kestondri/queue/photo.queue", 0600u),
        std::make_pair("/volume1/@kestondri/queue", 0755u)}) {
    struct stat st;
    ASSERT_EQ(0, stat(file.first, &st)) << file.first;
    EXPECT_EQ(file.second, st.st_mode & 07777) << file.first;
    EXPECT_EQ(0u, st.st_uid | st.st_gid) << file.first;
  }
  EXPECT_EQ(std::set<std::string>{"photo"}, FolderMgr().GetIndexedShares());
  // Pending while the queue names the folder, one inside it or one around it.
  for (const auto& queued : {std::make_pair("/volume1/photo/ann/sub", "processing"),
                             std::make_pair("/volume1/photo", "processing"),
                             std::make_pair("/volume1/photo/annex", "finished")}) {
    WriteFile("/volume1/@kestondri/queue/photo.queue",
              std::string("# kestondri queue 2\nupdate\t") + queued.first + "\n", 0600);
    EXPECT_EQ(queued.second, Get("ann", "/volume1/photo/ann")["additional"]["status"].asString())
        << queued.first;
  }
}

TEST_F(FileIndexTest, BadInputIsRefusedAndNothingChanges) {
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann"}])"));
  const std::string before = ReadFile("/volume1/@kestondri/queue/photo.queue");
  struct Case {
    const char* user;
    std::string folders;
    int code;
    const char* reason;
  } cases[] = {
      {"ann", R"([{"path": "/volume1/photo/shared/../ann"}])", 120, "not canonical"},
      {"ann", R"([{"path": "volume1/photo/shared"}])", 120, "must be absolute"},
      {"ann", R"([{"path": "/volume1/photo/escape"}])", 120, "symbolic link"},
      {"ann", R"([{"path": "/volume1/photo/none"}])", 120, "no such folder"},
      {"ann", R"([{"path": "/volume1/photo/shared/file.txt"}])", 120, "not a folder"},
      {"ann", R"([{"path": "/volume1/outside"}])", 120, "not inside a shared folder"},
      {"root", R"([{"path": "/volume1/@kestondri/queue"}])", 120, "package's own data"},
      {"root", R"([{"path": "/var/packages/KestOndri/var"}])", 120, "package's own data"},
      {"ann", R"([{"path": "/volume1/photo/bob"}])", 120, "not a readable folder"},
      {"dave", R"([{"path": "/volume1/docs/open"}])", 120, "not a readable folder"},
      {"root", R"([{"path": "/volume2/vault/x"}])", 120, "cannot be indexed"},
      {"ann", R"([{"path": "/volume1/photo/ann"}])", 120, "already indexed"},
      {"ann", R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/photo/shared/"}])", 120,
       "given twice"},
      {"ann", R"([{"path": "/volume1/photo/shared", "paused": "yes"}])", 120, "boolean"},
      {"ann", R"([{"path": "/volume1/photo/shared", "colour": true}])", 120, "unknown member"},
      {"ann", R"([{"path": 5}])", 120, "must be a string"},
      {"ann", R"([{"name": "x"}])", 120, "needs a path"},
      {"ann", R"([])", 120, "no folder given"},
      {"ann", R"({"path": "/volume1/photo/shared"})", 120, "must be an array"},
      {"ann", R"([{"path": "/volume1/photo/shared", "name": ")" + std::string(256, 'n') + R"("}])",
       120, "name longer"},
      {"ann", R"([{"path": "/volume1/photo/shared", "owner": "bob"}])", 507, "another owner"},
      {"root", R"([{"path": "/volume1/photo/shared", "owner": "nosuchuser"}])", 120,
       "unknown user"},
      // One bad folder spoils the batch: the good one before it is not added.
      {"ann", R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/photo/none"}])", 120,
       "no such folder"},
  };
  for (const auto& c : cases) {
    std::string reason;
    EXPECT_EQ(c.code, Add(c.user, c.folders, &reason)) << c.folders;
    EXPECT_NE(std::string::npos, reason.find(c.reason)) << c.folders << " gave: " << reason;
  }
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/ann"}, ListedPaths("root"));
  EXPECT_EQ(before, ReadFile("/volume1/@kestondri/queue/photo.queue"));
}

TEST_F(FileIndexTest, AFailedQueueWriteRollsTheStoreBack) {
  ASSERT_EQ(0, Add("root", R"([{"path": "/volume1/photo/shared"}])"));
  // The queue's twin cannot be written: the change must not stay half done.
  mkdir("/volume1/@kestondri/queue/docs.queue.tmp", 0755);
  std::string reason;
  EXPECT_EQ(502, Add("root", R"([{"path": "/volume1/photo/ann"}, {"path": "/volume1/docs/open"}])",
                     &reason));
  EXPECT_NE(std::string::npos, reason.find("docs.queue.tmp")) << reason;
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/shared"}, ListedPaths("root"));
  rmdir("/volume1/@kestondri/queue/docs.queue.tmp");
  EXPECT_EQ(0, Delete("root", R"(["/volume1/photo/shared"])"));
  EXPECT_TRUE(ListedPaths("root").empty());
}

TEST_F(FileIndexTest, UsersSeeOnlyWhatTheyCanRead) {
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann"}])"));
  ASSERT_EQ(0,
            Add("bob", R"([{"path": "/volume1/photo/bob"}, {"path": "/volume1/photo/shared"}])"));
  ASSERT_EQ(0, Add("root", R"([{"path": "/volume1/docs/open", "owner": "carol"}])"));
  EXPECT_EQ((std::vector<std::string>{"/volume1/docs/open", "/volume1/photo/ann",
                                      "/volume1/photo/bob", "/volume1/photo/shared"}),
            ListedPaths("root"));
  EXPECT_EQ((std::vector<std::string>{"/volume1/docs/open", "/volume1/photo/ann",
                                      "/volume1/photo/shared"}),
            ListedPaths("ann"));
  // dave may not use the docs share at all.
  EXPECT_EQ((std::vector<std::string>{"/volume1/photo/shared"}), ListedPaths("dave"));
  std::string reason;
  Get("ann", "/volume1/photo/bob", &reason);
  EXPECT_EQ("not an indexed folder: /volume1/photo/bob", reason);

  Json::Value groups;
  As("ann", [&] { FolderListGroups(groups); });
  EXPECT_EQ(ParseJson(R"({"groups": [{"id": "all", "name": "all", "count": 3},
                           {"id": "mine", "name": "mine", "count": 1},
                           {"id": "share:docs", "name": "docs", "count": 1},
                           {"id": "share:photo", "name": "photo", "count": 2}]})"),
            groups);
  Json::Value summary;
  As("bob", [&] { FolderSummary(summary); });
  EXPECT_EQ(3u, summary["total"].asUInt());
  EXPECT_EQ(2u, summary["mine"].asUInt());
  EXPECT_EQ(2u, summary["shares"].asUInt());
  EXPECT_EQ(3u, summary["types"]["video"].asUInt());
  EXPECT_FALSE(summary["indexing_paused"].asBool());
}

TEST_F(FileIndexTest, OnlyOwnersAndAdministratorsChangeFolders) {
  ASSERT_EQ(0,
            Add("bob", R"([{"path": "/volume1/photo/bob"}, {"path": "/volume1/photo/shared"}])"));
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann"}])"));
  struct Case {
    const char* user;
    std::function<void()> call;
    int code;
  } cases[] = {
      // ann can read bob's shared folder but does not own it. (Reindexing it
      // and resuming: the module's folder and status tests.)
      {"ann", [] { FolderDelete(ParseJson(R"(["/volume1/photo/shared"])")); }, 507},
      {"ann",
       [] {
         FolderSet(ParseJson(R"([{"path": "/volume1/photo/shared", "paused": true}])"), false);
       },
       507},
      // bob's private folder does not exist as far as ann can tell.
      {"ann", [] { FolderDelete(ParseJson(R"(["/volume1/photo/bob"])")); }, 120},
      {"ann", [] { FolderDelete(ParseJson(R"([])")); }, 120},
      {"ann", [] { FolderDelete(std::string("bob")); }, 507},
      {"root", [] { FolderDelete(std::string("nosuchuser")); }, 120},
      {"ann", [] { FolderDelete(std::string("")); }, 120},
      {"ann", [] { FolderReindex(ParseJson(R"(["/volume1/photo/ann/../bob"])")); }, 120},
      {"ann", [] { StatusMgr().Pause(10); }, 507},
  };
  for (const auto& c : cases) EXPECT_EQ(c.code, CodeOf(c.user, c.call));
  EXPECT_EQ(3u, ListedPaths("root").size());

  EXPECT_EQ(
      0, Set("bob", R"([{"path": "/volume1/photo/shared", "paused": true, "name": "S"}])", false));
  Json::Value entry = Get("ann", "/volume1/photo/shared");
  EXPECT_TRUE(entry["paused"].asBool());
  EXPECT_EQ("S", entry["name"].asString());
  EXPECT_EQ("paused", entry["additional"]["status"].asString());
  // replace: what is not given returns to its default.
  EXPECT_EQ(0, Set("bob", R"([{"path": "/volume1/photo/shared", "audio": false}])", true));
  entry = Get("bob", "/volume1/photo/shared");
  EXPECT_FALSE(entry["paused"].asBool());
  EXPECT_FALSE(entry["audio"].asBool());
  EXPECT_EQ("shared", entry["name"].asString());

  EXPECT_EQ(0, CodeOf("ann", [] { FolderDelete(std::string("ann")); }));
  EXPECT_EQ(0, Delete("root", R"(["/volume1/photo/shared"])"));
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/bob"}, ListedPaths("root"));
  EXPECT_NE(
      std::string::npos,
      ReadFile("/volume1/@kestondri/queue/photo.queue").find("remove\t/volume1/photo/shared\n"));
  EXPECT_EQ(0, CodeOf("root", [] { FolderDelete(std::string("bob")); }));
  EXPECT_TRUE(ListedPaths("root").empty());
}

TEST_F(FileIndexTest, ListPagesSortsAndFilters) {
  ASSERT_EQ(0, Add("root", R"([{"path": "/volume1/photo/shared", "name": "beta"},
                  {"path": "/volume1/photo/ann", "name": "Alpha", "owner": "ann"},
                  {"path": "/volume1/docs/open", "name": "gamma"}])"));
  // "<total>:<name>,<name>,..." of one page, or the error's code.
  auto list = [](const char* user, uint64_t offset, uint64_t limit, const char* sort,
                 const char* dir, const char* group, const char* pattern,
                 const char* additional = "null") {
    Json::Value page;
    const int code = CodeOf(user, [&] {
      FolderList(page, offset, limit, sort, dir, group, pattern, ParseJson(additional));
    });
    std::string names = std::to_string(page["total"].asUInt64()) + ":";
    for (const auto& f : page["folders"]) names += f["name"].asString() + ",";
    return code ? "error " + std::to_string(code) : names;
  };
  // (The module's folder tests hold the pages, the order by name and the
  // share groups.)
  const uint64_t all = UINT64_MAX;
  EXPECT_EQ("3:gamma,Alpha,beta,", list("root", 0, all, "", "", "", ""));
  EXPECT_EQ("3:gamma,beta,", list("root", 0, 2, "name", "DESC", "all", ""));
  EXPECT_EQ("1:Alpha,", list("ann", 0, all, "", "", "mine", ""));
  EXPECT_EQ("2:Alpha,beta,", list("root", 0, all, "name", "", "all", "PHOTO"));
  EXPECT_EQ("1:Alpha,", list("root", 0, all, "name", "", "all", "alp"));
  EXPECT_EQ("error 120", list("root", 0, 1, "", "up", "all", ""));
  EXPECT_EQ("error 120", list("root", 0, 1, "", "", "others", ""));
  EXPECT_EQ("error 120", list("root", 0, 1, "", "", "all", "", R"(["owner_uid"])"));
  Json::Value page;
  As("root", [&] { FolderList(page, 0, 1, "", "", "all", "", ParseJson(R"(["status"])")); });
  EXPECT_EQ("processing", page["folders"][0]["additional"]["status"].asString());
}

TEST_F(FileIndexTest, QueueKeepsOrderSurvivesAnInterruptedRewriteAndDropsCutLines) {
  ASSERT_EQ(0,
            Add("root", R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/photo/ann"}])"));
  // A rewrite interrupted before its rename left entries in the twin, the
  // last one cut off.
  WriteFile("/volume1/@kestondri/queue/photo.queue.tmp",
            "# kestondri queue 1\nremove\t/volume1/photo/old\nreindex\t/volume1/photo/cu");
  // The same entry queued again moves to the end; another operation on the
  // same folder is another entry.
  for (const char* path :
       {"/volume1/photo/shared", "/volume1/photo/ann", "/volume1/photo/shared"}) {
    EXPECT_EQ(0,
              CodeOf("root", [&] { FolderReindex(ParseJson(std::string("[\"") + path + "\"]")); }));
  }
  EXPECT_EQ(
      "# kestondri queue 2\nremove\t/volume1/photo/old\nupdate\t/volume1/photo/shared\n"
      "update\t/volume1/photo/ann\nreindex\t/volume1/photo/ann\nreindex\t/volume1/photo/shared\n",
      ReadFile("/volume1/@kestondri/queue/photo.queue"));
  struct stat st;
  EXPECT_NE(0, stat("/volume1/@kestondri/queue/photo.queue.tmp", &st));
}

TEST_F(FileIndexTest, AVanishedShareOrFolderIsReportedNotLost) {
  ASSERT_EQ(0,
            Add("root", R"([{"path": "/volume1/docs/open"}, {"path": "/volume1/photo/shared"}])"));
  rmdir("/volume1/docs/open");
  WriteSharesConf("[photo]\npath = /volume1/photo\n");
  Json::Value page;
  As("root",
     [&] { FolderList(page, 0, UINT64_MAX, "", "", "all", "", ParseJson(R"(["status"])")); });
  ASSERT_EQ(2u, page["total"].asUInt());
  EXPECT_EQ("unavailable", page["folders"][0]["additional"]["status"].asString());
  EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares());
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/shared"}, ListedPaths("ann"));
  EXPECT_EQ(0, Delete("root", R"(["/volume1/docs/open"])"));
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/shared"}, ListedPaths("root"));
}

// (The module's status tests hold the pause's lengths.)
TEST_F(FileIndexTest, PauseStateIsSharedAcrossProcessesAndReadByAnyone) {
  StatusMgr status;
  EXPECT_EQ(1, status.GetPauseInfo());  // not paused: a time long past
  ASSERT_TRUE(kesttest::InAnotherProcess([] {
    StatusMgr().Pause(0);
    return true;
  }));
  int64_t seen = -1;
  As("dave", [&] { seen = StatusMgr().GetPauseInfo(); });
  EXPECT_EQ(0, seen);  // until resumed
  status.Resume();
  EXPECT_EQ(1, status.GetPauseInfo());
}

// Readers answer from a snapshot of the store while no commit has happened
// since it was taken; every commit, by any process, retires it.
TEST_F(FileIndexTest, SnapshotServesReadsUntilTheNextCommit) {
  const std::string snapshot = "/var/packages/KestOndri/var/fileindex/folders.snapshot";
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann"}])"));
  EXPECT_EQ(std::set<std::string>{"photo"}, FolderMgr().GetIndexedShares());
  struct stat st;
  ASSERT_EQ(0, stat(snapshot.c_str(), &st));
  EXPECT_EQ(0600u, st.st_mode & 07777);
  EXPECT_EQ(0u, st.st_uid);

  // Proof that the snapshot is what answers: alter it behind the store's back.
  Json::Value forged = ParseJson(ReadFile(snapshot));
  ASSERT_TRUE(forged["rows"].isArray()) << ReadFile(snapshot);
  forged["rows"][0][3] = "forged";
  WriteFile(snapshot, Json::FastWriter().write(forged));
  EXPECT_EQ(std::set<std::string>{"forged"}, FolderMgr().GetIndexedShares());

  // A commit by another process retires it.
  ASSERT_TRUE(kesttest::InAnotherProcess(
      [] { return !Add("root", R"([{"path": "/volume1/docs/open"}])"); }));
  EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares());

  // A damaged or hostile snapshot is logged, not used, and replaced.
  const std::string stamp = ParseJson(ReadFile(snapshot))["stamp"].asString();
  const std::string head = R"({"format": 2, "stamp": ")" + stamp + R"(", "pause": [false, 1, 0], )";
  const std::string damaged[] = {
      "",
      "{",
      "[]",
      R"({"stamp": 1, "rows": [], "pause": []})",
      std::string(100000, '['),
      head + R"("rows": [["/p", "n", "o", "s", true, true, true, true, true, "x"]]})",
      head + R"("rows": [[1e999, "n", "o", "s", true, true, true, true, true, 1]]})",
      head + R"("rows": [["/p", "n", "o", "s", true, true, true, true, true, 1, 1]]})",
      head + R"("rows": {"a": 1}})",
  };
  for (const auto& text : damaged) {
    WriteFile(snapshot, text);
    kesttest::SyslogCapture::Instance().Clear();
    EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares())
        << text.substr(0, 80);
    EXPECT_TRUE(kesttest::SyslogCapture::Instance().WaitFor("snapshot " + snapshot + " ignored"))
        << text.substr(0, 80);
    EXPECT_TRUE(ParseJson(ReadFile(snapshot))["rows"].isArray()) << text.substr(0, 80);
  }

  // A path of any bytes reads back from the snapshot as it was stored.
  const std::string odd = "/volume1/photo/shared/\xff\xfe\xc3(";
  MakeDir(odd, 0, 0755);
  Json::Value entry;
  entry[0]["path"] = odd;
  ASSERT_EQ(0, CodeOf("root", [&] { FolderAdd(entry, false); }));
  for (int read = 0; read < 2; ++read) {  // from the store, then from the snapshot
    const auto paths = ListedPaths("root");
    EXPECT_NE(paths.end(), std::find(paths.begin(), paths.end(), odd)) << read;
  }

  // A new database never inherits the snapshot of the one it replaces.
  ASSERT_EQ(0, unlink("/var/packages/KestOndri/var/fileindex/folders.db"));
  ASSERT_EQ(0, Add("bob", R"([{"path": "/volume1/photo/shared"}])"));
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/shared"}, ListedPaths("root"));
}

// (The module's search tests hold the names and ids of shares.)
TEST(FileIndexNamesTest, NoShareNoName) {
  WriteSharesConf("[photo]\npath = /volume1/photo\n");
  std::string name = "x", path = "y";
  GetShareNamePathByFullPath("/volume1/other/a", name, path);
  EXPECT_EQ("", name + path);
  EXPECT_THROW(elastic::GetFileIndexID(""), Error);
}

}  // namespace
}  // namespace fileindex
}  // namespace kestondri
