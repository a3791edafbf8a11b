// Permission words against the kernel: random modes, owners and POSIX ACLs
// (named users, named groups, masks) on files and folders; for each user
// the word KESTACLPermCalc computes must equal what the kernel grants when
// the process acts as that user (KESTACLPermGet asks the kernel).
#include <sys/acl.h>

#include <cerrno>
#include <random>

#include "platform/platform_test.h"

namespace kesttest {
namespace {

std::string Rwx(int bits) {
  std::string s = "---";
  if (bits & 4) s[0] = 'r';
  if (bits & 2) s[1] = 'w';
  if (bits & 1) s[2] = 'x';
  return s;
}

class AclTest : public IdentityTest {
 protected:
  // What the kernel grants `user` on `path`: nothing when it cannot reach it.
  int KernelPerm(const char* user, const std::string& path) {
    EXPECT_TRUE(ResetCredentialsByName(user, true)) << user;
    int perm = -1;
    if (0 != KESTACLPermGet(path.c_str(), &perm) && errno == EACCES) perm = 0;
    BecomeRoot();
    return perm;
  }
};

TEST_F(AclTest, RandomModesAndAclsMatchTheKernel) {
  const std::vector<const char*> users = {"root", "ann", "bob", "carol", "dave"};
  const std::vector<uid_t> owners = {0, kAnnUid, kBobUid, kDaveUid};
  const std::vector<gid_t> owning_groups = {0, kStaffGid, kAnnUid, kAdministratorsGid};
  const std::vector<std::string> named_users = {"ann", "bob", "carol", "dave"};
  const std::vector<std::string> named_groups = {"staff", "administrators", "dave", "bob"};
  std::mt19937 rng(20241122);
  auto pick = [&rng](size_t n) { return static_cast<size_t>(rng() % n); };

  mkdir("/volume1/acl", 0755);
  int compared = 0;
  for (int round = 0; round < 300; ++round) {
    const bool dir = round % 3 == 0;
    const std::string path = "/volume1/acl/item" + std::to_string(round);
    if (dir) {
      ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    } else {
      WriteFile(path, "x", 0600);
    }
    ASSERT_EQ(0, chown(path.c_str(), owners[pick(owners.size())],
                       owning_groups[pick(owning_groups.size())]));
    const mode_t mode = static_cast<mode_t>(rng() & 0777);
    ASSERT_EQ(0, chmod(path.c_str(), mode));
    std::string text;
    if (round % 4 != 0) {  // most items get an extended ACL
      text = "u::" + Rwx(rng() & 7) + ",g::" + Rwx(rng() & 7) + ",o::" + Rwx(rng() & 7);
      const int entries = 1 + static_cast<int>(pick(3));
      std::vector<bool> used_user(named_users.size()), used_group(named_groups.size());
      for (int i = 0; i < entries; ++i) {
        if (rng() & 1) {
          size_t u = pick(named_users.size());
          if (used_user[u]) continue;
          used_user[u] = true;
          text += ",u:" + named_users[u] + ":" + Rwx(rng() & 7);
        } else {
          size_t g = pick(named_groups.size());
          if (used_group[g]) continue;
          used_group[g] = true;
          text += ",g:" + named_groups[g] + ":" + Rwx(rng() & 7);
        }
      }
      text += ",m::" + Rwx(rng() & 7);
      acl_t acl = acl_from_text(text.c_str());
      ASSERT_NE(nullptr, acl) << text;
      ASSERT_EQ(0, acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl)) << text;
      acl_free(acl);
    }
    for (const char* user : users) {
      int calc = -1;
      ASSERT_EQ(0, KESTACLPermCalc(user, nullptr, path.c_str(), &calc)) << user;
      ListPtr groups(KLIBGroupInfoListGet(user, TRUE));
      ASSERT_NE(nullptr, groups);
      int with_list = -1;
      ASSERT_EQ(0, KESTACLPermCalc(user, groups.get(), path.c_str(), &with_list));
      const int kernel = KernelPerm(user, path);
      EXPECT_EQ(kernel, calc) << user << " on " << (dir ? "dir" : "file") << " mode " << std::oct
                              << mode << std::dec << " acl [" << text << "]";
      EXPECT_EQ(calc, with_list);
      ++compared;
    }
  }
  EXPECT_EQ(1500, compared);
}

TEST_F(AclTest, FoldersAboveCountAndTheCallersReachDoesNot) {
  // Readable files behind folders that not everybody may search.
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

TEST_F(AclTest, GroupListDecidesWhichGroupsCount) {
  const std::string path = "/volume1/acl-groups";
  WriteFile(path, "x", 0640);
  ASSERT_EQ(0, chown(path.c_str(), 0, kStaffGid));
  int perm = -1;
  ASSERT_EQ(0, KESTACLPermCalc("ann", nullptr, path.c_str(), &perm));
  EXPECT_EQ(4, perm);
  // Without staff in the list ann is "other"; a stale name counts for nothing.
  PKLIBCSZLIST list = KLIBCSzListAlloc(2);
  KLIBCSzListPush(&list, "ann");
  KLIBCSzListPush(&list, "nosuchgroup");
  ASSERT_EQ(0, KESTACLPermCalc("ann", list, path.c_str(), &perm));
  EXPECT_EQ(0, perm);
  KLIBCSzListPush(&list, "2100");  // a group known by its number only
  ASSERT_EQ(0, KESTACLPermCalc("ann", list, path.c_str(), &perm));
  EXPECT_EQ(4, perm);
  KLIBCSzListFree(list);
}

TEST_F(AclTest, FailuresAreReported) {
  int perm = 0;
  EXPECT_EQ(-1, KESTACLPermCalc("nosuchuser", nullptr, "/volume1", &perm));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(-1, KESTACLPermCalc("ann", nullptr, "/volume1/none", &perm));
  EXPECT_EQ(-1, KESTACLPermGet("/volume1/none", &perm));
  EXPECT_EQ(-1, KESTACLPermCalc("ann", nullptr, nullptr, &perm));
}

}  // namespace
}  // namespace kesttest
