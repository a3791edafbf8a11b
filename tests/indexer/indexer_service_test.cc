// kest-indexer as it runs: the real service process over real folders, the
// real folder store and queue files, a real Xapian index, and kestelasticd
// answering searches over its socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon_harness.h"
#include "index_schema.h"
#include "indexer/fixtures.h"
#include "kest/klib.h"
#include "kestondri/fileindex.h"
#include "service/folder_table.h"
#include "support/indexer_process.h"
#include "support/sandbox.h"

namespace kestondri {
namespace indexer {
namespace {

using kesttest::IndexerProcess;
using kesttest::WriteFile;

constexpr char kFolder[] = "/volume1/docs/team";
constexpr char kDb[] = "/volume1/@kestondri/index/docs";
constexpr char kQueue[] = "/volume1/@kestondri/queue/docs.queue";
constexpr char kPidFile[] = "/var/packages/KestOndri/etc/updater.term.sugg.pid";

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Polls `done` for up to 30 s; the bound is a safety net, not a target.
bool WaitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return done();
}

// Paths of the index's documents, with their stored text.
std::map<std::string, std::string> Indexed() {
  std::map<std::string, std::string> out;
  try {
    Xapian::Database db(kDb);
    for (auto t = db.allterms_begin("Q"); t != db.allterms_end("Q"); ++t) {
      for (auto p = db.postlist_begin(*t); p != db.postlist_end(*t); ++p) {
        const Xapian::Document doc = db.get_document(*p);
        out[index::SlotText(doc, index::kSlotPath)] = doc.get_data();
      }
    }
  } catch (const Xapian::Error&) {
  }
  return out;
}

bool IsIndexed(const std::string& path) { return Indexed().count(path) > 0; }

std::string TextOf(const std::string& path) {
  auto all = Indexed();
  auto it = all.find(path);
  return it == all.end() ? "" : it->second;
}

std::vector<std::string> Search(const std::string& user, const std::string& keyword) {
  Json::Value request = kesttest::SearchRequest({"fileindex_docs"}, keyword);
  return kesttest::HitNames(kesttest::Exchange(request, user));
}

// When the document of `path` was written (kSlotWritten); 0 when none.
double WrittenOf(const std::string& path) {
  Xapian::Database db(kDb);
  auto p = db.postlist_begin(index::UniqueTerm(path));
  if (p == db.postlist_end(index::UniqueTerm(path))) return 0;
  return Xapian::sortable_unserialise(db.get_document(*p).get_value(index::kSlotWritten));
}

// Adds folders as `user` would through the web API: in a process whose
// effective identity is the user's.
bool AddAs(const std::string& user, const Json::Value& folders) {
  const pid_t child = fork();
  if (child == 0) {
    try {
      if (!ResetCredentialsByName(user, true)) _exit(2);
      fileindex::FolderAdd(folders, false);
    } catch (...) {
      _exit(1);
    }
    _exit(0);
  }
  int status = 0;
  return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
         WEXITSTATUS(status) == 0;
}

using kesttest::ParseJson;

class IndexerServiceTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("rm -rf /volume1/* /var/packages/KestOndri"));
    WriteFile("/etc/kest/shares.conf",
              "[global]\nadmin group = administrators\n[docs]\npath = /volume1/docs\n");
    ASSERT_EQ(0, system("mkdir -p /volume1/docs/team/sub && chmod -R 0777 /volume1/docs"));
    WriteFile("/volume1/docs/team/notes.txt", "alpha bravo charlie\n");
    WriteFile("/volume1/docs/team/sub/deep.md", "# Heading\nquasar nebula\n");
    WriteFile("/volume1/docs/team/page.html",
              "<html><head><title>T</title></head><body><p>hypertext lemur</p></body></html>");
    WriteFile("/volume1/docs/team/report.pdf", kesttest::MakePdf({"portable narwhal"}));
    kesttest::WriteZip("/volume1/docs/team/memo.docx", kesttest::DocxMembers({"office walrus"}));
    kesttest::WriteZip("/volume1/docs/team/sheet.ods",
                       kesttest::OdfMembers("spreadsheet", {"calc pangolin"}));
    WriteFile("/volume1/docs/team/holiday.jpg", std::string("\xff\xd8\xff\xe0", 4));
    WriteFile("/volume1/docs/team/broken.pdf", "%PDF-1.4 not really a pdf");
    ASSERT_TRUE(daemon_.Start());
  }
  void TearDown() override {
    indexer_.Stop();
    daemon_.Stop();
  }

  void AddFolder(const std::string& extra = "") {
    fileindex::FolderAdd(ParseJson(std::string(R"([{"path": ")") + kFolder + "\"" + extra + "}]"),
                         false);
  }
  void StartAndWaitForCrawl() {
    indexer_.Start();
    ASSERT_TRUE(WaitFor([] { return IsIndexed("/volume1/docs/team/sub/deep.md"); }));
    ASSERT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  }

  kesttest::DaemonProcess daemon_;
  IndexerProcess indexer_{{"--check-interval=3600"}};
};

// One folder followed from its first walk: every type by its text, the type
// flags, then each kind of change in turn, within seconds.
TEST_F(IndexerServiceTest, FollowsAFolderAndEveryChange) {
  // Words of two files or more are suggested.
  WriteFile("/volume1/docs/team/zoo1.txt", "gazelle\n");
  WriteFile("/volume1/docs/team/zoo2.txt", "gazelle\n");
  AddFolder(R"(, "photo": false)");
  StartAndWaitForCrawl();
  auto all = Indexed();
  EXPECT_EQ(0u, all.count("/volume1/docs/team/holiday.jpg")) << "photos are not wanted";
  EXPECT_EQ(1u, all.count("/volume1/docs/team")) << "the folder itself";
  EXPECT_EQ(1u, all.count("/volume1/docs/team/sub"));
  const struct {
    const char* word;
    const char* file;
  } contents[] = {
      {"bravo", "notes.txt"},    {"nebula", "deep.md"},   {"lemur", "page.html"},
      {"narwhal", "report.pdf"}, {"walrus", "memo.docx"}, {"pangolin", "sheet.ods"},
      {"broken", "broken.pdf"},  // the extractor failed: found by its name
  };
  for (const auto& c : contents) {
    EXPECT_EQ(std::vector<std::string>{c.file}, Search("root", c.word)) << c.word;
  }
  EXPECT_TRUE(WaitFor([] {
    if (Exists(kPidFile)) return false;
    try {
      Xapian::Database db(kDb);
      return db.get_spelling_suggestion("gazele") == "gazelle" &&
             db.get_spelling_suggestion("narwhol").empty();
    } catch (const Xapian::Error&) {
      return false;
    }
  }));

  // Photos wanted again: the change of types queues the folder.
  fileindex::FolderSet(ParseJson(std::string(R"([{"path": ")") + kFolder + R"(", "photo": true}])"),
                       false);
  EXPECT_TRUE(WaitFor([] { return IsIndexed("/volume1/docs/team/holiday.jpg"); }));
  const std::string dir = kFolder;

  WriteFile(dir + "/fresh.txt", "zeppelin\n");
  EXPECT_TRUE(WaitFor([] { return Search("root", "zeppelin").size() == 1; }));

  WriteFile(dir + "/notes.txt", "delta echo\n");
  EXPECT_TRUE(WaitFor([] { return Search("root", "echo").size() == 1; }));
  EXPECT_TRUE(Search("root", "bravo").empty());
  EXPECT_NE(std::string::npos, TextOf(dir + "/notes.txt").find("delta echo"));

  ASSERT_EQ(0, rename((dir + "/fresh.txt").c_str(), (dir + "/sub/moved.txt").c_str()));
  EXPECT_TRUE(
      WaitFor([&] { return IsIndexed(dir + "/sub/moved.txt") && !IsIndexed(dir + "/fresh.txt"); }));

  ASSERT_EQ(0, unlink((dir + "/page.html").c_str()));
  EXPECT_TRUE(WaitFor([&] { return !IsIndexed(dir + "/page.html"); }));

  // A tree moved in from outside the folder, and a tree removed.
  ASSERT_EQ(0, system("mkdir -p /volume1/docs/outside/a/b && echo kestrel > "
                      "/volume1/docs/outside/a/b/bird.txt"));
  ASSERT_EQ(0, rename("/volume1/docs/outside/a", (dir + "/a").c_str()));
  EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/a/b/bird.txt"); }));
  WriteFile(dir + "/a/b/second.txt", "inside a moved tree\n");
  EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/a/b/second.txt"); }));
  ASSERT_EQ(0, system("rm -rf /volume1/docs/team/a /volume1/docs/team/sub"));
  EXPECT_TRUE(WaitFor([&] {
    auto all = Indexed();
    for (const auto& p : all) {
      if (p.first.find("/a/") != std::string::npos || p.first.find("/sub") != std::string::npos) {
        return false;
      }
    }
    return true;
  }));

  // An owner change is an attribute change.
  ASSERT_EQ(0, chown((dir + "/notes.txt").c_str(), kesttest::kAnnUid, kesttest::kAnnUid));
  EXPECT_TRUE(WaitFor([&] {
    Xapian::Database db(kDb);
    return db.term_exists(index::ExactTerm(index::kPrefixOwner, "2001"));
  }));

  // File names are the users' to choose: each travels through the queue as
  // its own bytes, is indexed under them, and queues nothing else. The folder
  // chain below once wrote "reindex<TAB>/volume1/docs" into the queue as a line
  // of its own, and every file of the share was extracted again.
  const double notes_written = WrittenOf(dir + "/notes.txt");
  ASSERT_GT(notes_written, 0);
  std::vector<std::string> paths;
  std::string chain = dir + "/x\nreindex\t";
  for (const char* level : {"", "/volume1", "/docs", "/team"}) {
    chain += level;
    ASSERT_EQ(0, mkdir(chain.c_str(), 0755));
    paths.push_back(chain);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));  // watched before the next
  }
  for (const std::string& name :
       {std::string("new\nline.txt"), std::string("tab\there.txt"), std::string("ctl\x01\x1b\x7f"),
        std::string("bad\xff\xfeutf8.txt"), std::string("back\\slash\\x0a\\\\.txt"),
        std::string("pct%0a.txt"), std::string(251, 'n') + ".txt"}) {
    paths.push_back(dir + "/" + name);
    WriteFile(paths.back(), "hostile\n");
  }
  for (const auto& path : paths) {
    EXPECT_TRUE(WaitFor([&] { return IsIndexed(path); })) << path;
  }
  ASSERT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  EXPECT_EQ(notes_written, WrittenOf(dir + "/notes.txt")) << "nothing was extracted again";
  for (const auto& doc : Indexed()) EXPECT_TRUE(PathWithin(doc.first, dir)) << doc.first;
}

// Pauses of everything and of one folder, a restart, a reindex and a
// damaged index, in turn on one folder, which at last leaves.
TEST_F(IndexerServiceTest, PausesRestartsReindexesAndRepairs) {
  AddFolder();
  StartAndWaitForCrawl();
  fileindex::StatusMgr().Pause(0);
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the indexer rereads the state
  WriteFile("/volume1/docs/team/later.txt", "postponed\n");
  ASSERT_TRUE(WaitFor([] { return Exists(kQueue); })) << "the change waits in the queue";
  // Give a running indexer every chance to (wrongly) index it.
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_FALSE(IsIndexed("/volume1/docs/team/later.txt"));
  EXPECT_TRUE(Exists(kQueue));
  fileindex::StatusMgr().Resume();
  EXPECT_TRUE(WaitFor([] { return IsIndexed("/volume1/docs/team/later.txt"); }));
  EXPECT_TRUE(WaitFor([] { return !Exists(kQueue); }));

  const std::string path = std::string(R"([{"path": ")") + kFolder;
  fileindex::FolderSet(ParseJson(path + R"(", "paused": true}])"), false);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the indexer rereads the store
  WriteFile("/volume1/docs/team/held.txt", "held back\n");
  ASSERT_EQ(0, unlink("/volume1/docs/team/notes.txt"));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_FALSE(IsIndexed("/volume1/docs/team/held.txt"));
  EXPECT_TRUE(IsIndexed("/volume1/docs/team/notes.txt")) << "a paused folder's index stays";
  EXPECT_TRUE(Exists(kQueue));
  fileindex::FolderSet(ParseJson(path + R"(", "paused": false}])"), false);
  EXPECT_TRUE(WaitFor([] {
    return IsIndexed("/volume1/docs/team/held.txt") && !IsIndexed("/volume1/docs/team/notes.txt");
  }));

  // A restart catches up with what changed meanwhile.
  EXPECT_EQ(0, indexer_.Stop());
  WriteFile("/volume1/docs/team/while-down.txt", "offline\n");
  ASSERT_EQ(0, unlink("/volume1/docs/team/later.txt"));
  indexer_.Start();
  EXPECT_TRUE(WaitFor([] {
    return IsIndexed("/volume1/docs/team/while-down.txt") &&
           !IsIndexed("/volume1/docs/team/later.txt");
  }));

  // A reindex extracts every file again, and waits for a pause to end. An
  // entry lost, and one whose text went wrong while its file's size and time
  // stayed as they were: only a new extraction mends it.
  EXPECT_EQ(0, indexer_.Stop());
  {
    Xapian::WritableDatabase db(kDb, Xapian::DB_OPEN);
    db.delete_document(index::UniqueTerm("/volume1/docs/team/held.txt"));
    const std::string unique = index::UniqueTerm("/volume1/docs/team/sub/deep.md");
    Xapian::Document doc = db.get_document(*db.postlist_begin(unique));
    doc.set_data("garbled");
    db.replace_document(unique, doc);
    db.commit();
  }
  fileindex::StatusMgr().Pause(0);
  fileindex::FolderReindex(ParseJson(std::string(R"([")") + kFolder + "\"]"));
  ASSERT_TRUE(Exists(kQueue));
  indexer_.Start();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_TRUE(Exists(kQueue)) << "the reindex waits for the pause to end";
  // Meanwhile searches answer from the entries as they were.
  EXPECT_EQ(std::vector<std::string>{"deep.md"}, Search("root", "nebula"));
  EXPECT_EQ("garbled", TextOf("/volume1/docs/team/sub/deep.md"));
  fileindex::StatusMgr().Resume();
  EXPECT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  EXPECT_TRUE(IsIndexed("/volume1/docs/team/held.txt"));
  EXPECT_NE(std::string::npos, TextOf("/volume1/docs/team/sub/deep.md").find("quasar nebula"));
  EXPECT_EQ(std::vector<std::string>{"deep.md"}, Search("root", "nebula"));

  // A damaged index is built again.
  EXPECT_EQ(0, indexer_.Stop());
  ASSERT_EQ(0, system("for f in /volume1/@kestondri/index/docs/*.glass; do "
                      "head -c 8192 /dev/urandom > \"$f\"; done"));
  indexer_.Start();
  EXPECT_TRUE(WaitFor([] {
    return !Exists(std::string(kDb) + ".checking") && !Exists(kQueue) &&
           IsIndexed("/volume1/docs/team/sub/deep.md") && IsIndexed("/volume1/docs/team/held.txt");
  }));
  EXPECT_EQ(std::vector<std::string>{"report.pdf"}, Search("root", "narwhal"));
  EXPECT_FALSE(Exists(std::string(kDb) + ".damaged"));

  fileindex::FolderDelete(ParseJson(std::string(R"([")") + kFolder + "\"]"));
  EXPECT_TRUE(WaitFor([] { return Indexed().empty(); }));
}

// A file created between the first walk of a folder and its watch was never
// seen. Here the watcher is held up (blocked on a queue lock of another
// volume) while a folder is added: its walk must wait for its watch.
TEST_F(IndexerServiceTest, AFolderIsWatchedBeforeItIsWalked) {
  kesttest::WriteSharesConf(
      "[global]\nadmin group = administrators\n[docs]\npath = /volume1/docs\n"
      "[media]\npath = /volume2/media\n");
  ASSERT_EQ(0, system("rm -rf /volume2/* /volume2/@kestondri && mkdir -p /volume2/media/m "
                      "/volume1/docs/late && echo first > /volume1/docs/late/first.txt"));
  AddFolder();
  fileindex::FolderAdd(ParseJson(R"([{"path": "/volume2/media/m"}])"), false);
  StartAndWaitForCrawl();
  ASSERT_TRUE(WaitFor([] { return !Exists("/volume2/@kestondri/queue/media.queue"); }));

  const int lock = open("/volume2/@kestondri/queue", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  WriteFile("/volume2/media/m/poke.txt", "poke\n");
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the watcher now waits for the lock
  fileindex::FolderAdd(ParseJson(R"([{"path": "/volume1/docs/late"}])"), false);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // its walk could end meanwhile
  WriteFile("/volume1/docs/late/second.txt", "second\n");
  close(lock);
  EXPECT_TRUE(WaitFor([] {
    return IsIndexed("/volume1/docs/late/first.txt") && IsIndexed("/volume1/docs/late/second.txt");
  }));
}

// Folders of different users nest. A user's folder inside an administrator's
// may switch every type off or be paused: the administrator's documents stay
// indexed, and new ones are indexed, for everybody.
TEST_F(IndexerServiceTest, NoUsersFolderTakesDocumentsOutOfAnothers) {
  const struct {
    const char* dir;
    const char* settings;
  } nested[] = {
      {"off", R"("video": false, "audio": false, "photo": false, "document": false)"},
      {"paused", R"("paused": true)"},
      {"paused-off", R"("paused": true, "document": false, "photo": false)"},
  };
  for (const auto& n : nested) {
    WriteFile(std::string(kFolder) + "/" + n.dir + "/old.txt", "old\n");
    WriteFile(std::string(kFolder) + "/" + n.dir + "/pic.jpg", "\xff\xd8\xff\xe0");
  }
  ASSERT_EQ(0, system("chmod -R 0777 /volume1/docs"));
  AddFolder();
  StartAndWaitForCrawl();
  for (const auto& n : nested) {
    ASSERT_TRUE(AddAs("ann", ParseJson(std::string(R"([{"path": ")") + kFolder + "/" + n.dir +
                                       "\", " + n.settings + "}]")))
        << n.dir;
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the indexer rereads the store
  ASSERT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  for (const auto& n : nested) {
    const std::string dir = std::string(kFolder) + "/" + n.dir;
    EXPECT_TRUE(IsIndexed(dir + "/old.txt")) << n.dir;
    EXPECT_TRUE(IsIndexed(dir + "/pic.jpg")) << n.dir;
    WriteFile(dir + "/new.txt", "new\n");
    EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/new.txt"); })) << n.dir;
  }
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
