// The platform's C library on the real system. A call that did not fail on a
// system call leaves errno as it was: callers log it as their failure's cause.
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>

#include "platform/platform_test.h"

namespace kesttest {
namespace {

// Each record by name and by uid, or the failure's code.
TEST(KlibUserTest, LookupsByNameAndUid) {
  const std::string system = " " + std::to_string(KEST_USER_FLAG_SYSTEM);
  const struct {
    const char* name;
    uid_t uid;
    std::string record;  // name, uid, gid (each user's own group has its number), flags
  } cases[] = {
      {"ann", kAnnUid, "ann 2001 2001 0"},
      {"KestOndri", kServiceUid, "KestOndri 990 990" + system},
      {"root", 0, "root 0 0" + system},
      {"nosuchuser", 54321, "error " + std::to_string(KLIB_ERR_USER_NOT_FOUND)},
  };
  for (const auto& c : cases) {
    for (const bool by_uid : {false, true}) {
      PKESTUSER raw = reinterpret_cast<PKESTUSER>(0x1);
      errno = EXDEV;
      const int rc = by_uid ? KESTUserGetByUID(c.uid, &raw) : KESTUserGet(c.name, &raw);
      EXPECT_EQ(EXDEV, errno);
      EXPECT_EQ(c.record, rc ? "error " + std::to_string(KLIBCErrGet())
                             : std::string(raw->szName) + " " + std::to_string(raw->nUID) + " " +
                                   std::to_string(raw->nGID) + " " + std::to_string(raw->fFlags));
      EXPECT_TRUE(rc == 0 || !raw) << c.name;
      if (rc == 0) KESTUserFree(raw);
    }
  }
  PKESTUSER raw = nullptr;
  EXPECT_GT(0, KESTUserGet("", &raw));
  EXPECT_GT(0, KESTUserGet(nullptr, &raw));
  EXPECT_GT(0, KESTUserGet("ann", nullptr));
  EXPECT_EQ(KLIB_ERR_BAD_PARAM, KLIBCErrGet());
}

// (What group lists hold: the ACL sweep compares permission words computed
// with and without them.)
TEST(KlibGroupTest, GroupListsAndAdministrators) {
  errno = EXDEV;
  KLIBCSzListFree(KLIBGroupInfoListGet("ann", TRUE));
  KLIBCErrSet(KLIB_ERR_NONE);
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet("nosuchuser", TRUE));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(EXDEV, errno);
  EXPECT_EQ(nullptr, KLIBGroupInfoListGet(nullptr, TRUE));

  // The administrators are the members of [global]'s group: shares.conf
  // (null: none), then the group's name and whether ann, carol and dave are.
  const std::pair<const char*, const char*> admins[] = {
      {nullptr, "administrators 0 1 0"},
      {"[global]\nadmin group = staff\n", "staff 1 0 0"},
      {"[photo]\nadmin group = dave\n", "administrators 0 1 0"},
      {"[global]\nadmin group = nosuchgroup\n", "nosuchgroup 0 0 0"},
      // A broken share leaves the administrators alone.
      {"[global]\nadmin group = dave\n[a]\ninvalid user = x\n", "dave 0 0 1"},
      // A broken file: nobody is an administrator until it is fixed.
      {"[global\nadmin group = staff\n", " -1 -1 -1"},
      {"[global]\nadmin group = staff\nadmin group = dave\n", " -1 -1 -1"},
  };
  for (const auto& [conf, expected] : admins) {
    unlink("/etc/kest/shares.conf");
    if (conf) WriteSharesConf(conf);
    errno = EXDEV;
    std::string got = KLIBGroupAdminGroupName();
    for (const char* user : {"ann", "carol", "dave"}) {
      got += " " + std::to_string(std::max(-1, KLIBGroupIsAdminGroupMem(user, 0)));
    }
    EXPECT_EQ(expected, got) << (conf ? conf : "(none)");
    EXPECT_TRUE(!conf || errno == EXDEV) << errno;
  }
  unlink("/etc/kest/shares.conf");
  errno = EXDEV;
  EXPECT_GT(0, KLIBGroupIsAdminGroupMem("nosuchuser", 0));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(EXDEV, errno);
  EXPECT_GT(0, KLIBGroupIsAdminGroupMem(nullptr, 0));
}

std::vector<gid_t> Groups() {
  std::vector<gid_t> groups(getgroups(0, nullptr));
  groups.resize(getgroups(static_cast<int>(groups.size()), groups.data()));
  std::sort(groups.begin(), groups.end());
  return groups;
}

// Each step switches from where the one before left: a switch without groups
// keeps the supplementary groups, a failed one the whole identity. Real and
// saved ids stay root.
TEST_F(IdentityTest, SwitchesEffectiveIdsAndGroupsAndCanSwitchAgain) {
  const struct {
    const char* user;
    bool with_groups;
    bool ok;
    uid_t uid;                  // the same number names the user's own group
    std::vector<gid_t> groups;  // in order
  } steps[] = {
      {"ann", true, true, kAnnUid, {kAnnUid, kStaffGid}},
      {"dave", false, true, kDaveUid, {kAnnUid, kStaffGid}},
      {"bob", true, true, kBobUid, {kBobUid, kStaffGid}},
      {"nosuchuser", true, false, kBobUid, {kBobUid, kStaffGid}},
      {"dave", true, true, kDaveUid, {kDaveUid}},
      {"root", true, true, 0, {0}},
      {"ann", true, true, kAnnUid, {kAnnUid, kStaffGid}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.user);
    KLIBCErrSet(KLIB_ERR_NONE);
    errno = EXDEV;
    ASSERT_EQ(step.ok, ResetCredentialsByName(step.user, step.with_groups));
    EXPECT_EQ(EXDEV, errno);
    EXPECT_EQ(step.ok ? KLIB_ERR_NONE : KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
    uid_t uids[3], gids[3];
    ASSERT_EQ(0, getresuid(&uids[0], &uids[1], &uids[2]));
    ASSERT_EQ(0, getresgid(&gids[0], &gids[1], &gids[2]));
    EXPECT_EQ((std::vector<uid_t>{0, step.uid, 0, 0, step.uid, 0}),
              (std::vector<uid_t>{uids[0], uids[1], uids[2], gids[0], gids[1], gids[2]}));
    EXPECT_EQ(step.groups, Groups());
  }
}

// A primed identity answers for its user only, in every question the library
// asks about groups, while KLIBUserIdentityGet still asks the name services.
TEST_F(IdentityTest, PrimedIdentityAnswersForItsUserOnly) {
  KLIBUserIdentity dave;
  ASSERT_TRUE(KLIBUserIdentityGet("dave", &dave));
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

// Pid files, then string lists' bounds (growing them: every share
// enumeration, into a list made for one).
TEST(KlibProcessTest, PidFilesAndStringLists) {
  const pid_t dead = fork();
  if (dead == 0) _exit(0);
  ASSERT_EQ(dead, waitpid(dead, nullptr, 0));
  // A pid file's text ("-": no file) and whether its process lives.
  const std::pair<std::string, int> cases[] = {{"-", 0},   {std::to_string(getpid()) + "\n", 1},
                                               {" 1", 1},  {std::to_string(dead), 0},
                                               {"abc", 0}, {"0", 0},
                                               {"-5", 0}};
  const std::string path = "/run/klib_test.pid";
  for (const auto& c : cases) {
    unlink(path.c_str());
    if (c.first != "-") WriteFile(path, c.first);
    EXPECT_EQ(c.second, KLIBCProcAliveByPidFile(path.c_str())) << "'" << c.first << "'";
  }

  PKLIBCSZLIST list = KLIBCSzListAlloc(0);
  ASSERT_EQ(0, KLIBCSzListPush(&list, "a"));
  ASSERT_EQ(0, KLIBCSzListPush(&list, "b"));
  list->nItem = 1;  // past the end, even where the slot still holds a string
  for (int i : {1, -1}) EXPECT_EQ(nullptr, KLIBCSzListGet(list, i)) << i;
  EXPECT_GT(0, KLIBCSzListPush(&list, nullptr));
  list->nItem = 2;
  KLIBCSzListFree(list);
}

// What the kernel grants `user` on `path`: nothing when it cannot reach it.
int KernelPerm(const char* user, const std::string& path) {
  EXPECT_TRUE(ResetCredentialsByName(user, true)) << user;
  int perm = -1;
  if (0 != KESTACLPermGet(path.c_str(), &perm) && errno == EACCES) perm = 0;
  BecomeRoot();
  return perm;
}

// For random modes, owners and POSIX ACLs on files and folders and on the
// folder above them, the word KESTACLPermCalc computes for each user, with
// the user's group list or not, whoever asks, is what the kernel grants.
TEST_F(IdentityTest, RandomModesAndAclsMatchTheKernel) {
  std::mt19937 rng(20241122);
  const char* const callers[] = {"root", "ann", "dave"};
  for (int round = 0; round < 300; ++round) {
    const std::string dir = "/volume1/acl" + std::to_string(round), path = dir + "/item";
    mkdir(dir.c_str(), 0755);
    if (round % 3 == 0) {
      ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    } else {
      WriteFile(path, "x", 0600);
    }
    const std::string acl = Scramble(path, rng) + " under " + Scramble(dir, rng, true);
    for (const char* user : {"root", "ann", "bob", "carol", "dave"}) {
      const char* caller = callers[rng() % 3];
      ASSERT_TRUE(ResetCredentialsByName(caller, true));
      int calc = -1;
      EXPECT_EQ(0, KESTACLPermCalc(user, nullptr, path.c_str(), &calc)) << user << " by " << caller;
      BecomeRoot();
      PKLIBCSZLIST groups = KLIBGroupInfoListGet(user, TRUE);
      int with_list = -1;
      EXPECT_EQ(0, KESTACLPermCalc(user, groups, path.c_str(), &with_list));
      KLIBCSzListFree(groups);
      EXPECT_EQ(KernelPerm(user, path), calc) << user << " on " << path << " acl [" << acl << "]";
      EXPECT_EQ(calc, with_list);
    }
  }
}

// The group list given decides which groups count; a stale name counts for
// nothing, a group known by its number only still counts.
TEST_F(IdentityTest, GroupListAndFailures) {
  const std::string path = "/volume1/acl-groups";
  WriteFile(path, "x", 0640);
  ASSERT_EQ(0, chown(path.c_str(), 0, kStaffGid));
  PKLIBCSZLIST list = KLIBCSzListAlloc(2);
  int perm = -1;
  for (const char* group : {"nosuchgroup", "2100"}) {
    KLIBCSzListPush(&list, group);
    ASSERT_EQ(0, KESTACLPermCalc("ann", list, path.c_str(), &perm));
    EXPECT_EQ(*group == '2' ? 4 : 0, perm) << group;
  }
  KLIBCSzListFree(list);
  EXPECT_EQ(-1, KESTACLPermCalc("nosuchuser", nullptr, "/volume1", &perm));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(-1, KESTACLPermCalc("ann", nullptr, nullptr, &perm));
}

}  // namespace
}  // namespace kesttest
