// Preferences and search history on the real package database.
#include <fcntl.h>

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

TEST_F(PrefDBTest, DefaultsUnknownKeysAndWrongTypes) {
  Preference pref(kAnnUid);
  EXPECT_TRUE(pref.Get<bool>("enable_history"));
  EXPECT_EQ(50, pref.Get<int>("max_history_num"));
  EXPECT_FALSE(pref.Get<bool>("hide_ondri_index_prompt"));
  EXPECT_FALSE(pref.Get<bool>("hide_searchnow_index_prompt"));
  EXPECT_EQ(3, pref.Get<int>("max_fragment_num"));
  for (const auto& call : std::vector<std::function<void()>>{
           [&] { pref.Get<bool>("no_such_key"); }, [&] { pref.Get<bool>("max_history_num"); },
           [&] { pref.Get<std::string>("enable_history"); },
           [&] { pref.Set<int>("enable_history", 1); }}) {
    EXPECT_EQ(kErrInvalidParam, CodeOf("root", call));
  }
}

// Each user keeps their own preferences and history; another user's are out
// of reach, for reading and for writing. The package itself reads anyone's.
TEST_F(PrefDBTest, OtherUsersRecordsAreOutOfReach) {
  Record(kBobUid, "secret", 10);
  As("ann", [] {
    Preference(kAnnUid).Set<bool>("enable_history", false);
    Preference(kAnnUid).Set<int>("max_history_num", 7);
    EXPECT_FALSE(Preference(kAnnUid).Get<bool>("enable_history"));
    Record(kAnnUid, "mine", 30);
  });
  const struct {
    const char* user;
    std::function<void()> call;
  } refused[] = {
      {"ann", [] { Preference(kBobUid).Get<bool>("enable_history"); }},
      {"ann", [] { Preference(kBobUid).Set<bool>("enable_history", false); }},
      {"bob", [] { Preference(kAnnUid).Get<int>("max_history_num"); }},
      {"ann", [] { Keywords(kBobUid); }},
      {"ann", [] { Record(kBobUid, "planted", 20); }},
  };
  for (const auto& r : refused) EXPECT_EQ(kErrNoPermission, CodeOf(r.user, r.call)) << r.user;
  As("bob", [] { EXPECT_TRUE(Preference(kBobUid).Get<bool>("enable_history")); });
  As("KestOndri", [] { EXPECT_EQ(7, Preference(kAnnUid).Get<int>("max_history_num")); });
  EXPECT_EQ((std::vector<std::string>{"secret"}), Keywords(kBobUid));
  EXPECT_EQ((std::vector<std::string>{"mine"}), Keywords(kAnnUid));
}

TEST_F(PrefDBTest, DatabaseBelongsToTheServiceUserAndIsClosedToOthers) {
  // The folder store made the folder first, as root's.
  ASSERT_EQ(0, mkdir("/var/packages/KestOndri/var", 0755));
  As("ann", [] { Preference(kAnnUid).Get<bool>("enable_history"); });
  // A file since handed to another owner and opened up is taken back and closed.
  ASSERT_EQ(0, chown(kDB, 0, 0));
  ASSERT_EQ(0, chmod(kDB, 0644));
  As("ann", [] { Preference(kAnnUid).Get<bool>("enable_history"); });
  struct stat st {};
  ASSERT_EQ(0, stat(kDB, &st));
  EXPECT_EQ(kServiceUid, st.st_uid);
  EXPECT_EQ(0600u, st.st_mode & 07777);
  ASSERT_EQ(0, stat("/var/packages/KestOndri/var", &st));
  EXPECT_EQ(kServiceUid, st.st_uid);
  EXPECT_EQ(0700u, st.st_mode & 07777);
  for (const char* suffix : {"-wal", "-shm"}) {
    if (stat((std::string(kDB) + suffix).c_str(), &st) == 0) {
      EXPECT_EQ(kServiceUid, st.st_uid) << suffix;
      EXPECT_EQ(0u, st.st_mode & 077) << suffix;
    }
  }
  As("ann", [] {
    EXPECT_EQ(-1, open(kDB, O_RDONLY));
    EXPECT_EQ(EACCES, errno);
  });
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
  EXPECT_EQ((std::vector<std::string>{"bob's"}), Keywords(kBobUid));
}

TEST_F(PrefDBTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
  constexpr int kWriters = 6;
  constexpr int kEach = 25;
  Record(kAnnUid, "seed", 1);  // the file exists before the race
  std::vector<pid_t> pids;
  for (int w = 0; w < kWriters; ++w) {
    pids.push_back(InChild(fork(), [w] {
      if (!ResetCredentialsByName("KestOndri")) return false;
      for (int i = 0; i < kEach; ++i) {
        Record(kAnnUid, "w" + std::to_string(w) + "-" + std::to_string(i), 1000 + i, 1000);
      }
      return true;
    }));
  }
  for (pid_t pid : pids) EXPECT_EQ(0, ExitStatus(pid));
  EXPECT_EQ(static_cast<size_t>(kWriters * kEach + 1), Keywords(kAnnUid).size());
}

}  // namespace
}  // namespace kesttest
