// Preferences and search history on the real package database.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/error.h"
#include "kest/klib.h"
#include "kestondri/db.h"
#include "kestondri/pref.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::db::DBSession;
using kestondri::db::SearchHistory;
using kestondri::db::SearchHistoryTable;
using kestondri::pref::Preference;

constexpr char kDB[] = "/var/packages/KestOndri/var/kestondri.db";

class PrefDBTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    for (const char* suffix : {"", "-wal", "-shm"}) unlink((std::string(kDB) + suffix).c_str());
  }
  void TearDown() override { BecomeRoot(); }

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
  static int CodeOf(const std::function<void()>& f) {
    try {
      f();
    } catch (const Error& e) {
      return e.code();
    }
    return 0;
  }
};

TEST_F(PrefDBTest, DefaultsForAUserWhoNeverSetAnything) {
  Preference pref(kAnnUid);
  EXPECT_TRUE(pref.Get<bool>("enable_history"));
  EXPECT_EQ(50, pref.Get<int>("max_history_num"));
  EXPECT_FALSE(pref.Get<bool>("hide_ondri_index_prompt"));
  EXPECT_FALSE(pref.Get<bool>("hide_searchnow_index_prompt"));
  EXPECT_EQ(3, pref.Get<int>("max_fragment_num"));
}

TEST_F(PrefDBTest, UnknownKeysAndWrongTypesAreRefused) {
  Preference pref(kAnnUid);
  struct Case {
    const char* what;
    std::function<void()> call;
  } cases[] = {
      {"unknown key", [&] { pref.Get<bool>("no_such_key"); }},
      {"int read as bool", [&] { pref.Get<bool>("max_history_num"); }},
      {"bool read as string", [&] { pref.Get<std::string>("enable_history"); }},
      {"bool set as int", [&] { pref.Set<int>("enable_history", 1); }},
  };
  for (const auto& c : cases) EXPECT_EQ(kestondri::kErrInvalidParam, CodeOf(c.call)) << c.what;
}

TEST_F(PrefDBTest, EachUserKeepsOwnValuesAndCannotReachOthers) {
  ASSERT_TRUE(ResetCredentialsByName("ann"));
  Preference(kAnnUid).Set<bool>("enable_history", false);
  Preference(kAnnUid).Set<int>("max_history_num", 7);
  EXPECT_FALSE(Preference(kAnnUid).Get<bool>("enable_history"));
  EXPECT_EQ(7, Preference(kAnnUid).Get<int>("max_history_num"));
  // The privilege taken for the access is given back.
  EXPECT_EQ(kAnnUid, geteuid());
  EXPECT_EQ(kestondri::kErrNoPermission,
            CodeOf([] { Preference(kBobUid).Get<bool>("enable_history"); }));
  EXPECT_EQ(kestondri::kErrNoPermission,
            CodeOf([] { Preference(kBobUid).Set<bool>("enable_history", false); }));
  EXPECT_EQ(kAnnUid, geteuid());

  ASSERT_TRUE(ResetCredentialsByName("bob"));
  EXPECT_TRUE(Preference(kBobUid).Get<bool>("enable_history"));
  EXPECT_EQ(kestondri::kErrNoPermission,
            CodeOf([] { Preference(kAnnUid).Get<int>("max_history_num"); }));

  // The package itself reads anyone's.
  ASSERT_TRUE(ResetCredentialsByName("KestOndri"));
  EXPECT_EQ(7, Preference(kAnnUid).Get<int>("max_history_num"));
  BecomeRoot();
  EXPECT_FALSE(Preference(kAnnUid).Get<bool>("enable_history"));
}

TEST_F(PrefDBTest, DatabaseBelongsToTheServiceUserAndIsClosedToOthers) {
  ASSERT_TRUE(ResetCredentialsByName("ann"));
  Preference(kAnnUid).Get<bool>("enable_history");
  BecomeRoot();
  struct stat st {};
  ASSERT_EQ(0, stat(kDB, &st));
  EXPECT_EQ(kServiceUid, st.st_uid);
  EXPECT_EQ(0600u, st.st_mode & 07777);
  ASSERT_EQ(0, stat("/var/packages/KestOndri/var", &st));
  EXPECT_EQ(kServiceUid, st.st_uid);
  for (const char* suffix : {"-wal", "-shm"}) {
    if (stat((std::string(kDB) + suffix).c_str(), &st) == 0) {
      EXPECT_EQ(kServiceUid, st.st_uid) << suffix;
      EXPECT_EQ(0u, st.st_mode & 077) << suffix;
    }
  }
  ASSERT_TRUE(ResetCredentialsByName("ann"));
  EXPECT_EQ(-1, open(kDB, O_RDONLY));
  EXPECT_EQ(EACCES, errno);
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

TEST_F(PrefDBTest, HistoryOfOthersIsOutOfReach) {
  Record(kBobUid, "secret", 10);
  ASSERT_TRUE(ResetCredentialsByName("ann"));
  EXPECT_EQ(kestondri::kErrNoPermission, CodeOf([] { Keywords(kBobUid); }));
  EXPECT_EQ(kestondri::kErrNoPermission, CodeOf([] { Record(kBobUid, "planted", 20); }));
  Record(kAnnUid, "mine", 30);
  BecomeRoot();
  EXPECT_EQ((std::vector<std::string>{"secret"}), Keywords(kBobUid));
  EXPECT_EQ((std::vector<std::string>{"mine"}), Keywords(kAnnUid));
}

TEST_F(PrefDBTest, ConcurrentWritersInSeveralProcessesLoseNothing) {
  constexpr int kWriters = 6;
  constexpr int kEach = 25;
  Record(kAnnUid, "seed", 1);  // the file exists before the race
  std::vector<pid_t> pids;
  for (int w = 0; w < kWriters; ++w) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      int status = 0;
      try {
        ResetCredentialsByName("KestOndri");
        for (int i = 0; i < kEach; ++i) {
          Record(kAnnUid, "w" + std::to_string(w) + "-" + std::to_string(i), 1000 + i, 1000);
        }
      } catch (...) {
        status = 1;
      }
      _exit(status);
    }
    pids.push_back(pid);
  }
  for (pid_t pid : pids) {
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  EXPECT_EQ(static_cast<size_t>(kWriters * kEach + 1), Keywords(kAnnUid).size());
}

}  // namespace
}  // namespace kesttest
