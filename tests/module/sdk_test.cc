// The module's platform layer (common/sdk) and permission checks on the real platform; the
// double where the platform cannot be made to fail or to count what is asked of it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <random>
#include <string>

#include "common/error.h"
#include "common/permission.h"
#include "common/sdk/credentials.h"
#include "common/sdk/share.h"
#include "common/sdk/share_path.h"
#include "common/sdk/task.h"
#include "common/util.h"
#include "double/platform_double.h"
#include "kest/klib.h"
#include "module/api_runner.h"
#include "platform/platform_test.h"
#include "support/thrown.h"
#include "webapi/folder.h"
#include "webapi/search.h"

namespace kesttest {
namespace {

using kestondri::Error;
using kestondri::FilePermission;
using kestondri::sdk::ForkTask;
using kestondri::sdk::SDKCredentials;
using kestondri::sdk::SDKShare;
using kestondri::sdk::SharePathMgr;
using kestondri::sdk::User;

class SDKTest : public ModuleTest {
 protected:
  void SetUp() override {
    WriteSharesConf(
        "[global]\nuser home = yes\n"
        "[photo]\npath = /volume1/photo\nhide unreadable = yes\n[docs]\npath = /volume1/docs\n"
        "[homes]\npath = /volume1/homes\n");
    PlatformDouble::Reset();
    ModuleTest::SetUp();  // last: a clean log and errno
  }
  void TearDown() override {
    PlatformDouble::Reset();
    ModuleTest::TearDown();
  }
};

// A named guard acts as its user (root for an administrator), re-applied if changed inside; a
// default guard puts back what it found. Neither switches when nothing changed.
TEST_F(SDKTest, CredentialsGuard) {
  const struct {
    const char* outer;    // the identity the guard starts from
    const char* guard;    // null: the default guard
    const char* as_user;  // AsUser() inside, or null
    uid_t inside;
    uid_t after;
    int switches;  // on leaving
  } cases[] = {
      {"root", "ann", nullptr, kAnnUid, kAnnUid, 1},
      {"root", "carol", nullptr, 0, 0, 0},
      {"root", "ann", "bob", kBobUid, kAnnUid, 1},
      {"root", "ann", "carol", 0, 0, 0},                  // back where it started
      {"root", "carol", "dave", kDaveUid, kCarolUid, 1},  // the account, not root
      {"root", nullptr, "bob", kBobUid, 0, 1},
      {"bob", nullptr, "carol", 0, kBobUid, 1},
      {"root", nullptr, nullptr, 0, 0, 0},
  };
  for (const auto& c : cases) {
    const std::string what = std::string(c.outer) + " " + (c.guard ? c.guard : "default") + " " +
                             (c.as_user ? c.as_user : "-");
    BecomeRoot();
    ASSERT_TRUE(ResetCredentialsByName(c.outer, true));
    RequestGuard guard;
    guard.ExpectIdentityAfter(c.after, c.after);
    {
      std::unique_ptr<SDKCredentials> credentials(c.guard ? new SDKCredentials(c.guard)
                                                          : new SDKCredentials());
      if (c.as_user) credentials->AsUser(c.as_user);
      EXPECT_EQ(c.inside, geteuid()) << what;
      EXPECT_EQ(c.inside, getegid()) << what;
      PlatformDouble::Reset();
    }
    EXPECT_EQ(c.switches, PlatformDouble::Calls("ResetCredentialsByName")) << what;
    guard.Finish();
  }
  BecomeRoot();
  EXPECT_TRUE(CapturedLines().empty());

  // A failed switch back throws, unless already unwinding (that would terminate): logged only.
  for (const bool unwinding : {false, true}) {
    BecomeRoot();
    SyslogCapture::Instance().Clear();
    RequestGuard guard;
    guard.ExpectIdentityAfter("ann");
    EXPECT_EQ(unwinding ? "nothing" : "503 ", Thrown<Error>([unwinding] {
                try {
                  SDKCredentials credentials;
                  credentials.AsUser("ann");
                  PlatformDouble::FailNext("ResetCredentialsByName");
                  if (unwinding) throw 1;
                } catch (int) {
                }
              }));
    EXPECT_EQ(std::vector<std::string>{LogLine("credentials.cc", 39, "~SDKCredentials",
                                               "Failed [!ResetCredentialsByName(username_)]",
                                               getpid(), kAnnUid)},
              CapturedLines());
  }
}

TEST_F(SDKTest, FailedFork) {
  bool ran = false;
  PlatformDouble::FailNext("KLIBCProcForkEx");
  ForkTask task(1);
  EXPECT_FALSE(task.DoTask([&] { ran = true; }));
  EXPECT_FALSE(ran);
  EXPECT_EQ(0, errno);
  EXPECT_EQ(std::vector<std::string>{LogLine(kTaskHeader, 43, "DoTask",
                                             "Failed to fork [err: Resource temporarily "
                                             "unavailable]")},
            CapturedLines());
}

// Hits gain the share path (one's own home as /home), readability, the owner's name (looked up
// once per uid, blank when that fails), the mount flag. An unknown login user is 801.
TEST_F(SDKTest, SearchHits) {
  MakeSearchShares();
  DaemonReply page;
  for (const char* hit :
       {R"({"total": 6})",
        R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "2002"})",
        R"({"KESTMDPath": "/volume1/docs/closed.txt", "KESTMDOwnerUserID": "2002"})",
        R"({"KESTMDPath": "/volume1/homes/ann", "KESTMDOwnerUserID": "2001"})",
        R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "not a uid"})",
        R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "77777"})",
        R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": "4294967296"})",
        R"({"KESTMDPath": "/volume1/docs/open.txt", "KESTMDOwnerUserID": ""})",
        R"({"KESTMDPath": "/volume1", "KESTMDOwnerUserID": "0"})", R"({"KESTMDFSName": "b"})",
        "{\"KESTMDPath\": \"/volume1/docs/\xff\"}",  // not UTF-8
        R"({"KESTMDPath": "/volume1/homes/bob/x"})", R"({"KESTMDPath": "/volume1/homes/ann2/x"})",
        R"({"success": true})"})
    page.Text(hit);
  const auto search = [&page] {
    FakeDaemon daemon;
    daemon.On("search", page);
    daemon.On("list_db_status", DaemonReply::Success(Json::Value(Json::objectValue)));
    return RunAPI<kestondri::webapi::SearchAPI>(
        kAnn, ParseJson(R"({"indice": ["docs"], "from": 0, "size": 10, "fields": [],
                             "file_type": ""})"));
  };
  const auto response = search();
  ASSERT_TRUE(response.IsSuccess()) << response.GetErrorCode();
  const auto& hits = response.GetData()["hits"];
  const struct {
    const char* share_path;
    bool readable;
    Json::Value owner;  // null: no owner name set
    bool mount_point;
  } expect[] = {
      {"/docs/open.txt", true, "bob", false},
      {"/docs/closed.txt", false, "bob", false},
      {"/home", true, "ann", false},  // the user's own home folder
      {"/docs/open.txt", true, "", false},
      {"/docs/open.txt", true, "", false},
      {"/docs/open.txt", true, "root", false},  // only the low 32 bits count
      {"/docs/open.txt", true, Json::Value(), false},
      {"", true, "root", true},  // in no share; the volume is a mount point
      {"", false, Json::Value(), false},
      {"/docs/\xff", false, Json::Value(), false},
      {"/homes/bob/x", false, Json::Value(), false},  // another user's home
      {"/homes/ann2/x", false, Json::Value(), false},
  };
  ASSERT_EQ(sizeof(expect) / sizeof(expect[0]), hits.size());
  for (Json::ArrayIndex i = 0; i < hits.size(); ++i) {
    EXPECT_EQ(expect[i].share_path, hits[i]["KESTMDSharePath"].asString()) << i;
    EXPECT_EQ(expect[i].readable, hits[i]["readable"].asBool()) << i;
    EXPECT_EQ(expect[i].owner, hits[i].get("KESTMDOwnerUserName", Json::Value())) << i;
    EXPECT_EQ(expect[i].mount_point, hits[i]["additional"]["is_mount_point"].asBool()) << i;
  }
  // A path that is not UTF-8 also travels as a reference to its bytes.
  EXPECT_EQ("hex:2f766f6c756d65312f646f63732fff", hits[9]["additional"]["path_ref"].asString());
  EXPECT_FALSE(hits[0]["additional"].isMember("path_ref"));
  // Members the daemon did not send are not made up as null.
  EXPECT_EQ((Json::Value::Members{"KESTMDFSName", "KESTMDSharePath", "additional", "readable"}),
            hits[8].getMemberNames());
  EXPECT_EQ(3, PlatformDouble::Calls("KESTUserGetByUID")) << "bob, 77777 and root";
  // A path in no share is logged.
  EXPECT_TRUE(SyslogCapture::Instance().WaitFor(
      LogLine("share_path.cc", 15, "GetSharePath", "KESTShareNamePathGet failed, vol_path=/volume1",
              getpid(), kAnnUid)));

  PlatformDouble::FailNext("KESTUserGet", KLIB_ERR_USER_NOT_FOUND);
  EXPECT_EQ(801, search().GetErrorCode());
}

// Only two quota codes mean "not enough".
TEST_F(SDKTest, QuotaCodes) {
  SDKShare photo("photo");
  for (const int code : {0x2900, 0x2400, 0x0300}) {
    PlatformDouble::FailNext("KESTQuotaIsEnough", code);
    EXPECT_EQ(code == 0x0300, photo.IsSpaceEnough()) << std::hex << code;
  }
}

// One case per form of text: what is thrown, and the one line logged.
TEST_F(SDKTest, FailuresThrowWithTheirTexts) {
  const struct {
    const char* function;  // armed to fail; null: the real platform fails
    int code;              // the platform's error code
    std::string site;      // of the line logged; "": none
    const char* thrown;
    std::function<void()> call;
  } cases[] = {
      // The message of a failed user lookup skips as many characters as the
      // platform's error code.
      {"KESTUserGetByUID", 0, "credentials.cc:22",
       "503 KESTUserGetByUID failed, err=", [] { SDKCredentials credentials; }},
      {"KESTUserGetByUID", 3, "credentials.cc:22",
       "503 TUserGetByUID failed, err=", [] { SDKCredentials credentials; }},
      {"KESTUserGetByUID", 30, "credentials.cc:22", "503 ", [] { SDKCredentials credentials; }},
      {nullptr, 0, "share.cc:34", "800 nosuch", [] { SDKShare share("nosuch"); }},
      {"KLIBShareIsEncryptedGet", 0, "share.cc:73",
       "502 KLIBShareis_encryptedGet failed, share=photo",
       [] { SDKShare("photo").CanBeIndexed(); }},
      {"KLIBShareIsReadOnlyGet", 0, "share.cc:75",
       "502 KLIBShareis_readonlyGet failed, share=photo", [] { SDKShare("photo").CanBeIndexed(); }},
      {"KLIBShareIsEncryptionGet", 0, "share.cc:87",
       "502 KLIBShareIsEncryptionGet failed, share=photo",
       [] { SDKShare("photo").IsEncryption(); }},
      {"KLIBShareRecycleStatusGet", 0, "share.cc:99",
       "502 KLIBShareRecycleStatusGet failed, share=photo",
       [] { SDKShare("photo").IsEnableRecycleBin(); }},
      {"FILEIDXQueuePathCompose", 0, "share.cc:156",
       "502 FILEIDXQueuePathCompose failed, share=photo", [] { SDKShare("photo").GetQueuePath(); }},
      {"FILEIDXGetIndexID", 0, "share.cc:184", "502 FILEIDXGetIndexID failed, share=photo",
       [] { SDKShare("photo").GetDBName(); }},
      {"KLIBCSzListAlloc", 0, "share.cc:54", "121 KLIBCSzListAlloc failed",
       [] { SDKShare::Enum(); }},
      {"KLIBShareEnum", 0, "share.cc:56", "121 KLIBShareEnum failed", [] { SDKShare::Enum(); }},
      {nullptr, 0, "util.cc:177", "502 Failed to open dir: /volume1/none",
       [] { kestondri::ProcessDir("/volume1/none", [](const std::string&) {}); }},
      {nullptr, 0, "", "120 Need path or owner",  // logged by the method's runner
       [] {
         KEST::APIRequest request(Json::Value(), 0, "root", "sid", true);
         KEST::APIResponse response;
         kestondri::webapi::FolderDelAPI(&request, &response).Run();
       }},
      {nullptr, 0, "../../..//src/include/common/sdk/user.h:47",
       "502 KESTServiceHomePathGet failed, user=nosuchuser",
       [] {
         User user;
         user.name_ = "nosuchuser";
         user.home_enabled_ = true;
         user.GetHomePath();
       }},
      {nullptr, 0, "permission.cc:16", "502 Malformed path: /volume1",
       [] { FilePermission(kAnnUid).CheckRead("/volume1"); }},
      // A missing file: the word cannot be asked.
      {nullptr, 0, "permission.cc:117",
       "502 KESTACLPermCalc failed, user: ann, path: /volume1/docs/none",
       [] { FilePermission(kAnnUid).CheckRead("/volume1/docs/none"); }},
      {"KLIBGroupInfoListGet", 0, "permission.cc:29", "502 KLIBGroupInfoListGet failed, user: bob",
       [] { FilePermission bob(kBobUid); }},
      {nullptr, 0, "", "801 ", [] { FilePermission unknown(54321); }},  // nothing logged
  };
  for (const auto& c : cases) {
    SyslogCapture::Instance().Clear();
    if (c.function) PlatformDouble::FailNext(c.function, c.code);
    EXPECT_EQ(c.thrown, Thrown<Error>(c.call));
    const auto lines = CapturedLines();
    ASSERT_EQ(c.site.empty() ? 0u : 1u, lines.size()) << c.thrown;
    if (c.site.empty()) continue;
    EXPECT_EQ(0u, lines[0].find(c.site + " (")) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(c.thrown + 4)) << lines[0];
  }
  // A failure is not cached: the next call asks again and succeeds.
  SDKShare photo("photo");
  PlatformDouble::FailNext("FILEIDXDBPathCompose");
  EXPECT_EQ("502 FILEIDXDBPathCompose failed, share=photo",
            Thrown<Error>([&] { photo.GetDBPath(); }));
  EXPECT_EQ("/volume1/@kestondri/index/photo", photo.GetDBPath());
  // Without the lists of the platform a hidden flag reads as unset.
  PlatformDouble::FailNext("KLIBShareHideUnreadableGet");
  EXPECT_FALSE(photo.IsHideUnReadable());
}

// CheckList and CheckRead against a model over random shares, modes, ACLs and homes:
//   list: no FTP "disable list", parent readable and searchable, the path readable if the
//     share hides unreadable entries; in "homes" the home test.
//   read: the path readable; outside "homes" no FTP "disable download" and some share
//     privilege; in "homes" the home test: inside one's own home (any, without the home
//     service), or some privilege.
class PermissionModelTest : public ::testing::Test {
 protected:
  void TearDown() override { kesttest::BecomeRoot(); }

  // The word of the path alone (acl_test holds it against the kernel).
  int Kernel(const std::string& user, const std::string& path) {
    int perm = 0;
    EXPECT_EQ(0, KESTACLPermCalc(user.c_str(), nullptr, path.c_str(), &perm)) << path;
    return perm;
  }

  std::mt19937 rng_{7};

  // "<key> = <names>" for each of `keys`, with random users and groups.
  std::string RandomLists(const std::vector<const char*>& keys) {
    std::string out;
    for (const char* key : keys) {
      out += std::string(key) + " =";
      for (const char* n : {"ann", "bob", "carol", "dave", "@staff", "@administrators"})
        if (rng_() % 5 == 0) out += std::string(" ") + n;
      out += "\n";
    }
    return out;
  }
};

TEST_F(PermissionModelTest, ChecksMatchTheModel) {
  const char* const kFtp[] = {"list", "modify", "download"};
  int outcomes[2][2] = {{0, 0}, {0, 0}};  // [list, read][false, true]
  for (int round = 0; round < 40; ++round) {
    const bool user_home = rng_() % 4 != 0;
    const unsigned ftp = rng_() % 8;
    const bool hide = rng_() % 2;
    std::string conf =
        std::string("[global]\nuser home = ") + (user_home ? "yes" : "no") +
        "\n[photo]\npath = /volume1/photo\nhide unreadable = " + (hide ? "yes" : "no") + "\n";
    for (int bit = 0; bit < 3; ++bit)
      if (ftp >> bit & 1) conf += std::string("ftp disable ") + kFtp[bit] + " = yes\n";
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
      const std::string home_real = user_home ? kestondri::RealPath("/volume1/homes/" + user) : "";
      for (const auto& path : paths) {
        const bool homes = path.compare(0, 15, "/volume1/homes/") == 0;
        const unsigned share_ftp = homes ? 0 : ftp;
        PKESTSHARE record = nullptr;
        EXPECT_EQ(0, KESTShareGet(homes ? "homes" : "photo", &record));
        const int priv = KESTShareUserPrivCalc(user.c_str(), record);
        KESTShareFree(record);
        const bool home_test =
            (path + "/").compare(0, home_real.size() + 1, home_real + "/") == 0 ||
            priv != KEST_SHARE_PRIV_NA;
        const std::string parent = path.substr(0, path.rfind('/'));
        const int self_perm = Kernel(user, path);
        const int parent_perm = Kernel(user, parent);

        bool list =
            !(share_ftp & 1) && (parent_perm & 5) == 5 && !(!homes && hide && !(self_perm & 4));
        if (list && homes) list = home_test;
        const bool read =
            (self_perm & 4) && (homes ? home_test : !(share_ftp & 4) && priv != KEST_SHARE_PRIV_NA);
        const std::string context = user + " " + path + "\n" + conf;
        EXPECT_EQ(list, permission.CheckList(path)) << "list " << context;
        EXPECT_EQ(read, permission.CheckRead(path)) << "read " << context;
        ++outcomes[0][list];
        ++outcomes[1][read];
      }
    }
  }
  // The random set-ups must reach both answers of both checks often.
  for (auto& check : outcomes) EXPECT_GT(std::min(check[0], check[1]), 100);
}

}  // namespace
}  // namespace kesttest
