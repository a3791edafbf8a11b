// The package's data on the real platform: the indexing library's store and
// queues, preferences and search history; one scenario per concern.
#include <fcntl.h>

#include <algorithm>
#include <climits>
#include <map>
#include <set>
#include <tuple>

#include "kest/json.h"
#include "kestondri/db.h"
#include "kestondri/fileindex.h"
#include "kestondri/pref.h"
#include "platform/platform_test.h"
#include "support/syslog_capture.h"

namespace kestondri {
namespace fileindex {
namespace {

using db::DBSession;
using db::SearchHistory;
using db::SearchHistoryTable;
using namespace kesttest;  // NOLINT(build/namespaces): the sandbox's users and helpers
using pref::Preference;

constexpr char kQueue[] = "/volume1/@kestondri/queue/photo.queue";
constexpr char kDB[] = "/var/packages/KestOndri/var/kestondri.db";

void MakeDir(const std::string& path, uid_t owner, mode_t mode) {
  ASSERT_EQ(0, system(("mkdir -p '" + path + "'").c_str()));
  ASSERT_EQ(0, chown(path.c_str(), owner, owner));
  ASSERT_EQ(0, chmod(path.c_str(), mode));
}

// The paths (or another field, "status" too) of the folders `user` lists with
// FolderList's arguments; "error <code>" when it throws.
std::vector<std::string> Listed(const std::string& user, const char* field = "path",
                                const char* sort = "", const char* dir = "",
                                const char* group = "all", const char* pattern = "",
                                uint64_t limit = UINT64_MAX, const char* additional = "null") {
  Json::Value page;
  const int code = CodeOf(
      user, [&] { FolderList(page, 0, limit, sort, dir, group, pattern, ParseJson(additional)); });
  std::vector<std::string> out;
  for (const auto& f : page["folders"]) {
    out.push_back((std::string(field) == "status" ? f["additional"] : f)[field].asString());
  }
  return code ? std::vector<std::string>{"error " + std::to_string(code)} : out;
}

// A call of the library on JSON text, a path (g) or an owner (o): a(dd),
// s(et), r(eplace), d(elete), o, i (reindex), g(et), p(ause).
void Do(char op, const std::string& text) {
  Json::Value out;
  const std::map<char, std::function<void()>> calls = {
      {'a', [&] { FolderAdd(ParseJson(text), false); }},
      {'s', [&] { FolderSet(ParseJson(text), false); }},
      {'r', [&] { FolderSet(ParseJson(text), true); }},
      {'d', [&] { FolderDelete(ParseJson(text)); }},
      {'o', [&] { FolderDelete(text); }},
      {'i', [&] { FolderReindex(ParseJson(text)); }},
      {'g', [&] { FolderGet(out, text); }},
      {'p', [&] { StatusMgr().Pause(10); }},
  };
  calls.at(op)();
}
// Do as `user`: the Error's code, 0 for none.
int Call(const std::string& user, char op, const std::string& text, std::string* reason = nullptr) {
  return CodeOf(
      user, [&] { Do(op, text); }, reason);
}
// The entry as `user` sees it, but for its time of creation.
Json::Value Get(const std::string& user, const std::string& path) {
  Json::Value entry;
  EXPECT_EQ(0, CodeOf(user, [&] { FolderGet(entry, path); })) << path;
  entry.removeMember("created");
  return entry;
}

void Record(uint32_t uid, const std::string& keyword, int64_t time, int max = 50) {
  SearchHistory record;
  record.uid = uid;
  record.keyword = keyword;
  record.time = time;
  SearchHistoryTable(DBSession::Instance()).UpdateWithTime(record, max);
}
std::vector<std::string> Keywords(uint32_t uid) {
  std::vector<std::string> out;
  for (const auto& row : SearchHistoryTable(DBSession::Instance()).List(uid)) {
    out.push_back(row.keyword);
  }
  return out;
}

class FileIndexTest : public IdentityTest {
 protected:
  void SetUp() override {
    system("rm -rf /var/packages/KestOndri /volume1/* /volume1/@kestondri /volume2/*");
    WriteSharesConf(
        "[global]\nuser home = yes\n"
        "[photo]\npath = /volume1/photo\n"
        "[docs]\npath = /volume1/docs\ninvalid users = dave\n"
        "[vault]\npath = /volume2/vault\nencrypted = yes\n"
        "[homes]\npath = /volume1/homes\n");
    MakeDir("/volume1/photo/ann", kAnnUid, 0700);
    MakeDir("/volume1/photo/shared", kBobUid, 0755);
    MakeDir("/volume1/photo/bob", kBobUid, 0700);
    MakeDir("/volume1/docs/open", 0, 0755);
    MakeDir("/volume1/docs/more", 0, 0755);
    MakeDir("/volume2/vault/x", 0, 0755);
    MakeDir("/volume1/outside", 0, 0755);
    WriteFile("/volume1/photo/shared/file.txt", "x");
    symlink("/volume1/outside", "/volume1/photo/escape");
  }
};

// The store's and queue's files are root's, closed to others but for the
// queue folder the indexer reads; what a user may not see does not exist for
// them; refused calls change nothing and say why.
TEST_F(FileIndexTest, EachCallerSeesAndChangesOnlyWhatTheyMay) {
  ASSERT_EQ(
      0, Call("ann", 'a', R"([{"path": "/volume1/photo/ann/", "photo": false, "name": "Pics"}])"));
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
  ASSERT_EQ(0, Call("bob", 'a',
                    R"([{"path": "/volume1/photo/bob"}, {"path": "/volume1/photo/shared"}])"));
  ASSERT_EQ(0, Call("root", 'a', R"([{"path": "/volume1/docs/open", "owner": "carol"}])"));
  const std::vector<std::string> all = {"/volume1/docs/open", "/volume1/photo/ann",
                                        "/volume1/photo/bob", "/volume1/photo/shared"};
  EXPECT_EQ(all, Listed("root"));
  EXPECT_EQ((std::vector<std::string>{all[0], all[1], all[3]}), Listed("ann"));
  EXPECT_EQ(std::vector<std::string>{all[3]}, Listed("dave"));  // no docs for dave
  // What a user may not see is not counted for them either.
  Json::Value summary;
  As("bob", [&] { FolderSummary(summary); });
  EXPECT_EQ(ParseJson(R"({"total": 3, "mine": 2, "paused": 0, "shares": 2, "indexing_paused":
      false, "types": {"video": 3, "audio": 3, "photo": 3, "document": 3}})"),
            summary);

  const std::string queue = ReadFile(kQueue);
  const std::tuple<const char*, char, std::string, int, const char*> refused[] = {
      {"ann", 'a', R"([{"path": "/volume1/photo/shared/../ann"}])", 120, "not canonical"},
      {"ann", 'a', R"([{"path": "volume1/photo/shared"}])", 120, "must be absolute"},
      {"ann", 'a', R"([{"path": "/volume1/photo/escape"}])", 120, "symbolic link"},
      {"ann", 'a', R"([{"path": "/volume1/photo/none"}])", 120, "no such folder"},
      {"ann", 'a', R"([{"path": "/volume1/photo/shared/file.txt"}])", 120, "not a folder"},
      {"ann", 'a', R"([{"path": "/volume1/outside"}])", 120, "not inside a shared folder"},
      {"root", 'a', R"([{"path": "/volume1/@kestondri/queue"}])", 120, "package's own data"},
      {"root", 'a', R"([{"path": "/var/packages/KestOndri/var"}])", 120, "package's own data"},
      {"ann", 'a', R"([{"path": "/volume1/photo/bob"}])", 120, "not a readable folder"},
      {"dave", 'a', R"([{"path": "/volume1/docs/more"}])", 120, "not a readable folder"},
      {"root", 'a', R"([{"path": "/volume2/vault/x"}])", 120, "cannot be indexed"},
      {"ann", 'a', R"([{"path": "/volume1/photo/ann"}])", 120, "already indexed"},
      {"ann", 'a', R"([{"path": "/volume1/docs/more"}, {"path": "/volume1/docs/more/"}])", 120,
       "given twice"},
      {"ann", 'a', R"([{"path": "/volume1/docs/more", "paused": "yes"}])", 120, "boolean"},
      {"ann", 'a', R"([{"path": "/volume1/docs/more", "colour": true}])", 120, "unknown member"},
      {"ann", 'a', R"([{"path": 5}])", 120, "must be a string"},
      {"ann", 'a', R"([{"name": "x"}])", 120, "needs a path"},
      {"ann", 'a', R"([])", 120, "no folder given"},
      {"ann", 'a', R"({"path": "/volume1/docs/more"})", 120, "must be an array"},
      {"ann", 'a',
       R"([{"path": "/volume1/docs/more", "name": ")" + std::string(256, 'n') + R"("}])", 120,
       "name longer"},
      {"ann", 'a', R"([{"path": "/volume1/docs/more", "owner": "bob"}])", 507, "another owner"},
      {"root", 'a', R"([{"path": "/volume1/docs/more", "owner": "nosuchuser"}])", 120,
       "unknown user"},
      // One bad folder spoils the batch: the good one before it is not added.
      {"ann", 'a', R"([{"path": "/volume1/docs/more"}, {"path": "/volume1/photo/none"}])", 120,
       "no such folder"},
      // ann can read bob's shared folder but does not own it.
      {"ann", 'd', R"(["/volume1/photo/shared"])", 507, "only the owner"},
      {"ann", 's', R"([{"path": "/volume1/photo/shared", "paused": true}])", 507, "only the"},
      // bob's private folder does not exist as far as ann can tell.
      {"ann", 'd', R"(["/volume1/photo/bob"])", 120, "not an indexed folder: /volume1/photo/bob"},
      {"ann", 'g', "/volume1/photo/bob", 120, "not an indexed folder: /volume1/photo/bob"},
      {"ann", 'd', "[]", 120, "no path given"},
      {"ann", 'o', "bob", 507, "only an administrator"},
      {"root", 'o', "nosuchuser", 120, "unknown user"},
      {"ann", 'o', "", 120, "no owner given"},
      {"ann", 'i', R"(["/volume1/photo/ann/../bob"])", 120, "not canonical"},
      {"ann", 'p', "", 507, ""},
  };
  for (const auto& [user, op, text, code, why] : refused) {
    std::string reason;
    EXPECT_EQ(code, Call(user, op, text, &reason)) << text;
    EXPECT_NE(std::string::npos, reason.find(why)) << text << " gave: " << reason;
  }
  // The queue's twin cannot be written: the store is rolled back.
  mkdir("/volume1/@kestondri/queue/docs.queue.tmp", 0755);
  std::string reason;
  EXPECT_EQ(502, Call("root", 'a', R"([{"path": "/volume1/docs/more"}])", &reason));
  EXPECT_NE(std::string::npos, reason.find("docs.queue.tmp")) << reason;
  rmdir("/volume1/@kestondri/queue/docs.queue.tmp");
  EXPECT_EQ(all, Listed("root"));
  EXPECT_EQ(queue, ReadFile(kQueue));

  ASSERT_EQ(0, Call("bob", 's',
                    R"([{"path": "/volume1/photo/shared", "paused": true, "name": "Beta"}])"));
  Json::Value entry = Get("ann", all[3]);
  EXPECT_EQ("Beta true paused", entry["name"].asString() + " " + Json::toString(entry["paused"]) +
                                    " " + entry["additional"]["status"].asString());
  // Pages, the order by name, share groups.
  using V = std::vector<std::string>;
  EXPECT_EQ((V{"Pics", "open"}), Listed("root", "name", "name", "DESC", "all", "", 2));
  EXPECT_EQ(V{"Pics"}, Listed("ann", "name", "", "", "mine"));
  EXPECT_EQ((V{"Beta", "bob", "Pics"}), Listed("root", "name", "name", "", "all", "PHOTO"));
  EXPECT_EQ(V{"Beta"}, Listed("root", "name", "", "", "all", "bet"));  // by name
  for (const auto& bad :
       {V{"up", "all", "null"}, V{"", "others", "null"}, V{"", "all", R"(["owner_uid"])"}}) {
    EXPECT_EQ(V{"error 120"},
              Listed("root", "name", "", bad[0].c_str(), bad[1].c_str(), "", 1, bad[2].c_str()));
  }
  // replace: what is not given returns to its default.
  ASSERT_EQ(0, Call("bob", 'r', R"([{"path": "/volume1/photo/shared", "audio": false}])"));
  entry = Get("bob", all[3]);
  EXPECT_EQ("shared false false", entry["name"].asString() + " " + Json::toString(entry["paused"]) +
                                      " " + Json::toString(entry["audio"]));
  EXPECT_EQ(0, Call("ann", 'o', "ann"));
  EXPECT_EQ(0, Call("root", 'd', R"(["/volume1/photo/shared"])"));
  EXPECT_NE(std::string::npos, ReadFile(kQueue).find("remove\t/volume1/photo/shared\n"));

  // A vanished share or folder is reported, not lost, and shown to no one else.
  rmdir("/volume1/docs/open");
  WriteSharesConf("[photo]\npath = /volume1/photo\n");
  EXPECT_EQ((V{"unavailable", "processing"}),
            Listed("root", "status", "", "", "all", "", 9, R"(["status"])"));
  EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares());
  EXPECT_EQ(std::vector<std::string>{all[2]}, Listed("bob"));
  EXPECT_EQ(0, Call("root", 'd', R"(["/volume1/docs/open"])"));
  EXPECT_EQ(0, Call("root", 'o', "bob"));
  EXPECT_TRUE(Listed("root").empty());
}

// The pause state is shared across processes (its lengths: the module's
// status tests); readers answer from a snapshot while no commit followed it.
TEST_F(FileIndexTest, QueuePauseAndSnapshot) {
  ASSERT_EQ(0, Call("root", 'a',
                    R"([{"path": "/volume1/photo/shared"}, {"path": "/volume1/photo/ann"}])"));
  // A rewrite interrupted before its rename left entries in the twin, the
  // last one cut off. The same entry queued again moves to the end; another
  // operation on the same folder is another entry.
  WriteFile(std::string(kQueue) + ".tmp",
            "# kestondri queue 1\nremove\t/volume1/photo/old\nreindex\t/volume1/photo/cu");
  for (const char* path : {"shared", "ann", "shared"}) {
    EXPECT_EQ(0, Call("root", 'i', std::string("[\"/volume1/photo/") + path + "\"]"));
  }
  EXPECT_EQ(
      "# kestondri queue 2\nremove\t/volume1/photo/old\nupdate\t/volume1/photo/shared\n"
      "update\t/volume1/photo/ann\nreindex\t/volume1/photo/ann\nreindex\t/volume1/photo/shared\n",
      ReadFile(kQueue));
  EXPECT_NE(0, access((std::string(kQueue) + ".tmp").c_str(), F_OK));

  ASSERT_EQ("0", InChildAs("root", [] {
              StatusMgr().Pause(0);
              return "0";
            }));
  int64_t seen = -1;
  As("dave", [&] { seen = StatusMgr().GetPauseInfo(); });
  EXPECT_EQ(0, seen);  // until resumed
  StatusMgr().Resume();
  EXPECT_EQ(1, StatusMgr().GetPauseInfo());  // not paused: a time long past

  const std::string snapshot = "/var/packages/KestOndri/var/fileindex/folders.snapshot";
  EXPECT_EQ(std::set<std::string>{"photo"}, FolderMgr().GetIndexedShares());
  struct stat st;
  ASSERT_EQ(0, stat(snapshot.c_str(), &st));
  EXPECT_EQ(0100600u, st.st_mode | st.st_uid);
  // Proof that the snapshot is what answers: alter it behind the store's back.
  Json::Value forged = ParseJson(ReadFile(snapshot));
  for (auto& row : forged["rows"]) row[3] = "forged";
  WriteFile(snapshot, Json::FastWriter().write(forged));
  EXPECT_EQ(std::set<std::string>{"forged"}, FolderMgr().GetIndexedShares());
  // A commit by another process retires it.
  ASSERT_EQ("0", InChildAs("root", [] {
              return std::to_string(Call("root", 'a', R"([{"path": "/volume1/docs/open"}])"));
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
    SCOPED_TRACE(text.substr(0, 80));
    WriteFile(snapshot, text);
    SyslogCapture::Instance().Clear();
    EXPECT_EQ((std::set<std::string>{"docs", "photo"}), FolderMgr().GetIndexedShares());
    EXPECT_TRUE(SyslogCapture::Instance().WaitFor("snapshot " + snapshot + " ignored"));
    EXPECT_TRUE(ParseJson(ReadFile(snapshot))["rows"].isArray());
  }

  // A path of any bytes reads back from the snapshot as it was stored.
  const std::string odd = "/volume1/photo/shared/\xff\xfe\xc3(";
  MakeDir(odd, 0, 0755);
  Json::Value entry;
  entry[0]["path"] = odd;
  ASSERT_EQ(0, CodeOf("root", [&] { FolderAdd(entry, false); }));
  for (int read = 0; read < 2; ++read) {  // from the store, then from the snapshot
    const auto paths = Listed("root");
    EXPECT_NE(paths.end(), std::find(paths.begin(), paths.end(), odd)) << read;
  }

  // A new database never inherits the snapshot of the one it replaces.
  ASSERT_EQ(0, unlink("/var/packages/KestOndri/var/fileindex/folders.db"));
  ASSERT_EQ(0, Call("bob", 'a', R"([{"path": "/volume1/photo/bob"}])"));
  EXPECT_EQ(std::vector<std::string>{"/volume1/photo/bob"}, Listed("root"));
}

// The database belongs to the service user whoever made its folder first (a
// file since handed to another owner and opened up is taken back and
// closed). Each user keeps their own preferences and history; another user's
// are out of reach, for reading and for writing. The package reads anyone's.
TEST_F(FileIndexTest, EachUsersRecordsInADatabaseClosedToOthers) {
  MakeDir("/var/packages/KestOndri/var", 0, 0755);  // as the folder store does
  As("ann", [] { EXPECT_TRUE(Preference(kAnnUid).Get<bool>("enable_history")); });
  ASSERT_EQ(0, chown(kDB, 0, 0));
  ASSERT_EQ(0, chmod(kDB, 0644));
  Record(kBobUid, "secret", 10);
  As("ann", [] {
    Preference(kAnnUid).Set<bool>("enable_history", false);
    Preference(kAnnUid).Set<int>("max_history_num", 7);
    EXPECT_FALSE(Preference(kAnnUid).Get<bool>("enable_history"));
    Record(kAnnUid, "mine", 30);
    EXPECT_EQ(-1, open(kDB, O_RDONLY));
    EXPECT_EQ(EACCES, errno);
  });
  for (const std::string file : {"", "/..", "-wal", "-shm"}) {
    struct stat st {};
    if (stat((kDB + file).c_str(), &st) == 0 || file.empty()) {
      EXPECT_EQ(kServiceUid, st.st_uid) << file;
      EXPECT_EQ(file == "/.." ? 040700u : 0100600u, st.st_mode) << file;
    }
  }
  const std::tuple<const char*, std::function<void()>, int> calls[] = {
      {"ann", [] { Preference(kBobUid).Get<bool>("enable_history"); }, kErrNoPermission},
      {"ann", [] { Preference(kBobUid).Set<bool>("enable_history", false); }, kErrNoPermission},
      {"bob", [] { Preference(kAnnUid).Get<int>("max_history_num"); }, kErrNoPermission},
      {"ann", [] { Keywords(kBobUid); }, kErrNoPermission},
      {"ann", [] { Record(kBobUid, "planted", 20); }, kErrNoPermission},
      {"ann", [] { Preference(kAnnUid).Get<bool>("no_such_key"); }, kErrInvalidParam},
      {"ann", [] { Preference(kAnnUid).Get<std::string>("enable_history"); }, kErrInvalidParam},
      {"bob", [] { EXPECT_EQ(50, Preference(kBobUid).Get<int>("max_history_num")); }, 0},
      {"KestOndri", [] { EXPECT_EQ(7, Preference(kAnnUid).Get<int>("max_history_num")); }, 0},
  };
  for (const auto& [user, call, code] : calls) EXPECT_EQ(code, CodeOf(user, call)) << user;
  EXPECT_EQ((std::vector<std::string>{"secret"}), Keywords(kBobUid));
  EXPECT_EQ((std::vector<std::string>{"mine"}), Keywords(kAnnUid));

  // History: a keyword searched again is refreshed, the newest kept up to
  // the limit.
  Record(kDaveUid, "alpha", 100);
  Record(kDaveUid, "beta", 200);
  Record(kDaveUid, "alpha", 300);  // searched again: moves to the front, no twin
  EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), Keywords(kDaveUid));
  EXPECT_EQ(300, SearchHistoryTable(DBSession::Instance()).List(kDaveUid)[0].time);
  Record(kDaveUid, "gamma", 400, 2);  // the oldest goes first
  EXPECT_EQ((std::vector<std::string>{"gamma", "alpha"}), Keywords(kDaveUid));
  // Within one second the later search still counts as newer.
  Record(kDaveUid, "delta", 400, 2);
  EXPECT_EQ((std::vector<std::string>{"delta", "gamma"}), Keywords(kDaveUid));
  Record(kBobUid, "bob's", 50, 1);  // limits are per user
  EXPECT_EQ((std::vector<std::string>{"delta", "gamma"}), Keywords(kDaveUid));

  // Writers in several processes at once lose nothing.
  constexpr int kWriters = 6, kEach = 25;
  for (int w = 0; w < kWriters; ++w) {
    if (fork() == 0) {
      const bool ok = ResetCredentialsByName("KestOndri");
      for (int i = 0; ok && i < kEach; ++i) {
        Record(kBobUid, "w" + std::to_string(w) + "-" + std::to_string(i), 1000 + i, 1000);
      }
      _exit(ok ? 0 : 1);
    }
  }
  std::vector<int> statuses;
  EXPECT_EQ(0, ReapChildren(60000, &statuses));
  EXPECT_EQ(std::vector<int>(kWriters, 0), statuses);
  EXPECT_EQ(static_cast<size_t>(kWriters * kEach + 1), Keywords(kBobUid).size());
}

}  // namespace
}  // namespace fileindex
}  // namespace kestondri
