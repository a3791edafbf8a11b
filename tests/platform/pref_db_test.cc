// Preferences and search history on the real package database.
#include <fcntl.h>
#include <sys/wait.h>

#include "kestondri/db.h"
#include "kestondri/pref.h"
#include "platform/platform_test.h"

namespace kesttest {
namespace {

using kestondri::kErrInvalidParam;
using kestondri::kErrNoPermission;
using kestondri::db::DBSession;
using kestondri::db::SearchHistory;
using kestondri::db::SearchHistoryTable;
using kestondri::pref::Preference;

constexpr char kDB[] = "/var/packages/KestOndri/var/kestondri.db";

class PrefDBTest : public IdentityTest {
 protected:
  // As on a fresh system: the library makes the folder as well.
  void SetUp() override { system("rm -rf /var/packages/KestOndri/var"); }

  static void Record(uint32_t uid, const std::string& keyword, int64_t time, int max = 50) {
    SearchHistory record;
    record.uid = uid;
    record.keyword = keyword;
    record.time = time;
    SearchHistoryTable(DBSession::Instance()).UpdateWithTime(record, max);
  }
  static std::vector<std::string> Keywords(uint32_t uid) {
    std::vector<std::string> out;
    for (const auto& row : SearchHistoryTable(DBSession::Instance()).List(uid)) {
      out.push_back(row.keyword);
    }
    return out;
  }
};

// The database belongs to the service user whoever made its folder first (a
// file since handed to another owner and opened up is taken back and
// closed). Each user keeps their own preferences and history; another user's
// are out of reach, for reading and for writing. The package reads anyone's.
TEST_F(PrefDBTest, EachUsersRecordsInADatabaseClosedToOthers) {
  ASSERT_EQ(0, mkdir("/var/packages/KestOndri/var", 0755));  // as the folder store does
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
  const struct {
    const char* user;
    std::function<void()> call;
    int code;
  } calls[] = {
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
  for (const auto& c : calls) EXPECT_EQ(c.code, CodeOf(c.user, c.call)) << c.user;
  EXPECT_EQ((std::vector<std::string>{"secret"}), Keywords(kBobUid));
  EXPECT_EQ((std::vector<std::string>{"mine"}), Keywords(kAnnUid));
}

TEST_F(PrefDBTest, HistoryRefreshesKnownKeywordsAndKeepsTheNewestUpToTheLimit) {
  Record(kAnnUid, "alpha", 100);
  Record(kAnnUid, "beta", 200);
  Record(kAnnUid, "alpha", 300);  // searched again: moves to the front, no twin
  EXPECT_EQ((std::vector<std::string>{"alpha", "beta"}), Keywords(kAnnUid));
  EXPECT_EQ(300, SearchHistoryTable(DBSession::Instance()).List(kAnnUid)[0].time);
  Record(kAnnUid, "gamma", 400, 2);  // the oldest goes first
  EXPECT_EQ((std::vector<std::string>{"gamma", "alpha"}), Keywords(kAnnUid));
  // Within one second the later search still counts as newer.
  Record(kAnnUid, "delta", 400, 2);
  EXPECT_EQ((std::vector<std::string>{"delta", "gamma"}), Keywords(kAnnUid));
  Record(kBobUid, "bob's", 50, 1);  // limits are per user
  EXPECT_EQ((std::vector<std::string>{"delta", "gamma"}), Keywords(kAnnUid));

  // Writers in several processes at once lose nothing.
  constexpr int kWriters = 6, kEach = 25;
  std::vector<pid_t> pids;
  for (int w = 0; w < kWriters; ++w) {
    pids.push_back(fork());
    if (pids.back() == 0) {
      const bool ok = ResetCredentialsByName("KestOndri");
      for (int i = 0; ok && i < kEach; ++i) {
        Record(kBobUid, "w" + std::to_string(w) + "-" + std::to_string(i), 1000 + i, 1000);
      }
      _exit(ok ? 0 : 1);
    }
  }
  for (pid_t pid : pids) {
    int status = -1;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_EQ(0, status);
  }
  EXPECT_EQ(static_cast<size_t>(kWriters * kEach + 1), Keywords(kBobUid).size());
}

}  // namespace
}  // namespace kesttest
