// kest-indexer as it runs: the real service process over real folders, the
// real folder store and queue files, a real Xapian index, and kestelasticd
// answering searches over its socket.
#include <gtest/gtest.h>
#include <signal.h>
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
  return kesttest::HitNames(user == "root" ? kesttest::Exchange(request)
                                           : kesttest::ExchangeAs(user, request));
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

Json::Value Parse(const std::string& text) {
  Json::Value value;
  Json::Reader().parse(text, value);
  return value;
}

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
    fileindex::FolderAdd(Parse(std::string(R"([{"path": ")") + kFolder + "\"" + extra + "}]"),
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

TEST_F(IndexerServiceTest, CrawlIndexesEveryTypeAndHonoursTypeFlags) {
  AddFolder(R"(, "photo": false)");
  StartAndWaitForCrawl();
  auto all = Indexed();
  EXPECT_EQ(0u, all.count("/volume1/docs/team/holiday.jpg")) << "photos are not wanted";
  EXPECT_EQ(1u, all.count("/volume1/docs/team")) << "the folder itself";
  EXPECT_EQ(1u, all.count("/volume1/docs/team/sub"));
  // A file the extractor fails on is still found by its name.
  EXPECT_EQ(1u, all.count("/volume1/docs/team/broken.pdf"));

  const struct {
    const char* word;
    const char* file;
  } contents[] = {
      {"bravo", "notes.txt"},    {"nebula", "deep.md"},   {"lemur", "page.html"},
      {"narwhal", "report.pdf"}, {"walrus", "memo.docx"}, {"pangolin", "sheet.ods"},
  };
  for (const auto& c : contents) {
    EXPECT_EQ(std::vector<std::string>{c.file}, Search("root", c.word)) << c.word;
  }
  EXPECT_EQ(std::vector<std::string>{"broken.pdf"}, Search("root", "broken"));

  // Photos wanted again: the change of types queues the folder.
  fileindex::FolderSet(Parse(std::string(R"([{"path": ")") + kFolder + R"(", "photo": true}])"),
                       false);
  EXPECT_TRUE(WaitFor([] { return IsIndexed("/volume1/docs/team/holiday.jpg"); }));
}

TEST_F(IndexerServiceTest, ChangesFollowWithinSeconds) {
  AddFolder();
  StartAndWaitForCrawl();
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
    ASSERT_TRUE(AddAs("ann", Parse(std::string(R"([{"path": ")") + kFolder + "/" + n.dir + "\", " +
                                   n.settings + "}]")))
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

TEST_F(IndexerServiceTest, UsersSeeOnlyWhatTheyMayRead) {
  WriteFile("/volume1/docs/team/ann-secret.txt", "confidential marmot\n", 0600);
  ASSERT_EQ(0, chown("/volume1/docs/team/ann-secret.txt", kesttest::kAnnUid, kesttest::kAnnUid));
  WriteFile("/volume1/docs/team/shared.txt", "public marmot\n", 0644);
  AddFolder();
  StartAndWaitForCrawl();
  EXPECT_EQ((std::vector<std::string>{"ann-secret.txt", "shared.txt"}), Search("ann", "marmot"));
  EXPECT_EQ(std::vector<std::string>{"shared.txt"}, Search("bob", "marmot"));
  EXPECT_TRUE(Search("bob", "confidential").empty());
}

TEST_F(IndexerServiceTest, PauseKeepsTheQueueAndResumeContinues) {
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
}

TEST_F(IndexerServiceTest, APausedFolderWaitsUntilItResumes) {
  AddFolder();
  StartAndWaitForCrawl();
  const std::string path = std::string(R"([{"path": ")") + kFolder;
  fileindex::FolderSet(Parse(path + R"(", "paused": true}])"), false);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the indexer rereads the store
  WriteFile("/volume1/docs/team/held.txt", "held back\n");
  ASSERT_EQ(0, unlink("/volume1/docs/team/notes.txt"));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_FALSE(IsIndexed("/volume1/docs/team/held.txt"));
  EXPECT_TRUE(IsIndexed("/volume1/docs/team/notes.txt")) << "a paused folder's index stays";
  EXPECT_TRUE(Exists(kQueue));

  fileindex::FolderSet(Parse(path + R"(", "paused": false}])"), false);
  EXPECT_TRUE(WaitFor([] {
    return IsIndexed("/volume1/docs/team/held.txt") && !IsIndexed("/volume1/docs/team/notes.txt");
  }));
}

TEST_F(IndexerServiceTest, ARestartCatchesUpAndRemovedFoldersLeave) {
  AddFolder();
  StartAndWaitForCrawl();
  EXPECT_EQ(0, indexer_.Stop());
  WriteFile("/volume1/docs/team/while-down.txt", "offline\n");
  ASSERT_EQ(0, unlink("/volume1/docs/team/notes.txt"));
  indexer_.Start();
  EXPECT_TRUE(WaitFor([] {
    return IsIndexed("/volume1/docs/team/while-down.txt") &&
           !IsIndexed("/volume1/docs/team/notes.txt");
  }));

  fileindex::FolderDelete(Parse(std::string(R"([")") + kFolder + "\"]"));
  EXPECT_TRUE(WaitFor([] { return Indexed().empty(); }));
}

TEST_F(IndexerServiceTest, AReindexExtractsEveryFileAgainAndWaitsForAPause) {
  AddFolder();
  StartAndWaitForCrawl();
  EXPECT_EQ(0, indexer_.Stop());
  // An entry lost, and one whose text went wrong while its file's size and
  // time stayed as they were: only a new extraction mends it.
  {
    Xapian::WritableDatabase db(kDb, Xapian::DB_OPEN);
    db.delete_document(index::UniqueTerm("/volume1/docs/team/notes.txt"));
    const std::string unique = index::UniqueTerm("/volume1/docs/team/sub/deep.md");
    Xapian::Document doc = db.get_document(*db.postlist_begin(unique));
    doc.set_data("garbled");
    db.replace_document(unique, doc);
    db.commit();
  }
  fileindex::StatusMgr().Pause(0);
  fileindex::FolderReindex(Parse(std::string(R"([")") + kFolder + "\"]"));
  ASSERT_TRUE(Exists(kQueue));
  indexer_.Start();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_TRUE(Exists(kQueue)) << "the reindex waits for the pause to end";
  // Meanwhile searches answer from the entries as they were.
  EXPECT_EQ(std::vector<std::string>{"deep.md"}, Search("root", "nebula"));
  EXPECT_EQ("garbled", TextOf("/volume1/docs/team/sub/deep.md"));

  fileindex::StatusMgr().Resume();
  EXPECT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  EXPECT_TRUE(IsIndexed("/volume1/docs/team/notes.txt"));
  EXPECT_NE(std::string::npos, TextOf("/volume1/docs/team/sub/deep.md").find("quasar nebula"));
  EXPECT_EQ(std::vector<std::string>{"deep.md"}, Search("root", "nebula"));
}

TEST_F(IndexerServiceTest, ADamagedIndexIsBuiltAgain) {
  AddFolder();
  StartAndWaitForCrawl();
  EXPECT_EQ(0, indexer_.Stop());
  ASSERT_EQ(0, system("for f in /volume1/@kestondri/index/docs/*.glass; do "
                      "head -c 8192 /dev/urandom > \"$f\"; done"));
  indexer_.Start();
  EXPECT_TRUE(WaitFor([] {
    return !Exists(std::string(kDb) + ".checking") && !Exists(kQueue) &&
           IsIndexed("/volume1/docs/team/sub/deep.md") && IsIndexed("/volume1/docs/team/notes.txt");
  }));
  EXPECT_EQ(std::vector<std::string>{"report.pdf"}, Search("root", "narwhal"));
  EXPECT_FALSE(Exists(std::string(kDb) + ".damaged"));
}

TEST_F(IndexerServiceTest, TermSuggestionsFollowABurst) {
  // Words of two files or more are suggested.
  WriteFile("/volume1/docs/team/zoo1.txt", "gazelle\n");
  WriteFile("/volume1/docs/team/zoo2.txt", "gazelle\n");
  AddFolder();
  StartAndWaitForCrawl();
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
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
