// The indexing library on the real platform: validation, who may do what,
// transactions, the queue files, the pause state across processes and the
// store's snapshot. One scenario per concern, each on a fresh store.
#include <algorithm>
#include <climits>
#include <set>

#include "kest/json.h"
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

constexpr char kQueue[] = "/volume1/@kestondri/queue/photo.queue";

void MakeDir(const std::string& path, uid_t owner, mode_t mode) {
  ASSERT_EQ(0, system(("mkdir -p '" + path + "'").c_str()));
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

// FolderAdd of JSON text, as `user`: the Error's code, 0 for none.
int Add(const std::string& user, const std::string& folders, std::string* reason = nullptr) {
  return CodeOf(
      user, [&] { FolderAdd(ParseJson(folders), false); }, reason);
}
// The entry as `user` sees it, but for its time of creation.
Json::Value Get(const std::string& user, const std::string& path) {
  Json::Value entry;
  EXPECT_EQ(0, CodeOf(user, [&] { FolderGet(entry, path); })) << path;
  entry.removeMember("created");
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

// The caller becomes the owner; the store's and queue's files are root's,
// closed to others but for the queue folder the indexer reads; bad input is
// refused with its reason and changes nothing, nor does a failed queue write.
TEST_F(FileIndexTest, AddValidatesAndChangesAllOrNothing) {
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann/", "photo": false, "name": "Pics"}])"));
  EXPECT_EQ(ParseJson(R"({"path": "/volume1/photo/ann", "name": "Pics", "owner": "ann",
      "share": "photo", "paused": false, "video": true, "audio": true, "photo": false,
      "document": true, "additional": {"status": "processing"}})"),
            Get("ann", "/volume1/photo/ann"));
  EXPECT_EQ("# kestondri queue 2\nupdate\t/volume1/photo/ann\n", ReadFile(kQueue));
  for (const auto& file :
       {std::make_pair("/var/packages/KestOndri/var/fileindex", 0700u),
        std::make_pair("/var/packages/KestOndri/var/fileindex/folders.db", 0600u),
        std::make_pair(kQueue, 0600u), std::make_pair("/volume1/@kestondri/queue", 0755u)}) {
    struct stat st;
    ASSERT_EQ(0, stat(file.first, &st)) << file.first;
    EXPECT_EQ(file.second, st.st_mode & 07777) << file.first;
    EXPECT_EQ(0u, st.st_uid | st.st_gid) << file.first;
  }
  // Pending while the queue names the folder, one inside it or one around it.
  for (const auto& queued : {std::make_pair("/volume1/photo/ann/sub", "processing"),
                             std::make_pair("/volume1/photo", "processing"),
                             std::make_pair("/volume1/photo/annex", "finished")}) {
    WriteFile(kQueue, std::string("# kestondri queue 2\nupdate\t") + queued.first + "\n", 0600);
    EXPECT_EQ(queued.second, Get("ann", "/volume1/photo/ann")["additional"]["status"].asString())
        << queued.first;
  }
  const std::string before = ReadFile(kQueue);
  const struct {
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
  EXPECT_EQ(before, ReadFile(kQueue));
  // The queue's twin cannot be written: the store is rolled back, and stays
  // usable.
  mkdir("/volume1/@kestondri/queue/docs.queue.tmp", 0755);
  std::string reason;
  EXPECT_EQ(502,
            Add("root", R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/docs/open"}])",
                &reason));
  EXPECT_NE(std::string::npos, reason.find("docs.queue.tmp")) << reason;
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/ann"}, ListedPaths("root"));
  rmdir("/volume1/@kestondri/queue/docs.queue.tmp");
  EXPECT_EQ(0, Add("root", R"([{"path": "/volume1/docs/open"}])"));
}

// Users see what they can read, and only owners and administrators change
// folders; what a user may not see does not exist for them.
TEST_F(FileIndexTest, UsersSeeAndChangeOnlyWhatTheyMay) {
  ASSERT_EQ(0, Add("ann", R"([{"path": "/volume1/photo/ann"}])"));
  ASSERT_EQ(0,
            Add("bob", R"([{"path": "/volume1/photo/bob"}, {"path": "/volume1/photo/shared"}])"));
  ASSERT_EQ(0, Add("root", R"([{"path": "/volume1/docs/open", "owner": "carol"}])"));
  const std::vector<std::string> all = {"/volume1/docs/open", "/volume1/photo/ann",
                                        "/volume1/photo/bob", "/volume1/photo/shared"};
  EXPECT_EQ(all, ListedPaths("root"));
  EXPECT_EQ((std::vector<std::string>{all[0], all[1], all[3]}), ListedPaths("ann"));
  EXPECT_EQ(std::vector<std::string>{all[3]}, ListedPaths("dave"));  // no docs for dave
  Json::Value groups, summary;
  As("ann", [&] { FolderListGroups(groups); });
  EXPECT_EQ(ParseJson(R"({"groups": [{"id": "all", "name": "all", "count": 3},
                           {"id": "mine", "name": "mine", "count": 1},
                           {"id": "share:docs", "name": "docs", "count": 1},
                           {"id": "share:photo", "name": "photo", "count": 2}]})"),
            groups);
  As("bob", [&] { FolderSummary(summary); });
  EXPECT_EQ(ParseJson(R"({"total": 3, "mine": 2, "paused": 0, "shares": 2, "indexing_paused":
      false, "types": {"video": 3, "audio": 3, "photo": 3, "document": 3}})"),
            summary);
  const struct {
    const char* user;
    std::function<void()> call;
    int code;
    const char* reason;
  } refused[] = {
      // ann can read bob's shared folder but does not own it. (Reindexing it
      // and resuming: the module's folder and status tests.)
      {"ann", [] { FolderDelete(ParseJson(R"(["/volume1/photo/shared"])")); }, 507, "only the"},
      {"ann",
       [] {
         FolderSet(ParseJson(R"([{"path": "/volume1/photo/shared", "paused": true}])"), false);
       },
       507, "only the owner"},
      // bob's private folder does not exist as far as ann can tell.
      {"ann", [] { FolderDelete(ParseJson(R"(["/volume1/photo/bob"])")); }, 120,
       "not an indexed folder: /volume1/photo/bob"},
      {"ann",
       [] {
         Json::Value e;
         FolderGet(e, "/volume1/photo/bob");
       },
       120, "not an indexed folder: /volume1/photo/bob"},
      {"ann", [] { FolderDelete(ParseJson(R"([])")); }, 120, "no path given"},
      {"ann", [] { FolderDelete(std::string("bob")); }, 507, "only an administrator"},
      {"root", [] { FolderDelete(std::string("nosuchuser")); }, 120, "unknown user"},
      {"ann", [] { FolderDelete(std::string("")); }, 120, "no owner given"},
      {"ann", [] { FolderReindex(ParseJson(R"(["/volume1/photo/ann/../bob"])")); }, 120,
       "not canonical"},
      {"ann", [] { StatusMgr().Pause(10); }, 507, ""},
  };
  for (const auto& r : refused) {
    std::string reason;
    EXPECT_EQ(r.code, CodeOf(r.user, r.call, &reason)) << r.reason;
    EXPECT_NE(std::string::npos, reason.find(r.reason)) << reason;
  }
  EXPECT_EQ(all, ListedPaths("root"));

  ASSERT_EQ(0, CodeOf("bob", [] {
              FolderSet(ParseJson(R"([{"path": "/volume1/photo/shared", "paused": true,
                                       "name": "Beta"}])"),
                        false);
            }));
  Json::Value entry = Get("ann", "/volume1/photo/shared");
  EXPECT_EQ("Beta true paused", entry["name"].asString() + " " + Json::toString(entry["paused"]) +
                                    " " + entry["additional"]["status"].asString());
  // "<total>:<name>,<name>,..." of one page, or the error's code. (The module's
  // folder tests hold the pages, the order by name and the share groups.)
  auto list = [](const char* user, uint64_t limit, const char* sort, const char* dir,
                 const char* group, const char* pattern, const char* additional = "null") {
    Json::Value page;
    const int code = CodeOf(user, [&] {
      FolderList(page, 0, limit, sort, dir, group, pattern, ParseJson(additional));
    });
    std::string names = std::to_string(page["total"].asUInt64()) + ":";
    for (const auto& f : page["folders"]) names += f["name"].asString() + ",";
    return code ? "error " + std::to_string(code) : names;
  };
  EXPECT_EQ("4:open,bob,", list("root", 2, "name", "DESC", "all", ""));
  EXPECT_EQ("1:ann,", list("ann", UINT64_MAX, "", "", "mine", ""));
  EXPECT_EQ("3:ann,Beta,bob,", list("root", UINT64_MAX, "name", "", "all", "PHOTO"));  // path
  EXPECT_EQ("1:Beta,", list("root", UINT64_MAX, "", "", "all", "bet"));                // name
  EXPECT_EQ("error 120", list("root", 1, "", "up", "all", ""));
  EXPECT_EQ("error 120", list("root", 1, "", "", "others", ""));
  EXPECT_EQ("error 120", list("root", 1, "", "", "all", "", R"(["owner_uid"])"));
  // replace: what is not given returns to its default.
  ASSERT_EQ(0, CodeOf("bob", [] {
              FolderSet(ParseJson(R"([{"path": "/volume1/photo/shared", "audio": false}])"), true);
            }));
  entry = Get("bob", "/volume1/photo/shared");
  EXPECT_EQ("shared false false", entry["name"].asString() + " " + Json::toString(entry["paused"]) +
                                      " " + Json::toString(entry["audio"]));
  EXPECT_EQ(0, CodeOf("ann", [] { FolderDelete(std::string("ann")); }));
  EXPECT_EQ(0, CodeOf("root", [] { FolderDelete(ParseJson(R"(["/volume1/photo/shared"])")); }));
  EXPECT_NE(std::string::npos, ReadFile(kQueue).find("remove\t/volume1/photo/shared\n"));

  // A vanished share or folder is reported, not lost, and shown to no one else.
  rmdir("/volume1/docs/open");
  WriteSharesConf("[photo]\npath = /volume1/photo\n");
  Json::Value page;
  As("root", [&] { FolderList(page, 0, 9, "", "", "all", "", ParseJson(R"(["status"])")); });
  ASSERT_EQ(2u, page["total"].asUInt());
  EXPECT_EQ("unavailable", page["folders"][0]["additional"]["status"].asString());
  EXPECT_EQ("processing", page["folders"][1]["additional"]["status"].asString());
  EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares());
  EXPECT_EQ(std::vector<std::string>{all[2]}, ListedPaths("bob"));
  EXPECT_EQ(0, CodeOf("root", [] { FolderDelete(ParseJson(R"(["/volume1/docs/open"])")); }));
  EXPECT_EQ(0, CodeOf("root", [] { FolderDelete(std::string("bob")); }));
  EXPECT_TRUE(ListedPaths("root").empty());
}

// The queue keeps its order and survives an interrupted rewrite; the pause
// state is shared across processes and read by anyone; readers answer from a
// snapshot of the store while no commit has happened since it was taken.
TEST_F(FileIndexTest, QueuePauseAndSnapshot) {
  ASSERT_EQ(0,
            Add("root", R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/photo/ann"}])"));
  // A rewrite interrupted before its rename left entries in the twin, the
  // last one cut off. The same entry queued again moves to the end; another
  // operation on the same folder is another entry.
  WriteFile(std::string(kQueue) + ".tmp",
            "# kestondri queue 1\nremove\t/volume1/photo/old\nreindex\t/volume1/photo/cu");
  for (const char* path :
       {"/volume1/photo/shared", "/volume1/photo/ann", "/volume1/photo/shared"}) {
    EXPECT_EQ(0,
              CodeOf("root", [&] { FolderReindex(ParseJson(std::string("[\"") + path + "\"]")); }));
  }
  EXPECT_EQ(
      "# kestondri queue 2\nremove\t/volume1/photo/old\nupdate\t/volume1/photo/shared\n"
      "update\t/volume1/photo/ann\nreindex\t/volume1/photo/ann\nreindex\t/volume1/photo/shared\n",
      ReadFile(kQueue));
  EXPECT_NE(0, access((std::string(kQueue) + ".tmp").c_str(), F_OK));

  // (The module's status tests hold the pause's lengths.)
  StatusMgr status;
  EXPECT_EQ(1, status.GetPauseInfo());  // not paused: a time long past
  ASSERT_EQ("0", kesttest::InChildAs("root", [] {
              StatusMgr().Pause(0);
              return "0";
            }));
  int64_t seen = -1;
  As("dave", [&] { seen = StatusMgr().GetPauseInfo(); });
  EXPECT_EQ(0, seen);  // until resumed
  status.Resume();
  EXPECT_EQ(1, status.GetPauseInfo());

  const std::string snapshot = "/var/packages/KestOndri/var/fileindex/folders.snapshot";
  EXPECT_EQ(std::set<std::string>{"photo"}, FolderMgr().GetIndexedShares());
  struct stat st;
  ASSERT_EQ(0, stat(snapshot.c_str(), &st));
  EXPECT_EQ(0100600u, st.st_mode | st.st_uid);
  // Proof that the snapshot is what answers: alter it behind the store's back.
  Json::Value forged = ParseJson(ReadFile(snapshot));
  ASSERT_TRUE(forged["rows"].isArray()) << ReadFile(snapshot);
  for (auto& row : forged["rows"]) row[3] = "forged";
  WriteFile(snapshot, Json::FastWriter().write(forged));
  EXPECT_EQ(std::set<std::string>{"forged"}, FolderMgr().GetIndexedShares());
  // A commit by another process retires it.
  ASSERT_EQ("0", kesttest::InChildAs("root", [] {
              return std::to_string(Add("root", R"([{"path": "/volume1/docs/open"}])"));
            }));
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
  ASSERT_EQ(0, Add("bob", R"([{"path": "/volume1/photo/bob"}])"));
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/bob"}, ListedPaths("root"));

  // (The module's search tests hold the names and ids of shares.)
  std::string name = "x", path = "y";
  GetShareNamePathByFullPath("/volume1/other/a", name, path);
  EXPECT_EQ("", name + path);
  EXPECT_THROW(elastic::GetFileIndexID(""), Error);
}

}  // namespace
}  // namespace fileindex
}  // namespace kestondri
