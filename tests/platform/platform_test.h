// What the platform's tests share (the module's permission test too).
#ifndef KEST_TESTS_PLATFORM_PLATFORM_TEST_H_
#define KEST_TESTS_PLATFORM_PLATFORM_TEST_H_

#include <gtest/gtest.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/error.h"
#include "kest/klib.h"
#include "support/sandbox.h"

namespace kesttest {

// The items of a list the C library handed out.
inline std::vector<std::string> Items(PKLIBCSZLIST list) {
  std::vector<std::string> out;
  for (int i = 0; list && i < list->nItem; ++i) out.push_back(KLIBCSzListGet(list, i));
  return out;
}

// Tests that act as other users are root again after each test.
class IdentityTest : public testing::Test {
 protected:
  void TearDown() override { BecomeRoot(); }
};

// Runs `body` as `user` (effective ids and groups, as the module acts), then
// as root again; the library must have given back any privilege it took.
inline void As(const std::string& user, const std::function<void()>& body) {
  ASSERT_TRUE(ResetCredentialsByName(user, true)) << user;
  const uid_t euid = geteuid();
  body();
  EXPECT_EQ(euid, geteuid()) << "privilege not given back";
  BecomeRoot();
}

// The code of the kestondri::Error that `body`, run as `user`, throws; 0 for
// none. Its text goes to `reason` when given.
inline int CodeOf(const std::string& user, const std::function<void()>& body,
                  std::string* reason = nullptr) {
  int code = 0;
  As(user, [&] {
    try {
      body();
    } catch (const kestondri::Error& e) {
      code = e.code();
      if (reason) *reason = e.what();
    }
  });
  return code;
}

// Gives `path` a random owner, owning group and mode (with `generous`, most
// often r-x for all as well), and three times in four an extended ACL with up
// to three named entries and a mask. Returns the ACL's text, "" for none.
inline std::string Scramble(const std::string& path, std::mt19937& rng, bool generous = false) {
  static const uid_t kOwners[] = {0, kAnnUid, kBobUid, kDaveUid};
  static const gid_t kGroups[] = {0, kStaffGid, kAnnUid, kAdministratorsGid};
  static const char* const kNamed[] = {"u:ann:",   "u:bob:",  "u:carol:", "u:dave:",
                                       "g:staff:", "g:dave:", "g:bob:",   "g:administrators:"};
  static const char* const kRwx[] = {"---", "--x", "-w-", "-wx", "r--", "r-x", "rw-", "rwx"};
  EXPECT_EQ(0, chown(path.c_str(), kOwners[rng() % 4], kGroups[rng() % 4]));
  EXPECT_EQ(0, chmod(path.c_str(), ((generous && rng() % 3) ? 0555 : 0) | (rng() & 0777)));
  if (rng() % 4 == 0) return "";
  std::string text =
      std::string("u::") + kRwx[rng() & 7] + ",g::" + kRwx[rng() & 7] + ",o::" + kRwx[rng() & 7];
  unsigned used = 0;
  for (unsigned i = 0, n = 1 + rng() % 3; i < n; ++i) {
    const unsigned e = rng() % 8;
    if (!(used & (1u << e))) text += std::string(",") + kNamed[e] + kRwx[rng() & 7];
    used |= 1u << e;
  }
  text += std::string(",m::") + kRwx[rng() & 7];
  acl_t acl = acl_from_text(text.c_str());
  EXPECT_NE(nullptr, acl) << text;
  EXPECT_EQ(0, acl_set_file(path.c_str(), ACL_TYPE_ACCESS, acl)) << text;
  acl_free(acl);
  return text;
}

}  // namespace kesttest

#endif  // KEST_TESTS_PLATFORM_PLATFORM_TEST_H_
