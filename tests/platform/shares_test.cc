// Shared folders on the real platform: /etc/kest/shares.conf, share
// records, privileges, share paths, the home service, index paths, free
// space, mount points and file copies.
#include <dirent.h>
#include <sys/mount.h>

#include <cstring>

#include "platform/platform_test.h"
#include "support/syslog_capture.h"

namespace kesttest {
namespace {

const char kConf[] =
    "; shares of the test host\n"
    "[global]\n"
    "admin group = administrators\n"
    "user home = yes\n"
    "index language = german\n"
    "\n"
    "[photo]\n"
    "path = /volume1/photo/\n"
    "hide unreadable = yes\n"
    "ftp disable list = yes\n"
    "ftp disable download = yes\n"
    "\n"
    "[docs]\n"
    "path = /volume1/docs\n"
    "read list = dave\n"
    "write list = @staff, carol\n"
    "invalid users = bob\n"
    "recycle bin = yes\n"
    "Index Language = English\n"
    "\n"
    "[secret]\n"
    "path = /volume2/secret\n"
    "encrypted = yes\n"
    "read only = yes\n"
    "\n"
    "[homes]\n"
    "path = /volume1/homes\n";

class SharesTest : public ::testing::Test {
 protected:
  void SetUp() override { WriteSharesConf(kConf); }
};

struct ShareHolder {
  PKESTSHARE share = nullptr;
  ~ShareHolder() { KESTShareFree(share); }
};

TEST_F(SharesTest, RecordsAndTheirEnumeration) {
  ShareHolder photo;
  ASSERT_EQ(0, KESTShareGet("photo", &photo.share));
  EXPECT_STREQ("photo", photo.share->szName);
  EXPECT_STREQ("/volume1/photo", photo.share->szPath);  // trailing slash dropped
  EXPECT_EQ(unsigned(KEST_FTP_PRIV_DISABLE_LIST | KEST_FTP_PRIV_DISABLE_DOWNLOAD),
            photo.share->fFTPPrivilege);
  // The flag getters, both ways, are read through SDKShare in the module's
  // tests.
  int value = -1;
  EXPECT_GT(0, KLIBShareIsReadOnlyGet(nullptr, &value));
  ShareHolder missing;
  EXPECT_GT(0, KESTShareGet("nosuch", &missing.share));
  EXPECT_EQ(KLIB_ERR_SHARE_NOT_FOUND, KLIBCErrGet());
  EXPECT_EQ(nullptr, missing.share);
  // A share's own index language, else [global]'s.
  char language[16];
  ASSERT_EQ(0, KLIBShareIndexLanguageGet("docs", language, sizeof language));
  EXPECT_STREQ("english", language);
  ASSERT_EQ(0, KLIBShareIndexLanguageGet("photo", language, sizeof language));
  EXPECT_STREQ("german", language);

  // Names are appended in the file's order; a filter leaves out what it
  // answers non-zero for.
  PKLIBCSZLIST list = KLIBCSzListAlloc(1);
  KLIBSHAREENUM all{[](const KESTSHARE*) { return 0; }, 0};
  KLIBSHAREENUM plain{[](const KESTSHARE* s) { return s->blEncrypted; }, 0};
  ASSERT_EQ(4, KLIBShareEnum(&list, &all));
  ASSERT_EQ(3, KLIBShareEnum(&list, &plain));
  EXPECT_EQ(
      (std::vector<std::string>{"photo", "docs", "secret", "homes", "photo", "docs", "homes"}),
      Items(list));
  KLIBCSzListFree(list);
}

// Shares beside those of kConf: a write list on a read-only share, groups
// that do not exist, a list continued on an indented line, keys in any case.
const char kMoreShares[] =
    "[ro]\npath = /volume1/ro\nread only = yes\nwrite list = ann\n"
    "invalid users = @nosuchgroup\nread list = @nosuchgroup2\n"
    "[Lists]\n"
    "Path = /volume1/lists\n"
    "READ   LIST = ann,\n"
    "    bob\n"
    "invalid users = dave # not a comment, a name\n";

TEST_F(SharesTest, PrivilegeFollowsTheListsInOrder) {
  WriteSharesConf(std::string(kConf) + kMoreShares);
  struct Case {
    const char* share;
    const char* user;
    int priv;
  } cases[] = {
      {"photo", "ann", KEST_SHARE_PRIV_RW},       // no lists: everybody
      {"photo", "root", KEST_SHARE_PRIV_RW},      //
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
  };
  for (const auto& c : cases) {
    ShareHolder share;
    ASSERT_EQ(0, KESTShareGet(c.share, &share.share)) << c.share;
    EXPECT_EQ(c.priv, KESTShareUserPrivCalc(c.user, share.share)) << c.share << " " << c.user;
  }
  ShareHolder lists;
  ASSERT_EQ(0, KESTShareGet("Lists", &lists.share));
  EXPECT_EQ((std::vector<std::string>{"ann", "bob"}), Items(lists.share->pReadList));
}

TEST_F(SharesTest, NamePathOfAVolumePath) {
  struct Case {
    const char* path;
    int rc;
    const char* name;
    const char* share_path;
  } cases[] = {
      {"/volume1/photo", 0, "photo", "/volume1/photo"},
      {"/volume1/photo/trip/a.jpg", 0, "photo", "/volume1/photo"},
      {"/volume1/homes/ann/x", 0, "homes", "/volume1/homes"},
      {"/volume2/secret/a", 0, "secret", "/volume2/secret"},
      {"/volume1/photos/a", -1, "", ""},  // only a prefix of the share's folder
      {"/volume1", -1, "", ""},
      {"/volume2/photo/a", -1, "", ""},
      {"/volume1/photo/../docs/a", -1, "", ""},
      {"/volume1/photo/..", -1, "", ""},
      {"volume1/photo", -1, "", ""},
      {"", -1, "", ""},
  };
  for (const auto& c : cases) {
    char name[4096] = {0};
    char path[4096] = {0};
    const int rc = KESTShareNamePathGet(c.path, name, sizeof(name), path, sizeof(path));
    EXPECT_EQ(c.rc, rc < 0 ? -1 : rc) << c.path;
    EXPECT_STREQ(c.name, name) << c.path;
    EXPECT_STREQ(c.share_path, path) << c.path;
  }
  char small[4];
  char path[4096];
  EXPECT_GT(0, KESTShareNamePathGet("/volume1/photo/a", small, sizeof(small), path, sizeof(path)));
}

TEST_F(SharesTest, HomeServiceNeedsTheSwitchAndTheHomesShare) {
  char path[4096] = {0};
  EXPECT_NE(0, KESTServiceUserHomeIsEnabled(0));
  EXPECT_EQ(0, KESTServiceUserHomeIsEnabled(KEST_USER_FLAG_SYSTEM));
  ASSERT_EQ(0, KESTServiceHomePathGet("ann", path, sizeof(path)));
  EXPECT_STREQ("/volume1/homes/ann", path);
  EXPECT_GT(0, KESTServiceHomePathGet("KestOndri", path, sizeof(path)));  // a system account
  EXPECT_GT(0, KESTServiceHomePathGet("nosuchuser", path, sizeof(path)));
  EXPECT_EQ(KLIB_ERR_USER_NOT_FOUND, KLIBCErrGet());

  for (const char* conf : {"[global]\nuser home = no\n[homes]\npath = /volume1/homes\n",
                           "[global]\nuser home = yes\n[photo]\npath = /volume1/photo\n"}) {
    WriteSharesConf(conf);
    EXPECT_EQ(0, KESTServiceUserHomeIsEnabled(0)) << conf;
    EXPECT_GT(0, KESTServiceHomePathGet("ann", path, sizeof(path))) << conf;
    EXPECT_EQ(KLIB_ERR_SERVICE_DISABLED, KLIBCErrGet());
  }
}

TEST_F(SharesTest, IndexPathsLiveOnTheVolumeBesideTheShare) {
  char out[4096];
  ASSERT_EQ(0, FILEIDXQueuePathCompose("/volume1/photo", out, sizeof(out)));
  EXPECT_STREQ("/volume1/@kestondri/queue/photo.queue", out);
  ASSERT_EQ(0, FILEIDXDBPathCompose("/volume2/secret", out, sizeof(out)));
  EXPECT_STREQ("/volume2/@kestondri/index/secret", out);
  ASSERT_EQ(0, FILEIDXGetIndexID("photo", out, sizeof(out)));
  EXPECT_STREQ("fileindex_photo", out);
  for (const char* bad :
       {"", "/", "/volume1", "/volume1/", "/volume1/photo/sub", "photo", "/volume1/.."}) {
    EXPECT_GT(0, FILEIDXQueuePathCompose(bad, out, sizeof(out))) << bad;
    EXPECT_GT(0, FILEIDXDBPathCompose(bad, out, sizeof(out))) << bad;
  }
  EXPECT_GT(0, FILEIDXGetIndexID("", out, sizeof(out)));
  char small[10];
  EXPECT_GT(0, FILEIDXGetIndexID("photo", small, sizeof(small)));
}

TEST_F(SharesTest, MissingFileIsAClearError) {
  unlink("/etc/kest/shares.conf");
  ShareHolder share;
  EXPECT_GT(0, KESTShareGet("photo", &share.share));
  EXPECT_EQ(KLIB_ERR_CONFIG, KLIBCErrGet());
  EXPECT_NE(nullptr, strstr(KLIBCErrTextGet(), "/etc/kest/shares.conf"));
  PKLIBCSZLIST list = KLIBCSzListAlloc(1);
  EXPECT_GT(0, KLIBShareEnum(&list, nullptr));
  KLIBCSzListFree(list);
}

TEST_F(SharesTest, MalformedFileNamesTheLine) {
  const std::string long_line = "read list = " + std::string(250, 'a') + "\n";
  struct Case {
    std::string text;
    const char* expected;
  } cases[] = {
      {"[photo]\npath = /volume1/photo\ninvalid user = bob\n", ":3: unknown key \"invalid user\""},
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
      {"[a]\npath = /volume1/a\n  read only = yes\n", ":3: \"path\" given twice"},
      {"[a]\nread only = yes\n", "share [a] has no path"},
      {"[a]\npath = /volume1/a\nread only = perhaps\n", ":3: \"read only\" must be yes or no"},
      {"[a]\npath = /volume1/a\nindex language = pt-BR\n", ":3: \"index language\" must be a word"},
      {"[a]\npath = /volume1/a\n" + long_line, ":3: line longer than"},
      {"path = /volume1/a\n", ":1: empty section name"},
      {"[a/b]\npath = /volume1/a\n", ":2: share name \"a/b\""},
      {"[a]\npath = /volume1/a\nread list = @\n", ":3: \"@\" without a group name"},
  };
  for (const auto& c : cases) {
    WriteSharesConf(c.text);
    ShareHolder share;
    EXPECT_GT(0, KESTShareGet("a", &share.share)) << c.text;
    EXPECT_EQ(KLIB_ERR_CONFIG, KLIBCErrGet()) << c.text;
    const std::string text = KLIBCErrTextGet();
    EXPECT_EQ(0u, text.find("/etc/kest/shares.conf")) << text;
    EXPECT_NE(std::string::npos, text.find(c.expected)) << "got: " << text;
  }
  // The administrator learns of a broken file from the log: once, not at
  // every call that reads it.
  SyslogCapture::Instance().Clear();
  WriteSharesConf("[a]\nread only = yes\n");
  for (int call = 0; call < 2; ++call) {
    ShareHolder share;
    EXPECT_GT(0, KESTShareGet("a", &share.share));
  }
  SyslogCapture::Instance().Settle();
  EXPECT_EQ(1u, SyslogCapture::Instance().Matching(KLIBCErrTextGet()).size()) << KLIBCErrTextGet();
}

// An smb.conf as Samba's own tools write it: indented keys, continued lines,
// defaults in [global], and shares this product cannot serve.
const char kSmbConf[] =
    "[global]\n"
    "   workgroup = WORKGROUP\n"
    "   log file = /var/log/samba/log.%m\n"
    "   invalid users = root\n"
    "[printers]\n"
    "   path = /var/spool/samba\n"
    "   printable = yes\n"
    "[homes]\n"
    "   valid users = %S\n"
    "[projects]\n"
    "   path = /volume1/projects\n"
    "   writeable = yes\n"
    "   valid users = @staff, \\\n"
    "                 carol\n"
    "   read list = bob\n"
    "   vfs objects = recycle\n"
    "[media]\n"
    "   path = /volume2/media/\n"
    "   write list = carol\n"
    "[scratch]\n"
    "   path = /srv/scratch\n"
    "[net]\n"
    "   path = /volume1/net\n"
    "   valid users = &engineers\n"
    "[off]\n"
    "   path = /volume1/off\n"
    "   available = no\n"
    "[DOCS]\n"
    "   path = /volume1/docs2\n";

TEST_F(SharesTest, SambaSharesAreServedWithSambasRules) {
  WriteFile("/etc/kest/smb.conf", kSmbConf);
  WriteSharesConf(std::string(kConf).replace(strlen("; shares of the test host\n[global]\n"), 0,
                                             "samba config = /etc/kest/smb.conf\n"));
  PKLIBCSZLIST list = KLIBCSzListAlloc(1);
  ASSERT_EQ(6, KLIBShareEnum(&list, nullptr)) << KLIBCErrTextGet();
  EXPECT_STREQ("projects", KLIBCSzListGet(list, 4));
  EXPECT_STREQ("media", KLIBCSzListGet(list, 5));
  KLIBCSzListFree(list);

  struct Case {
    const char* share;
    const char* user;
    int priv;
  } cases[] = {
      {"projects", "ann", KEST_SHARE_PRIV_RW},    // valid through @staff, writeable
      {"projects", "bob", KEST_SHARE_PRIV_RO},    // read list
      {"projects", "carol", KEST_SHARE_PRIV_RW},  // valid by name, on a continued line
      {"projects", "dave", KEST_SHARE_PRIV_NA},   // not a valid user
      {"projects", "root", KEST_SHARE_PRIV_NA},   // invalid users of [global]
      {"media", "carol", KEST_SHARE_PRIV_RW},     // write list
      {"media", "dave", KEST_SHARE_PRIV_RO},      // the lists name others; Samba's read only
      {"docs", "dave", KEST_SHARE_PRIV_RO},       // the own file's rules are unchanged
      {"docs", "KestOndri", KEST_SHARE_PRIV_NA},  //
  };
  for (const auto& c : cases) {
    ShareHolder share;
    ASSERT_EQ(0, KESTShareGet(c.share, &share.share)) << c.share;
    EXPECT_EQ(c.priv, KESTShareUserPrivCalc(c.user, share.share)) << c.share << " " << c.user;
  }
  ShareHolder media;
  ASSERT_EQ(0, KESTShareGet("media", &media.share));
  EXPECT_STREQ("/volume2/media", media.share->szPath);
  EXPECT_EQ(0, media.share->blReadOnly);  // read-only for Samba's clients, yet indexed

  // An edit of smb.conf alone counts at the next call.
  WriteFile("/etc/kest/smb.conf", "[media]\npath = /volume2/media\n");
  ShareHolder gone;
  EXPECT_GT(0, KESTShareGet("projects", &gone.share));
  EXPECT_EQ(KLIB_ERR_SHARE_NOT_FOUND, KLIBCErrGet());
}

TEST_F(SharesTest, UnusableSambaConfigurationIsAClearError) {
  struct Case {
    const char* conf;
    mode_t mode;  // of /etc/kest/smb.conf, 0 for none
    const char* expected;
  } cases[] = {
      {"[global]\nsamba config = /etc/kest/smb.conf\n", 0, "smb.conf: No such file"},
      {"[global]\nsamba config = /etc/kest/smb.conf\n", 0664, "writable by root only"},
      {"[global]\nsamba config = smb.conf\n", 0, "must be an absolute path"},
  };
  for (const auto& c : cases) {
    unlink("/etc/kest/smb.conf");
    if (c.mode) WriteFile("/etc/kest/smb.conf", kSmbConf, c.mode);
    WriteSharesConf(c.conf);
    ShareHolder share;
    EXPECT_GT(0, KESTShareGet("projects", &share.share)) << c.expected;
    EXPECT_EQ(KLIB_ERR_CONFIG, KLIBCErrGet());
    EXPECT_NE(nullptr, strstr(KLIBCErrTextGet(), c.expected)) << KLIBCErrTextGet();
  }
}

TEST(QuotaTest, EnoughOrNoSpace) {
  EXPECT_NE(0, KESTQuotaIsEnough(0, "/volume1", 104857600));
  EXPECT_EQ(0, KESTQuotaIsEnough(0, "/volume1", UINT64_MAX));
  EXPECT_EQ(KLIB_ERR_NO_SPACE, KLIBCErrGet());
  EXPECT_EQ(0, KESTQuotaIsEnough(0, "/volume9/none", 1));
  EXPECT_EQ(KLIB_ERR_SYSTEM, KLIBCErrGet());
}

TEST(MountPointTest, VolumesAreMountPointsTheirFoldersAreNot) {
  WriteFile("/volume1/plain/file", "x");
  symlink("/volume2", "/volume1/link-to-volume2");
  mkdir("/volume1/bound", 0755);
  for (const char* path :
       {"/volume1/plain", "/volume1/plain/file", "/volume1/link-to-volume2", "/volume1/bound"}) {
    EXPECT_EQ(0, KESTFSDirIsMntPoint(path)) << path;
  }
  EXPECT_GT(KESTFSDirIsMntPoint("/volume1"), 0);
  EXPECT_GT(KESTFSDirIsMntPoint("/volume2"), 0);
  EXPECT_GT(0, KESTFSDirIsMntPoint("/volume1/none"));
  // A bind mount of a folder of the same file system is a mount point too.
  ASSERT_EQ(0, mount("/volume1/plain", "/volume1/bound", nullptr, MS_BIND, nullptr));
  EXPECT_GT(KESTFSDirIsMntPoint("/volume1/bound"), 0);
  umount("/volume1/bound");
}

TEST(FileCopyTest, CopyMoveAndOverwrite) {
  WriteFile("/volume1/copy/src", "hello", 0640);
  KESTCOPYARGS copy{};
  ASSERT_EQ(0, KESTFileCopy("/volume1/copy/src", "/volume1/copy/dst", &copy));
  EXPECT_EQ("hello", ReadFile("/volume1/copy/dst"));
  struct stat st;
  ASSERT_EQ(0, stat("/volume1/copy/dst", &st));
  EXPECT_EQ(0640u, st.st_mode & 07777);
  // Without the overwrite flag an existing destination stays as it was.
  WriteFile("/volume1/copy/src", "second");
  EXPECT_NE(0, KESTFileCopy("/volume1/copy/src", "/volume1/copy/dst", &copy));
  EXPECT_EQ("hello", ReadFile("/volume1/copy/dst"));
  copy.blOverwrite = 1;
  ASSERT_EQ(0, KESTFileCopy("/volume1/copy/src", "/volume1/copy/dst", &copy));
  EXPECT_EQ("second", ReadFile("/volume1/copy/dst"));

  // A move across volumes copies and removes the source.
  KESTCOPYARGS move{};
  move.blOverwrite = 1;
  move.blRemoveSrc = 1;
  mkdir("/volume2/copy", 0755);
  ASSERT_EQ(0, KESTFileCopy("/volume1/copy/src", "/volume2/copy/moved", &move));
  EXPECT_EQ("second", ReadFile("/volume2/copy/moved"));
  EXPECT_NE(0, access("/volume1/copy/src", F_OK));
  ASSERT_EQ(0, KESTFileCopy("/volume2/copy/moved", "/volume2/copy/again", &move));
  EXPECT_NE(0, access("/volume2/copy/moved", F_OK));

  EXPECT_NE(0, KESTFileCopy("/volume1/copy/none", "/volume1/copy/x", &copy));
  EXPECT_NE(0, KESTFileCopy("/volume1/copy", "/volume1/copy2", &copy));  // a directory
  // No temporary is left behind by the failures.
  for (const char* dir : {"/volume1/copy", "/volume2/copy"}) {
    DIR* d = opendir(dir);
    ASSERT_NE(nullptr, d);
    while (dirent* e = readdir(d)) EXPECT_NE(0, strncmp(e->d_name, ".kestcopy", 9)) << dir;
    closedir(d);
  }
}

}  // namespace
}  // namespace kesttest
