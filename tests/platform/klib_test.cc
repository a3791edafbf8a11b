// The platform's C library on the real system: users, groups, identity
// switching, fork and pid files, string lists.
#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "kest/klib.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

struct UserFree {
  void operator()(PKESTUSER user) const { KESTUserFree(user); }
};
using UserPtr = std::unique_ptr<KESTUSER, UserFree>;

struct ListFree {
  void operator()(PKLIBCSZLIST list) const { KLIBCSzListFree(list); }
};
using ListPtr = std::unique_ptr<KLIBCSZLIST, ListFree>;

std::vector<std::string> Items(PKLIBCSZLIST list) {
  std::vector<std::string> out;
  for (int i = 0; list && i < list->nItem; ++i) out.push_back(KLIBCSzListGet(list, i));
  return out;
}

TEST(KlibUserTest, LookupByNameAndUid) {
  struct Case {
    const char* name;
    uid_t uid;
    gid_t gid;
    unsigned flags;
  };
  const Case cases[] = {
      {"ann", kAnnUid, kAnnUid, 0},
      {"carol", kCarolUid, kCarolUid, 0},
      {"KestOndri", kServiceUid, kServiceUid, KEST_USER_FLAG_SYSTEM},
      {"root", 0, 0, KEST_USER_FLAG_SYSTEM},
  };
  for (const auto& c : cases) {
    PKESTUSER raw = nullptr;
    ASSERT_EQ(0, KESTUserGet(c.name, &raw)) << c.name;
    UserPtr by_name(raw);
    ASSERT_NE(nullptr, by_name);
    EXPECT_STREQ(c.name, by_name->szName);
    EXPECT_EQ(c.uid, by_name->nUID);
    EXPECT_EQ(c.gid, by_name->nGID);
    EXPECT_EQ(c.flags, by_name->fFlags) << c.name;
    ASSERT_EQ(0, KESTUserGetByUID(c.uid, &raw)) << c.name;
    UserPtr by_uid(raw);
    EXPECT_STREQ(c.name, by_uid->szName);
    // The name is the record's first member: the module reads it so.
    EXPECT_STREQ(c.name, *reinterpret_cast<char**>(by_uid.get()));
  }
}

TEST(KlibUserTest, FailuresSetTheErrorCode) {
  struct Case {
    const char* what;
    std::function<int(PKESTUSER*)> call;
    int error;
  };
  const Case cases[] = {
      {"unknown name", [](PKESTUSER* u) { return KESTUserGet("nosuchuser", u); },
       KLIB_ERR_USER_NOT_FOUND},
      {"unknown uid", [](PKESTUSER* u) { return KESTUserGetByUID(54321, u); },
       KLIB_ERR_USER_NOT_FOUND},
      {"empty name", [](PKESTUSER* u) { return KESTUserGet("", u); }, KLIB_ERR_BAD_PARAM},
      {"null name", [](PKESTUSER* u) { return KESTUserGet(nullptr, u); }, KLIB_ERR_BAD_PARAM},
  };
  for (const auto& c : cases) {
    KLIBCErrSet(KLIB_ERR_NONE);
    PKESTUSER user = reinterpret_cast<PKESTUSER>(0x1);
    EXPECT_GT(0, c.call(&user)) << c.what;
    EXPECT_EQ(c.error, KLIBCErrGet()) << c.what;
    if (c.error == KLIB_ERR_USER_NOT_FOUND) {
      EXPECT_EQ(nullptr, user) << c.what;
    }
  }
  EXPECT_GT(0, KESTUserGet("ann", nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
  KESTUserFree(nullptr);
}

TEST(KlibGroupTest, GroupLists) {
  struct Case {
    const char* user;
    BOOL with_primary;
    std::vector<std::string> groups;
  };
  const Case cases[] = {
      {"ann", TRUE, {"ann", "staff"}},
      {"ann", FALSE, {"staff"}},
      {"carol", TRUE, {"carol", "administrators"}},
      {"dave", TRUE, {"dave"}},
      {"dave", FALSE, {}},
  };
  for (const auto& c : cases) {
    ListPtr list(KLIBGroupInfoListGet(c.user, c.with_primary));
    ASSERT_NE(nullptr, list) << c.user;
    std::vector<std::string> items = Items(list.get());
    // The primary group comes first; the others in any order.
    if (c.with_primary) {
      ASSERT_FALSE(items.empty());
      EXPECT_EQ(c.groups[0], items[0]) << c.user;
    }
    std::sort(items.begin(), items.end());
    std::vector<std::string> expected = c.groups;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, items) << c.user;
  }
  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet("nosuchuser", TRUE));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet(nullptr, TRUE));
}

class KlibAdminGroupTest : public testing::Test {
 protected:
  void TearDown() override { unlink("/etc/kest/shares.conf"); }
};

TEST_F(KlibAdminGroupTest, MembershipFollowsTheConfiguredGroup) {
  struct Case {
    const char* conf;  // null: no configuration file
    const char* admin_group;
    int ann, carol, dave;
  };
  const Case cases[] = {
      {nullptr, "administrators", 0, 1, 0},
      {"[global]\nworkgroup = x\n", "administrators", 0, 1, 0},
      {"[global]\nadmin group = staff\n", "staff", 1, 0, 0},
      {"[global]\n  admin group  =  staff  \n[photo]\nadmin group = dave\n", "staff", 1, 0, 0},
      {"[photo]\nadmin group = dave\n", "administrators", 0, 1, 0},
      {"[global]\nadmin group = dave\n", "dave", 0, 0, 1},
      {"[global]\nadmin group = nosuchgroup\n", "nosuchgroup", 0, 0, 0},
      // A broken share leaves the administrators alone.
      {"[global]\nadmin group = staff\n[a]\ninvalid user = x\n", "staff", 1, 0, 0},
      // A broken file: nobody is an administrator until it is fixed.
      {"[global\nadmin group = staff\n", "", -1, -1, -1},
      {"[global]\nadmin group = staff\nadmin group = dave\n", "", -1, -1, -1},
  };
  for (const auto& c : cases) {
    unlink("/etc/kest/shares.conf");
    if (c.conf) WriteSharesConf(c.conf);
    SCOPED_TRACE(c.conf ? c.conf : "(none)");
    auto member = [](const char* user) { return std::max(-1, KLIBGroupIsAdminGroupMem(user, 0)); };
    EXPECT_STREQ(c.admin_group, KLIBGroupAdminGroupName());
    EXPECT_EQ(c.ann, member("ann"));
    EXPECT_EQ(c.carol, member("carol"));
    EXPECT_EQ(c.dave, member("dave"));
  }
  unlink("/etc/kest/shares.conf");
  EXPECT_GT(0, KLIBGroupIsAdminGroupMem("nosuchuser", 0));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_GT(0, KLIBGroupIsAdminGroupMem(nullptr, 0));
}

// Real, effective, saved and filesystem uid (or gid) from /proc.
std::vector<unsigned> ProcIds(const char* key) {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key, 0) == 0) {
      std::istringstream fields(line.substr(strlen(key)));
      std::vector<unsigned> ids;
      unsigned id;
      while (fields >> id) ids.push_back(id);
      return ids;
    }
  }
  return {};
}

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(getgroups(0, nullptr));
  groups.resize(getgroups(static_cast<int>(groups.size()), groups.data()));
  std::sort(groups.begin(), groups.end());
  return groups;
}

class KlibIdentityTest : public testing::Test {
 protected:
  void TearDown() override { BecomeRoot(); }
};

TEST_F(KlibIdentityTest, SwitchesEffectiveIdsAndGroupsAndCanSwitchAgain) {
  struct Step {
    const char* user;
    uid_t uid;
    gid_t gid;
    std::vector<gid_t> groups;
  };
  const Step steps[] = {
      {"ann", kAnnUid, kAnnUid, {kAnnUid, kStaffGid}},
      {"bob", kBobUid, kBobUid, {kBobUid, kStaffGid}},
      {"dave", kDaveUid, kDaveUid, {kDaveUid}},
      {"carol", kCarolUid, kCarolUid, {kCarolUid, kAdministratorsGid}},
      {"root", 0, 0, {0}},
      {"ann", kAnnUid, kAnnUid, {kAnnUid, kStaffGid}},
  };
  int n = 0;
  for (const auto& step : steps) {
    ASSERT_TRUE(ResetCredentialsByName(step.user, true)) << step.user;
    EXPECT_EQ(step.uid, geteuid());
    EXPECT_EQ(step.gid, getegid());
    EXPECT_EQ(0u, getuid()) << "the real uid stays";
    EXPECT_EQ((std::vector<unsigned>{0, step.uid, 0, step.uid}), ProcIds("Uid:")) << step.user;
    EXPECT_EQ((std::vector<unsigned>{0, step.gid, 0, step.gid}), ProcIds("Gid:")) << step.user;
    std::vector<gid_t> expected = step.groups;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, Groups()) << step.user;

    const std::string path = "/tmp/identity_" + std::to_string(n++);
    std::ofstream(path) << "x";
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(step.uid, st.st_uid) << step.user;
    EXPECT_EQ(step.gid, st.st_gid) << step.user;
  }
}

TEST_F(KlibIdentityTest, WithoutGroupsKeepsTheSupplementaryGroups) {
  ASSERT_TRUE(ResetCredentialsByName("ann", true));
  const std::vector<gid_t> before = Groups();
  ASSERT_TRUE(ResetCredentialsByName("dave", false));
  EXPECT_EQ(kDaveUid, geteuid());
  EXPECT_EQ(before, Groups());
}

TEST_F(KlibIdentityTest, UnknownUserLeavesTheIdentity) {
  ASSERT_TRUE(ResetCredentialsByName("bob", true));
  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_FALSE(ResetCredentialsByName("nosuchuser", true));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(kBobUid, geteuid());
  EXPECT_FALSE(ResetCredentialsByName("", true));
  EXPECT_EQ(kBobUid, geteuid());
}

// A primed identity answers for its user only, in every question the library
// asks about groups, while KLIBUserIdentityGet still asks the name services.
TEST_F(KlibIdentityTest, PrimedIdentityAnswersForItsUserOnly) {
  KLIBUserIdentity dave;
  ASSERT_TRUE(KLIBUserIdentityGet("dave", &dave));
  EXPECT_EQ((std::vector<gid_t>{kDaveUid}), dave.groups);
  // As if dave had been made an administrator since the name services were
  // asked; the list is given without its primary group on purpose.
  KLIBUserIdentity primed = dave;
  primed.groups = {kAdministratorsGid};
  KLIBUserIdentityPrime(primed);

  ASSERT_TRUE(ResetCredentialsByName("dave", true));
  EXPECT_EQ((std::vector<gid_t>{kDaveUid, kAdministratorsGid}), Groups());
  EXPECT_EQ(1, KLIBGroupIsAdminGroupMem("dave", 0));
  EXPECT_EQ(0, KLIBGroupIsAdminGroupMem("ann", 0));
  KLIBUserIdentity fresh;
  ASSERT_TRUE(KLIBUserIdentityGet("dave", &fresh));
  EXPECT_EQ(dave.groups, fresh.groups);
  ASSERT_TRUE(ResetCredentialsByName("ann", true));
  EXPECT_EQ((std::vector<gid_t>{kAnnUid, kStaffGid}), Groups());

  KLIBUserIdentityPrime(KLIBUserIdentity());
  EXPECT_EQ(0, KLIBGroupIsAdminGroupMem("dave", 0));
}

// Callers log errno as the cause of their next failure: a call that did not
// fail on a system call leaves it as it was.
TEST(KlibErrnoTest, CallsWithoutSystemFailureLeaveErrnoAlone) {
  auto user = [](const char* name) {
    PKESTUSER record = nullptr;
    KESTUserGet(name, &record);
    KESTUserFree(record);
  };
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"admin group name", [] { KLIBGroupAdminGroupName(); }},
      {"admin member", [] { KLIBGroupIsAdminGroupMem("carol", 0); }},
      {"admin member, unknown user", [] { KLIBGroupIsAdminGroupMem("nosuchuser", 0); }},
      {"group list", [] { KLIBCSzListFree(KLIBGroupInfoListGet("ann", TRUE)); }},
      {"user", [&] { user("bob"); }},
      {"unknown user", [&] { user("nosuchuser"); }},
      {"unknown uid",
       [] {
         PKESTUSER record = nullptr;
         KESTUserGetByUID(54321, &record);
       }},
      {"switch", [] { ResetCredentialsByName("ann", true); }},
      {"switch again", [] { ResetCredentialsByName("bob", true); }},
      {"switch to unknown user", [] { ResetCredentialsByName("nosuchuser", true); }},
      {"switch back", [] { ResetCredentialsByName("root", true); }},
  };
  for (const auto& call : calls) {
    errno = EXDEV;
    call.second();
    EXPECT_EQ(EXDEV, errno) << call.first;
  }
  BecomeRoot();
}

// Runs a child forked with `flags` and answers its exit status.
int ForkAndCheckSignals(int flags) {
  const pid_t pid = KLIBCProcForkEx(flags);
  if (pid == 0) {
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    const bool reset = action.sa_handler == SIG_DFL && !sigismember(&mask, SIGUSR2);
    _exit(reset ? 0 : 3);
  }
  if (pid < 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(KlibProcessTest, ForkFlagOneResetsSignalsInTheChild) {
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  struct sigaction old_action;
  sigaction(SIGUSR1, &ignore, &old_action);
  sigset_t block, old_mask;
  sigemptyset(&block);
  sigaddset(&block, SIGUSR2);
  sigprocmask(SIG_BLOCK, &block, &old_mask);

  EXPECT_EQ(0, ForkAndCheckSignals(KLIBC_FORK_RESET_SIGNALS));
  EXPECT_EQ(3, ForkAndCheckSignals(0));

  sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  sigaction(SIGUSR1, &old_action, nullptr);
  struct sigaction now;
  sigaction(SIGUSR1, nullptr, &now);
  EXPECT_EQ(SIG_DFL, now.sa_handler) << "the parent's own set-up is left alone";
}

TEST(KlibProcessTest, PidFiles) {
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_GT(dead, 0);
  waitpid(dead, nullptr, 0);
  struct Case {
    std::string content;  // "-" for no file
    int expected;
  };
  const Case cases[] = {
      {"-", 0},
      {std::to_string(getpid()), 1},
      {std::to_string(getpid()) + "\n", 1},
      {" 1\n", 1},
      {std::to_string(dead), 0},
      {"", 0},
      {"abc", 0},
      {"0", 0},
      {"-5", 0},
      {"99999999999999999999", 0},
  };
  const std::string path = "/run/klib_test.pid";
  for (const auto& c : cases) {
    unlink(path.c_str());
    if (c.content != "-") WriteFile(path, c.content);
    errno = 0;
    EXPECT_EQ(c.expected, KLIBCProcAliveByPidFile(path.c_str())) << "'" << c.content << "'";
  }
  EXPECT_GT(0, KLIBCProcAliveByPidFile(nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
}

TEST(KlibSzListTest, PushGrowsAndCopies) {
  PKLIBCSZLIST raw = KLIBCSzListAlloc(0);
  ASSERT_NE(nullptr, raw);
  EXPECT_GE(raw->nAlloc, 1);
  EXPECT_EQ(0, raw->nItem);
  std::vector<std::string> expected;
  char buffer[32];
  for (int i = 0; i < 1000; ++i) {
    snprintf(buffer, sizeof(buffer), "item-%d", i);
    ASSERT_EQ(0, KLIBCSzListPush(&raw, buffer));
    expected.push_back(buffer);
  }
  ASSERT_EQ(0, KLIBCSzListPush(&raw, ""));
  expected.push_back("");
  strcpy(buffer, "changed");
  ListPtr list(raw);
  EXPECT_EQ(1001, list->nItem);
  EXPECT_GE(list->nAlloc, list->nItem);
  EXPECT_EQ(expected, Items(list.get()));
  EXPECT_EQ(nullptr, KLIBCSzListGet(list.get(), -1));
  EXPECT_EQ(nullptr, KLIBCSzListGet(list.get(), 1001));
  EXPECT_EQ(nullptr, KLIBCSzListGet(nullptr, 0));

  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_GT(0, KLIBCSzListPush(&raw, nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
  EXPECT_GT(0, KLIBCSzListPush(nullptr, "x"));
  PKLIBCSZLIST none = nullptr;
  EXPECT_GT(0, KLIBCSzListPush(&none, "x"));
  KLIBCSzListFree(nullptr);
}

}  // namespace
}  // namespace kesttest
