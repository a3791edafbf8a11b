// The platform's C library on the real system: users, groups, identity
// switching, fork and pid files, string lists.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "platform/platform_test.h"

namespace kesttest {
namespace {

TEST(KlibUserTest, LookupByNameAndUid) {
  struct Case {
    const char* name;
    uid_t uid;
    unsigned flags;
  };
  const Case cases[] = {
      {"ann", kAnnUid, 0},
      {"carol", kCarolUid, 0},
      {"KestOndri", kServiceUid, KEST_USER_FLAG_SYSTEM},
      {"root", 0, KEST_USER_FLAG_SYSTEM},
  };
  for (const auto& c : cases) {
    PKESTUSER raw = nullptr;
    ASSERT_EQ(0, KESTUserGet(c.name, &raw)) << c.name;
    UserPtr by_name(raw);
    ASSERT_NE(nullptr, by_name);
    EXPECT_STREQ(c.name, by_name->szName);
    EXPECT_EQ(c.uid, by_name->nUID);
    EXPECT_EQ(c.uid, by_name->nGID);  // each user's own group has its number
    EXPECT_EQ(c.flags, by_name->fFlags) << c.name;
    ASSERT_EQ(0, KESTUserGetByUID(c.uid, &raw)) << c.name;
    UserPtr by_uid(raw);
    // The name is the record's first member: the module reads it so.
    EXPECT_STREQ(c.name, *reinterpret_cast<char**>(by_uid.get()));
  }
}

TEST(KlibUserTest, FailuresSetTheErrorCode) {
  for (const char* name : {"nosuchuser", "", static_cast<const char*>(nullptr)}) {
    KLIBCErrSet(KLIB_ERR_NONE);
    PKESTUSER user = reinterpret_cast<PKESTUSER>(0x1);
    EXPECT_GT(0, KESTUserGet(name, &user)) << name;
    const bool unknown = name && *name;
    EXPECT_EQ(unknown ? KLIB_ERR_USER_NOT_FOUND : KLIB_ERR_BAD_PARAM, KLIBCErrGet()) << name;
    if (unknown) {
      EXPECT_EQ(nullptr, user);
    }
  }
  PKESTUSER user = reinterpret_cast<PKESTUSER>(0x1);
  EXPECT_GT(0, KESTUserGetByUID(54321, &user));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(nullptr, user);
  EXPECT_GT(0, KESTUserGet("ann", nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
  KESTUserFree(nullptr);
}

TEST(KlibGroupTest, GroupLists) {
  struct Case {
    const char* user;
    BOOL with_primary;
    std::vector<std::string> groups;  // the primary group first, the others sorted
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
    std::sort(items.begin() + (c.with_primary && !items.empty()), items.end());
    EXPECT_EQ(c.groups, items) << c.user;
  }
  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet("nosuchuser", TRUE));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet(nullptr, TRUE));
}

TEST(KlibGroupTest, AdminMembershipFollowsTheConfiguredGroup) {
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
  std::vector<unsigned> ids;
  while (std::getline(in, line) && ids.empty()) {
    std::istringstream fields(line.rfind(key, 0) == 0 ? line.substr(strlen(key)) : "");
    for (unsigned id; fields >> id;) ids.push_back(id);
  }
  return ids;
}

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(getgroups(0, nullptr));
  groups.resize(getgroups(static_cast<int>(groups.size()), groups.data()));
  std::sort(groups.begin(), groups.end());
  return groups;
}

// Each step switches from where the one before left: a switch without groups
// keeps the supplementary groups, a failed one the whole identity.
TEST_F(IdentityTest, SwitchesEffectiveIdsAndGroupsAndCanSwitchAgain) {
  struct Step {
    const char* user;
    bool with_groups;
    bool ok;
    uid_t uid;  // the same number names the user's own group
    std::vector<gid_t> groups;
  };
  const Step steps[] = {
      {"ann", true, true, kAnnUid, {kAnnUid, kStaffGid}},
      {"dave", false, true, kDaveUid, {kAnnUid, kStaffGid}},
      {"bob", true, true, kBobUid, {kBobUid, kStaffGid}},
      {"nosuchuser", true, false, kBobUid, {kBobUid, kStaffGid}},
      {"", true, false, kBobUid, {kBobUid, kStaffGid}},
      {"dave", true, true, kDaveUid, {kDaveUid}},
      {"carol", true, true, kCarolUid, {kCarolUid, kAdministratorsGid}},
      {"root", true, true, 0, {0}},
      {"ann", true, true, kAnnUid, {kAnnUid, kStaffGid}},
  };
  int n = 0;
  for (const auto& step : steps) {
    SCOPED_TRACE(step.user);
    KLIBCErrSet(KLIB_ERR_NONE);
    ASSERT_EQ(step.ok, ResetCredentialsByName(step.user, step.with_groups));
    if (!step.ok) {
      EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
    }
    EXPECT_EQ(0u, getuid()) << "the real uid stays";
    EXPECT_EQ((std::vector<unsigned>{0, step.uid, 0, step.uid}), ProcIds("Uid:"));
    EXPECT_EQ((std::vector<unsigned>{0, step.uid, 0, step.uid}), ProcIds("Gid:"));
    std::vector<gid_t> expected = step.groups;
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(expected, Groups());

    const std::string path = "/tmp/identity_" + std::to_string(n++);
    std::ofstream(path) << "x";
    struct stat st;
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(step.uid, st.st_uid);
    EXPECT_EQ(step.uid, st.st_gid);
  }
}

// A primed identity answers for its user only, in every question the library
// asks about groups, while KLIBUserIdentityGet still asks the name services.
TEST_F(IdentityTest, PrimedIdentityAnswersForItsUserOnly) {
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
TEST_F(IdentityTest, CallsWithoutSystemFailureLeaveErrnoAlone) {
  PKESTUSER record = nullptr;
  const std::pair<const char*, std::function<void()>> calls[] = {
      {"admin group name", [] { KLIBGroupAdminGroupName(); }},
      {"admin member", [] { KLIBGroupIsAdminGroupMem("carol", 0); }},
      {"admin member, unknown user", [] { KLIBGroupIsAdminGroupMem("nosuchuser", 0); }},
      {"group list", [] { KLIBCSzListFree(KLIBGroupInfoListGet("ann", TRUE)); }},
      {"user",
       [&] {
         KESTUserGet("bob", &record);
         KESTUserFree(record);
       }},
      {"unknown user", [&] { KESTUserGet("nosuchuser", &record); }},
      {"unknown uid", [&] { KESTUserGetByUID(54321, &record); }},
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
  auto signals_reset = [] {
    struct sigaction action;
    sigaction(SIGUSR1, nullptr, &action);
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    return action.sa_handler == SIG_DFL && !sigismember(&mask, SIGUSR2);
  };
  EXPECT_EQ(0, ExitStatus(InChild(KLIBCProcForkEx(KLIBC_FORK_RESET_SIGNALS), signals_reset)));
  EXPECT_EQ(1, ExitStatus(InChild(KLIBCProcForkEx(0), signals_reset)));

  sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  sigaction(SIGUSR1, &old_action, nullptr);
  struct sigaction now;
  sigaction(SIGUSR1, nullptr, &now);
  EXPECT_EQ(SIG_DFL, now.sa_handler) << "the parent's own set-up is left alone";
}

TEST(KlibProcessTest, PidFiles) {
  const pid_t dead = InChild(fork(), [] { return true; });
  ASSERT_EQ(0, ExitStatus(dead));
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
  PKLIBCSZLIST list = KLIBCSzListAlloc(0);
  ASSERT_NE(nullptr, list);
  EXPECT_GE(list->nAlloc, 1);
  EXPECT_EQ(0, list->nItem);
  std::vector<std::string> expected;
  char buffer[32];
  for (int i = 0; i < 1000; ++i) {
    snprintf(buffer, sizeof(buffer), "item-%d", i);
    ASSERT_EQ(0, KLIBCSzListPush(&list, buffer));
    expected.push_back(buffer);
  }
  ASSERT_EQ(0, KLIBCSzListPush(&list, ""));
  expected.push_back("");
  strcpy(buffer, "changed");
  EXPECT_EQ(expected, Items(list));
  EXPECT_GE(list->nAlloc, list->nItem);
  // Past the end, even where the slot still holds a string.
  list->nItem = 1000;
  EXPECT_EQ(nullptr, KLIBCSzListGet(list, 1000));
  list->nItem = 1001;
  EXPECT_EQ(nullptr, KLIBCSzListGet(list, -1));
  EXPECT_EQ(nullptr, KLIBCSzListGet(nullptr, 0));

  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_GT(0, KLIBCSzListPush(&list, nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
  EXPECT_GT(0, KLIBCSzListPush(nullptr, "x"));
  PKLIBCSZLIST none = nullptr;
  EXPECT_GT(0, KLIBCSzListPush(&none, "x"));
  KLIBCSzListFree(list);
  KLIBCSzListFree(nullptr);
}

}  // namespace
}  // namespace kesttest
