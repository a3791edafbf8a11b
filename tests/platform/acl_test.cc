// Permission words against the kernel: for random modes, owners and POSIX
// ACLs on files and folders, the word KESTACLPermCalc computes for each user
// equals what the kernel grants that user (KESTACLPermGet asks the kernel).
#include <cerrno>

#include "platform/platform_test.h"

namespace kesttest {
namespace {

// What the kernel grants `user` on `path`: nothing when it cannot reach it.
int KernelPerm(const char* user, const std::string& path) {
  EXPECT_TRUE(ResetCredentialsByName(user, true)) << user;
  int perm = -1;
  if (0 != KESTACLPermGet(path.c_str(), &perm) && errno == EACCES) perm = 0;
  BecomeRoot();
  return perm;
}

TEST_F(IdentityTest, RandomModesAndAclsMatchTheKernel) {
  std::mt19937 rng(20241122);
  mkdir("/volume1/acl", 0755);
  for (int round = 0; round < 300; ++round) {
    const std::string path = "/volume1/acl/item" + std::to_string(round);
    if (round % 3 == 0) {
      ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    } else {
      WriteFile(path, "x", 0600);
    }
    const std::string acl = Scramble(path, rng);
    for (const char* user : {"root", "ann", "bob", "carol", "dave"}) {
      int calc = -1;
      ASSERT_EQ(0, KESTACLPermCalc(user, nullptr, path.c_str(), &calc)) << user;
      ListPtr groups(KLIBGroupInfoListGet(user, TRUE));
      int with_list = -1;
      ASSERT_EQ(0, KESTACLPermCalc(user, groups.get(), path.c_str(), &with_list));
      EXPECT_EQ(KernelPerm(user, path), calc) << user << " on " << path << " acl [" << acl << "]";
      EXPECT_EQ(calc, with_list);
    }
  }
}

// Readable files behind folders that not everybody may search: the folders
// above count, whoever asks.
TEST_F(IdentityTest, FoldersAboveCountAndTheCallersReachDoesNot) {
  mkdir("/volume1/walk", 0755);
  mkdir("/volume1/walk/bob", 0700);
  ASSERT_EQ(0, chown("/volume1/walk/bob", kBobUid, kBobUid));
  mkdir("/volume1/walk/staff", 0710);
  ASSERT_EQ(0, chown("/volume1/walk/staff", 0, kStaffGid));
  for (const char* path : {"/volume1/walk/bob/open.txt", "/volume1/walk/staff/open.txt"}) {
    WriteFile(path, "x", 0644);
    for (const char* user : {"ann", "bob", "dave"}) {
      for (const char* caller : {"root", "ann", "dave"}) {
        ASSERT_TRUE(ResetCredentialsByName(caller, true));
        int calc = -1;
        EXPECT_EQ(0, KESTACLPermCalc(user, nullptr, path, &calc)) << user << " by " << caller;
        BecomeRoot();
        EXPECT_EQ(KernelPerm(user, path), calc) << user << " on " << path << " by " << caller;
      }
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
  EXPECT_EQ(-1, KESTACLPermCalc("ann", nullptr, "/volume1/none", &perm));
  EXPECT_EQ(-1, KESTACLPermGet("/volume1/none", &perm));
  EXPECT_EQ(-1, KESTACLPermCalc("ann", nullptr, nullptr, &perm));
}

}  // namespace
}  // namespace kesttest
