// CheckList and CheckRead against a small model over random shares, modes,
// ACLs and home folders. The model takes the permission word of each path
// and the share privileges from the platform, and composes them as the
// checks must:
//   list: no FTP "disable list", parent readable and searchable, the path
//         readable when the share hides unreadable entries, and in "homes"
//         the home test;
//   read: outside "homes" no FTP "disable download" and some share
//         privilege; the path readable; in "homes" the home test.
//   home test: inside the user's own (existing) home folder, or some share
//         privilege; without the home service every path passes it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "common/error.h"
#include "common/permission.h"
#include "double/platform_double.h"
#include "kest/klib.h"
#include "platform/platform_test.h"
#include "support/syslog_capture.h"
#include "support/thrown.h"

namespace kestondri {
namespace {

using kesttest::PlatformDouble;
using kesttest::Thrown;
using kesttest::WriteSharesConf;

class PermissionModelTest : public ::testing::Test {
 protected:
  void TearDown() override {
    kesttest::BecomeRoot();
    PlatformDouble::Reset();
  }

  // The word of the path alone (acl_test holds it against the kernel on
  // items whose folders above are searchable).
  int Kernel(const std::string& user, const std::string& path) {
    int perm = 0;
    EXPECT_EQ(0, KESTACLPermCalc(user.c_str(), nullptr, path.c_str(), &perm)) << path;
    return perm;
  }

  int Privilege(const std::string& user, const std::string& share) {
    PKESTSHARE record = nullptr;
    EXPECT_EQ(0, KESTShareGet(share.c_str(), &record));
    const int priv = KESTShareUserPrivCalc(user.c_str(), record);
    KESTShareFree(record);
    return priv;
  }

  std::mt19937 rng_{7};

  // "<key> = <names>" for each of `keys`, with random users and groups.
  std::string RandomLists(const std::vector<const char*>& keys) {
    std::string out;
    for (const char* key : keys) {
      out += std::string(key) + " =";
      for (const char* n : {"ann", "bob", "carol", "dave", "@staff", "@administrators"}) {
        if (rng_() % 5 == 0) out += std::string(" ") + n;
      }
      out += "\n";
    }
    return out;
  }
};

TEST_F(PermissionModelTest, ChecksMatchTheModel) {
  const char* const kFtp[] = {"list", "modify", "download"};
  int compared = 0;
  int outcomes[2][2] = {{0, 0}, {0, 0}};  // [list, read][false, true]
  for (int round = 0; round < 40; ++round) {
    const bool user_home = rng_() % 4 != 0;
    const unsigned ftp = rng_() % 8;
    const bool hide = rng_() % 2;
    std::string conf =
        std::string("[global]\nuser home = ") + (user_home ? "yes" : "no") +
        "\n[photo]\npath = /volume1/photo\nhide unreadable = " + (hide ? "yes" : "no") + "\n";
    for (int bit = 0; bit < 3; ++bit) {
      if (ftp >> bit & 1) conf += std::string("ftp disable ") + kFtp[bit] + " = yes\n";
    }
    conf += RandomLists({"read list", "write list", "invalid users"}) +
            "[homes]\npath = /volume1/homes\n" + RandomLists({"read list", "invalid users"});
    WriteSharesConf(conf);

    std::vector<std::string> paths;
    for (const char* top : {"photo", "homes/ann", "homes/bob", "homes/ann2"}) {
      const std::string dir = std::string("/volume1/") + top + "/r" + std::to_string(round);
      kesttest::WriteFile(dir + "/f", "x");
      kesttest::Scramble(dir, rng_, true);
      kesttest::Scramble(dir + "/f", rng_, true);
      paths.push_back(dir);
      paths.push_back(dir + "/f");
    }
    paths.push_back("/volume1/homes/ann");  // the home folder itself
    chmod("/volume1/homes", 0755);
    chmod("/volume1/homes/ann", 0755);

    for (const std::string user : {"ann", "bob", "carol", "dave"}) {
      FilePermission permission(kesttest::UserByName(user).uid);
      std::string home_real;
      if (user_home) {
        char resolved[4096];
        const std::string home = "/volume1/homes/" + user;
        if (realpath(home.c_str(), resolved)) home_real = resolved;
      }
      for (const auto& path : paths) {
        const bool homes = path.compare(0, 15, "/volume1/homes/") == 0;
        const std::string share = homes ? "homes" : "photo";
        const unsigned share_ftp = homes ? 0 : ftp;
        const bool share_hide = homes ? false : hide;
        const int priv = Privilege(user, share);
        const bool home_test =
            (path + "/").compare(0, home_real.size() + 1, home_real + "/") == 0 ||
            priv != KEST_SHARE_PRIV_NA;
        const std::string parent = path.substr(0, path.rfind('/'));
        const int self_perm = Kernel(user, path);
        const int parent_perm = Kernel(user, parent);

        bool list = !(share_ftp & 1) && (parent_perm & 5) == 5 && !(share_hide && !(self_perm & 4));
        if (list && homes) list = home_test;
        const bool read =
            (self_perm & 4) && (homes ? home_test : !(share_ftp & 4) && priv != KEST_SHARE_PRIV_NA);
        const std::string context = user + " " + path + "\n" + conf;
        EXPECT_EQ(list, permission.CheckList(path)) << "list " << context;
        EXPECT_EQ(read, permission.CheckRead(path)) << "read " << context;
        ++compared;
        ++outcomes[0][list];
        ++outcomes[1][read];
      }
    }
  }
  EXPECT_EQ(40 * 4 * 9, compared);
  // The random set-ups must reach both answers of both checks often.
  for (auto& check : outcomes) {
    EXPECT_GT(check[0], 100);
    EXPECT_GT(check[1], 100);
  }
}

// The share and the permission words are asked once per object; the FTP
// flags answer before any word is asked; paths and lookups that fail throw,
// never answer false.
TEST_F(PermissionModelTest, AskedOnceAndFailures) {
  WriteSharesConf(
      "[global]\nuser home = yes\n[photo]\npath = /volume1/photo\nftp disable download = yes\n"
      "[docs]\npath = /volume1/docs\n[homes]\npath = /volume1/homes\n");
  kesttest::WriteFile("/volume1/photo/a.jpg", "x");
  kesttest::WriteFile("/volume1/docs/a.txt", "x");
  PlatformDouble::Reset();
  FilePermission permission(kesttest::kAnnUid);
  EXPECT_TRUE(permission.CheckRead("/volume1/docs/a.txt"));
  EXPECT_TRUE(permission.CheckRead("/volume1/docs/a.txt"));
  EXPECT_TRUE(permission.CheckList("/volume1/docs/a.txt"));
  EXPECT_EQ(1, PlatformDouble::Calls("KESTShareGet"));
  EXPECT_EQ(2, PlatformDouble::Calls("KESTACLPermCalc")) << "the path's word, the parent's";
  EXPECT_FALSE(permission.CheckRead("/volume1/photo/a.jpg"));
  EXPECT_EQ(2, PlatformDouble::Calls("KESTACLPermCalc"));
  EXPECT_TRUE(permission.CheckList("/volume1/photo/a.jpg"));

  kesttest::SyslogCapture::Instance().Clear();
  EXPECT_EQ("502 Malformed path: /volume1",
            Thrown<Error>([&] { permission.CheckRead("/volume1"); }));
  EXPECT_NO_THROW(permission.CheckRead("/volume1/docs"));  // share "docs"
  EXPECT_EQ("800 nosuchshare",
            Thrown<Error>([&] { permission.CheckRead("/volume1/nosuchshare/x"); }));
  // A missing file: the word cannot be asked.
  EXPECT_EQ("502 KESTACLPermCalc failed, user: ann, path: /volume1/docs/none",
            Thrown<Error>([&] { permission.CheckRead("/volume1/docs/none"); }));
  EXPECT_EQ("801", Thrown<Error>([] { FilePermission unknown(54321); }).substr(0, 3));
  PlatformDouble::FailNext("KLIBGroupInfoListGet");
  EXPECT_EQ("502 KLIBGroupInfoListGet failed, user: bob",
            Thrown<Error>([] { FilePermission bob(kesttest::kBobUid); }));
  const std::string pid = std::to_string(getpid());
  for (const std::string& site :
       std::vector<std::string>{"permission.cc:16 (" + pid +
                                    ", 0) (ExtractShareName) Failed [string::npos == slash_pos1], "
                                    "reason: Malformed path: "
                                    "/volume1",
                                "permission.cc:117 (" + pid + ", 0) (GetPathACL) Failed [",
                                "permission.cc:29 (" + pid + ", 0) (FilePermission) Failed ["}) {
    EXPECT_TRUE(kesttest::SyslogCapture::Instance().WaitFor(site)) << site;
  }
}

}  // namespace
}  // namespace kestondri
