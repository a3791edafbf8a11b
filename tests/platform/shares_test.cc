// Shared folders on the real platform: shares.conf and the smb.conf it may
// name, share records, privileges, paths, the home service, mount points.
#include <sys/mount.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "platform/platform_test.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

// One section a line, keys in any case.
const char kConf[] =
    "; shares of the test host\n"
    "[global]\nadmin group = administrators\nuser home = yes\nindex language = german\n"
    "[photo]\npath = /volume1/photo/\nftp disable list = yes\nftp disable download = yes\n"
    "\n"
    "[docs]\npath = /volume1/docs\nread list = dave\nwrite list = @staff, carol\n"
    "invalid users = bob\nIndex Language = English\n"
    "[secret]\npath = /volume2/secret\nencrypted = yes\nread only = yes\n"
    "[homes]\npath = /volume1/homes\n";

// An smb.conf as Samba's own tools write it: indented keys, continued lines,
// defaults in [global], and shares this product cannot serve.
const char kSmbConf[] =
    "[global]\n   workgroup = WORKGROUP\n   log file = /var/log/samba/log.%m\n"
    "   invalid users = root\n"
    "[printers]\n   path = /var/spool/samba\n   printable = yes\n"
    "[homes]\n   valid users = %S\n"
    "[projects]\n   path = /volume1/projects\n   writeable = yes\n   valid users = @staff, \\\n"
    "                 carol\n   read list = bob\n   vfs objects = recycle\n"
    "[media]\n   path = /volume2/media/\n   write list = carol\n"
    "[scratch]\n   path = /srv/scratch\n"
    "[net]\n   path = /volume1/net\n   valid users = &engineers\n"
    "[off]\n   path = /volume1/off\n   available = no\n"
    "[DOCS]\n   path = /volume1/docs2\n";

const std::string kWithSamba = std::string(kConf).insert(
    strlen("; shares of the test host\n[global]\n"), "samba config = /etc/kest/smb.conf\n");

class SharesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    WriteFile("/etc/kest/smb.conf", kSmbConf);
    WriteSharesConf(kConf);
  }
};

struct ShareHolder {
  PKESTSHARE share = nullptr;
  ~ShareHolder() { KESTShareFree(share); }
};

// The share as read now: its name, path, flags and FTP privilege; "not
// found"; or the text of a configuration error.
std::string Describe(const char* name) {
  ShareHolder share;
  if (KESTShareGet(name, &share.share) < 0) {
    EXPECT_EQ(nullptr, share.share);
    if (KLIBCErrGet() == KLIB_ERR_SHARE_NOT_FOUND) return "not found";
    EXPECT_EQ(KLIB_ERR_CONFIG, KLIBCErrGet());
    return std::string("error: ") + KLIBCErrTextGet();
  }
  const KESTSHARE& s = *share.share;
  return std::string(s.szName) + " " + s.szPath + (s.blReadOnly ? " read-only" : "") +
         (s.blEncrypted ? " encrypted" : "") + " ftp " + std::to_string(s.fFTPPrivilege);
}

// In order, each row writes shares.conf ("-": none, "=": as it was) and
// smb.conf (null: none) and reads a share: its record or the error's text,
// which names the file and the line.
TEST_F(SharesTest, ConfigurationTexts) {
  const std::string long_line = "read list = " + std::string(250, 'a') + "\n";
  const struct {
    std::string conf;
    const char* expected;
    const char* share = "a";
    const char* smb = nullptr;
    mode_t smb_mode = 0644;
  } cases[] = {
      // Trailing slash dropped; ftp: KEST_FTP_PRIV_DISABLE_LIST | _DOWNLOAD.
      {kConf, "photo /volume1/photo ftp 5", "photo"},
      {kConf, "secret /volume2/secret read-only encrypted ftp 0", "secret"},
      // Read-only for Samba's clients, yet indexed.
      {kWithSamba, "media /volume2/media ftp 0", "media", kSmbConf},
      // An edit of smb.conf alone counts at the next call.
      {"=", "not found", "projects", "[media]\npath = /volume2/media\n"},
      {"-", "error: /etc/kest/shares.conf", "photo"},
      {"[global]\nsamba config = /etc/kest/smb.conf\n", "smb.conf: No such file"},
      {"[global]\nsamba config = /etc/kest/smb.conf\n", "writable by root only", "a", kSmbConf,
       0664},
      {"[global]\nsamba config = smb.conf\n", "must be an absolute path"},
      {"[photo]\npath = /volume1/photo\ninvalid user = bob\n",
       "shares.conf:3: unknown key \"invalid user\""},
      {"[global]\nuser home = maybe\n", ":2: \"user home\" must be yes or no"},
      {"[photo]\npath = /volume1/photo\nthis is not ini\n", ":3: syntax error"},
      {"[photo\npath = /volume1/photo\n", ":1: syntax error"},
      {"[photo]\npath = /data/photo\n", ":2: path must be /volume<N>/<folder>"},
      {"[photo]\npath = /volume1/photo/deeper\n", ":2: path must name a folder directly"},
      {"[photo]\npath = /volume1/..\n", ":2: path names a reserved folder"},
      {"[photo]\npath = /volume1/@kestondri\n", ":2: path names a reserved folder"},
      {"[a]\npath = /volume1/a\n[b]\npath = /volume1/a\n", ":4: path /volume1/a is already"},
      {"[a]\npath = /volume1/a\n[A]\npath = /volume1/b\n", ":4: share [A] defined twice"},
      {"[a]\npath = /volume1/a\npath = /volume1/b\n", ":3: \"path\" given twice"},
      {"[a]\nread only = yes\n", "share [a] has no path"},
      {"[a]\npath = /volume1/a\nread only = perhaps\n", ":3: \"read only\" must be yes or no"},
      {"[a]\npath = /volume1/a\nindex language = pt-BR\n", ":3: \"index language\" must be a word"},
      {"[a]\npath = /volume1/a\n" + long_line, ":3: line longer than"},
      {"path = /volume1/a\n", ":1: empty section name"},
      {"[a/b]\npath = /volume1/a\n", ":2: share name \"a/b\""},
      {"[a]\npath = /volume1/a\nread list = @\n", ":3: \"@\" without a group name"},
  };
  for (const auto& c : cases) {
    unlink("/etc/kest/smb.conf");
    if (c.smb) WriteFile("/etc/kest/smb.conf", c.smb, c.smb_mode);
    if (c.conf == "-") unlink("/etc/kest/shares.conf");
    if (c.conf != "-" && c.conf != "=") WriteSharesConf(c.conf);
    const std::string got = Describe(c.share);
    EXPECT_NE(std::string::npos, got.find(c.expected)) << c.conf << "gave: " << got;
  }
  // The administrator learns of a broken file from the log: once, not at
  // every call that reads it.
  SyslogCapture::Instance().Clear();
  WriteSharesConf("[a]\nread only = yes\n");
  for (int call = 0; call < 2; ++call) Describe("a");
  SyslogCapture::Instance().Settle();
  EXPECT_EQ(1u, SyslogCapture::Instance().Matching(KLIBCErrTextGet()).size()) << KLIBCErrTextGet();
  PKLIBCSZLIST list = KLIBCSzListAlloc(1);
  EXPECT_GT(0, KLIBShareEnum(&list, nullptr));
  KLIBCSzListFree(list);
}

// Shares beside those of kConf: a write list on a read-only share, groups
// that do not exist, a list continued on an indented line.
const char kMoreShares[] =
    "[ro]\npath = /volume1/ro\nread only = yes\nwrite list = ann\n"
    "invalid users = @nosuchgroup\nread list = @nosuchgroup2\n"
    "[Lists]\nPath = /volume1/lists\nREAD   LIST = ann,\n    bob\n"
    "invalid users = dave # not a comment, a name\n";

// Privileges follow the lists in order; names are enumerated in the files'
// order, Samba's after ours, without the shares this product cannot serve;
// a share's own index language, else [global]'s.
TEST_F(SharesTest, PrivilegesEnumerationAndLanguages) {
  WriteSharesConf(kWithSamba + kMoreShares);
  const std::tuple<const char*, const char*, int> cases[] = {
      {"photo", "ann", KEST_SHARE_PRIV_RW},       // no lists: everybody
      {"secret", "dave", KEST_SHARE_PRIV_RO},     // read only, no lists
      {"docs", "ann", KEST_SHARE_PRIV_RW},        // write list through @staff
      {"docs", "bob", KEST_SHARE_PRIV_NA},        // invalid users beats @staff
      {"docs", "carol", KEST_SHARE_PRIV_RW},      // write list by name
      {"docs", "dave", KEST_SHARE_PRIV_RO},       // read list
      {"docs", "KestOndri", KEST_SHARE_PRIV_NA},  // lists name others
      {"docs", "nosuchuser", KEST_SHARE_PRIV_NA},
      {"ro", "ann", KEST_SHARE_PRIV_RW},  // the write list wins on a read-only share
      {"ro", "bob", KEST_SHARE_PRIV_NA},  // unknown groups match nobody
      {"Lists", "bob", KEST_SHARE_PRIV_RO},
      {"Lists", "dave", KEST_SHARE_PRIV_NA},
      // Samba's own rules on its shares.
      {"projects", "ann", KEST_SHARE_PRIV_RW},    // valid through @staff, writeable
      {"projects", "bob", KEST_SHARE_PRIV_RO},    // read list
      {"projects", "carol", KEST_SHARE_PRIV_RW},  // valid by name, on a continued line
      {"projects", "dave", KEST_SHARE_PRIV_NA},   // not a valid user
      {"projects", "root", KEST_SHARE_PRIV_NA},   // invalid users of [global]
      {"media", "carol", KEST_SHARE_PRIV_RW},     // write list
      {"media", "dave", KEST_SHARE_PRIV_RO},      // the lists name others; Samba's read only
  };
  for (const auto& [name, user, priv] : cases) {
    ShareHolder share;
    ASSERT_EQ(0, KESTShareGet(name, &share.share)) << name;
    EXPECT_EQ(priv, KESTShareUserPrivCalc(user, share.share)) << name << " " << user;
  }
  PKLIBCSZLIST list = KLIBCSzListAlloc(1);
  ASSERT_EQ(8, KLIBShareEnum(&list, nullptr)) << KLIBCErrTextGet();
  EXPECT_EQ((std::vector<std::string>{"photo", "docs", "secret", "homes", "ro", "Lists", "projects",
                                      "media"}),
            Items(list));
  KLIBCSzListFree(list);
  char language[16];
  ASSERT_EQ(0, KLIBShareIndexLanguageGet("docs", language, sizeof language));
  EXPECT_STREQ("english", language);
  ASSERT_EQ(0, KLIBShareIndexLanguageGet("photo", language, sizeof language));
  EXPECT_STREQ("german", language);
}

// The share of a volume path, the home service (it needs the switch and the
// homes share), the index name in a small buffer. (Paths in a share: the
// module's share tests; index paths of no share: refused by the reader.)
TEST_F(SharesTest, PathsOfSharesAndHomes) {
  char name[4096], path[4096];
  for (const auto& c : std::vector<std::pair<const char*, std::string>>{
           {"/volume1/photo/trip/a.jpg", "photo /volume1/photo"},
           {"/volume1/photos/a", ""},  // only a prefix of the share's folder
           {"/volume2/photo/a", ""},
           {"/volume1/photo/../docs/a", ""},
           {"/volume1/photo/..", ""},
           {"volume1/photo", ""}}) {
    name[0] = path[0] = 0;
    const int rc = KESTShareNamePathGet(c.first, name, sizeof(name), path, sizeof(path));
    EXPECT_EQ(c.second, std::string(name) + (rc == 0 ? " " : "") + path) << c.first;
    EXPECT_EQ(c.second.empty(), rc < 0) << c.first;
  }
  EXPECT_GT(0, KESTShareNamePathGet("/volume1/photo/a", name, 4, path, sizeof(path)));
  EXPECT_GT(0, FILEIDXGetIndexID("photo", path, 10));

  EXPECT_NE(0, KESTServiceUserHomeIsEnabled(0));
  EXPECT_EQ(0, KESTServiceUserHomeIsEnabled(KEST_USER_FLAG_SYSTEM));
  EXPECT_GT(0, KESTServiceHomePathGet("KestOndri", path, sizeof(path)));  // a system account
  WriteSharesConf("[global]\nuser home = yes\n[photo]\npath = /volume1/photo\n");  // no homes
  EXPECT_EQ(0, KESTServiceUserHomeIsEnabled(0));
  EXPECT_GT(0, KESTServiceHomePathGet("ann", path, sizeof(path)));
  EXPECT_EQ(KLIB_ERR_SERVICE_DISABLED, KLIBCErrGet());
}

// A symbolic link to a mount point is none, a bind mount of a folder of the
// same file system is one (volumes and plain folders: the module's search
// tests); the sandbox's fixed paths are private tmpfs. (Free space, copies:
// no caller but the module's helpers, tested there.)
TEST(FsTest, MountPoints) {
  WriteFile("/volume1/plain/file", "x");
  symlink("/volume2", "/volume1/link-to-volume2");
  mkdir("/volume1/bound", 0755);
  EXPECT_EQ(0, KESTFSDirIsMntPoint("/volume1/link-to-volume2"));
  EXPECT_EQ(0, KESTFSDirIsMntPoint("/volume1/bound"));
  ASSERT_EQ(0, mount("/volume1/plain", "/volume1/bound", nullptr, MS_BIND, nullptr));
  EXPECT_GT(KESTFSDirIsMntPoint("/volume1/bound"), 0);
  umount("/volume1/bound");
  for (const char* path : {"/run", "/var/run", "/tmp", "/var/packages", "/volume1", "/etc/kest"}) {
    struct statfs fs;
    ASSERT_EQ(0, statfs(path, &fs)) << path;
    EXPECT_EQ(0x01021994, static_cast<long>(fs.f_type)) << path << " is not tmpfs";
  }
}

}  // namespace
}  // namespace kesttest
