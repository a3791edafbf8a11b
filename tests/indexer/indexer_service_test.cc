// kest-indexer as it runs: the real service process over real folders, the
// real folder store and queue files, a real Xapian index, and kestelasticd
// answering searches over its socket.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xapian.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon_harness.h"
#include "index_schema.h"
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

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

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

using kesttest::ParseJson;

// One run of the indexer over one folder, from its first walk through every
// kind of change, other users' folders nested in it, pauses, restarts, a
// reindex, a damaged index, and a folder added while the watcher is held up.
TEST(IndexerServiceTest, FollowsAFolderThroughItsLife) {
  ASSERT_EQ(0, system("rm -rf /volume1/* /volume2/* /var/packages/KestOndri"));
  WriteFile("/etc/kest/shares.conf",
            "[global]\nadmin group = administrators\n[docs]\npath = /volume1/docs\n"
            "[media]\npath = /volume2/media\n");
  const std::string dir = kFolder;
  WriteFile(dir + "/notes.txt", "alpha bravo charlie\n");
  WriteFile(dir + "/sub/deep.md", "# Heading\nquasar nebula\n");
  WriteFile(
      dir + "/report.pdf",
      kesttest::ReadFile(KEST_SOURCE_DIR "/tests/indexer/samples/documents/annual-report.pdf"));
  WriteFile(dir + "/holiday.jpg", std::string("\xff\xd8\xff\xe0", 4));
  WriteFile(dir + "/broken.pdf", "%PDF-1.4 not really a pdf");
  WriteFile(dir + "/zoo1.txt", "gazelle\n");  // words of two files or more are suggested
  WriteFile(dir + "/zoo2.txt", "gazelle\n");
  // Folders an ordinary user will add inside: with every type off, or paused.
  const struct {
    const char* dir;
    const char* settings;
  } nested[] = {
      {"off", R"("video": false, "audio": false, "photo": false, "document": false)"},
      {"paused", R"("paused": true)"},
      {"paused-off", R"("paused": true, "document": false, "photo": false)"},
  };
  for (const auto& n : nested) {
    WriteFile(dir + "/" + n.dir + "/old.txt", "old\n");
    WriteFile(dir + "/" + n.dir + "/pic.jpg", "\xff\xd8\xff\xe0");
  }
  WriteFile("/volume1/docs/late/first.txt", "first\n");
  ASSERT_EQ(0, system("mkdir -p /volume2/media/m && chmod -R 0777 /volume1/docs"));
  kesttest::DaemonProcess daemon;
  ASSERT_TRUE(daemon.Start());
  IndexerProcess indexer{{"--check-interval=3600"}};
  const std::string folder = R"([{"path": ")" + dir;
  fileindex::FolderAdd(ParseJson(folder + R"(", "photo": false}])"), false);
  fileindex::FolderAdd(ParseJson(R"([{"path": "/volume2/media/m"}])"), false);
  indexer.Start();
  ASSERT_TRUE(WaitFor([] { return IsIndexed("/volume1/docs/team/sub/deep.md"); }));
  ASSERT_TRUE(WaitFor([] { return !Exists(kQueue); }));

  // Every type by its text; the type flags.
  auto all = Indexed();
  EXPECT_EQ(0u, all.count(dir + "/holiday.jpg")) << "photos are not wanted";
  EXPECT_EQ(1u, all.count(dir)) << "the folder itself";
  EXPECT_EQ(1u, all.count(dir + "/sub"));
  // Each file by a word of its text; broken.pdf, which the extractor failed
  // on, by its name.
  for (const auto& c : std::map<std::string, std::string>{{"bravo", "notes.txt"},
                                                          {"nebula", "deep.md"},
                                                          {"okapi", "report.pdf"},
                                                          {"broken", "broken.pdf"}}) {
    EXPECT_EQ(std::vector<std::string>{c.second}, Search("root", c.first)) << c.first;
  }
  EXPECT_TRUE(WaitFor([] {
    if (Exists(kPidFile)) return false;
    try {
      Xapian::Database db(kDb);
      return db.get_spelling_suggestion("gazele") == "gazelle" &&
             db.get_spelling_suggestion("okapo").empty();
    } catch (const Xapian::Error&) {
      return false;
    }
  }));

  // Photos wanted again: the change of types queues the folder.
  fileindex::FolderSet(ParseJson(folder + R"(", "photo": true}])"), false);
  EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/holiday.jpg"); }));

  // A user's folder inside an administrator's may switch every type off or
  // be paused: the administrator's documents stay indexed, and new ones are
  // indexed, for everybody.
  const std::string added = kesttest::InChildAs("root", [&] {  // as the web API adds them
    if (!ResetCredentialsByName("ann", true)) return std::string("not ann");
    for (const auto& n : nested)
      fileindex::FolderAdd(ParseJson(folder + "/" + n.dir + "\", " + n.settings + "}]"), false);
    return std::string("added");
  });
  EXPECT_EQ("added", added);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the indexer rereads the store
  ASSERT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  for (const auto& n : nested) {
    const std::string nested_dir = dir + "/" + n.dir;
    EXPECT_TRUE(IsIndexed(nested_dir + "/old.txt")) << n.dir;
    EXPECT_TRUE(IsIndexed(nested_dir + "/pic.jpg")) << n.dir;
    WriteFile(nested_dir + "/new.txt", "new\n");
    EXPECT_TRUE(WaitFor([&] { return IsIndexed(nested_dir + "/new.txt"); })) << n.dir;
  }

  // Each kind of change, within seconds.
  WriteFile(dir + "/fresh.txt", "zeppelin\n");
  EXPECT_TRUE(WaitFor([] { return Search("root", "zeppelin").size() == 1; }));
  WriteFile(dir + "/notes.txt", "delta echo\n");
  EXPECT_TRUE(WaitFor([] { return Search("root", "echo").size() == 1; }));
  EXPECT_TRUE(Search("root", "bravo").empty());
  ASSERT_EQ(0, rename((dir + "/fresh.txt").c_str(), (dir + "/sub/moved.txt").c_str()));
  EXPECT_TRUE(
      WaitFor([&] { return IsIndexed(dir + "/sub/moved.txt") && !IsIndexed(dir + "/fresh.txt"); }));
  ASSERT_EQ(0, unlink((dir + "/zoo1.txt").c_str()));
  EXPECT_TRUE(WaitFor([&] { return !IsIndexed(dir + "/zoo1.txt"); }));
  // A tree moved in from outside the folder, and a tree removed.
  ASSERT_EQ(0, system("mkdir -p /volume1/docs/outside/a/b && echo kestrel > "
                      "/volume1/docs/outside/a/b/bird.txt"));
  ASSERT_EQ(0, rename("/volume1/docs/outside/a", (dir + "/a").c_str()));
  EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/a/b/bird.txt"); }));
  WriteFile(dir + "/a/b/second.txt", "inside a moved tree\n");
  EXPECT_TRUE(WaitFor([&] { return IsIndexed(dir + "/a/b/second.txt"); }));
  ASSERT_EQ(0, system("rm -rf /volume1/docs/team/a /volume1/docs/team/sub"));
  EXPECT_TRUE(WaitFor([&] {
    return !IsIndexed(dir + "/a") && !IsIndexed(dir + "/a/b/second.txt") &&
           !IsIndexed(dir + "/sub/moved.txt");
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

  // A paused folder: changes wait in the queue (a pause of everything holds
  // up the reindex below).
  fileindex::FolderSet(ParseJson(folder + R"(", "paused": true}])"), false);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // the indexer rereads the store
  WriteFile(dir + "/held.txt", "held back\n");
  ASSERT_EQ(0, unlink((dir + "/notes.txt").c_str()));
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_FALSE(IsIndexed(dir + "/held.txt"));
  EXPECT_TRUE(IsIndexed(dir + "/notes.txt")) << "a paused folder's index stays";
  EXPECT_TRUE(Exists(kQueue));
  fileindex::FolderSet(ParseJson(folder + R"(", "paused": false}])"), false);
  EXPECT_TRUE(
      WaitFor([&] { return IsIndexed(dir + "/held.txt") && !IsIndexed(dir + "/notes.txt"); }));

  // A restart catches up with what changed meanwhile.
  EXPECT_EQ(0, indexer.Stop());
  WriteFile(dir + "/while-down.txt", "offline\n");
  ASSERT_EQ(0, unlink((dir + "/zoo2.txt").c_str()));
  indexer.Start();
  EXPECT_TRUE(
      WaitFor([&] { return IsIndexed(dir + "/while-down.txt") && !IsIndexed(dir + "/zoo2.txt"); }));

  // A reindex extracts every file again, and waits for a pause to end. An
  // entry lost, and one whose text went wrong while its file's size and time
  // stayed as they were: only a new extraction mends it.
  EXPECT_EQ(0, indexer.Stop());
  {
    Xapian::WritableDatabase db(kDb, Xapian::DB_OPEN);
    db.delete_document(index::UniqueTerm(dir + "/held.txt"));
    const std::string unique = index::UniqueTerm(dir + "/report.pdf");
    Xapian::Document doc = db.get_document(*db.postlist_begin(unique));
    doc.set_data("garbled");
    db.replace_document(unique, doc);
    db.commit();
  }
  fileindex::StatusMgr().Pause(0);
  fileindex::FolderReindex(ParseJson(std::string(R"([")") + kFolder + "\"]"));
  ASSERT_TRUE(Exists(kQueue));
  indexer.Start();
  std::this_thread::sleep_for(std::chrono::seconds(2));
  EXPECT_TRUE(Exists(kQueue)) << "the reindex waits for the pause to end";
  // Meanwhile searches answer from the entries as they were.
  EXPECT_EQ(std::vector<std::string>{"report.pdf"}, Search("root", "okapi"));
  EXPECT_EQ("garbled", Indexed()[dir + "/report.pdf"]);
  fileindex::StatusMgr().Resume();
  EXPECT_TRUE(WaitFor([] { return !Exists(kQueue); }));
  EXPECT_TRUE(IsIndexed(dir + "/held.txt"));
  EXPECT_NE(std::string::npos, Indexed()[dir + "/report.pdf"].find("okapi migration"));

  // A damaged index is built again.
  EXPECT_EQ(0, indexer.Stop());
  ASSERT_EQ(0, system("for f in /volume1/@kestondri/index/docs/*.glass; do "
                      "head -c 8192 /dev/urandom > \"$f\"; done"));
  indexer.Start();
  EXPECT_TRUE(WaitFor([&] {
    return !Exists(std::string(kDb) + ".checking") && !Exists(kQueue) &&
           IsIndexed(dir + "/held.txt") && IsIndexed(dir + "/report.pdf");
  }));
  EXPECT_EQ(std::vector<std::string>{"report.pdf"}, Search("root", "okapi"));
  EXPECT_FALSE(Exists(std::string(kDb) + ".damaged"));

  // A file created between the first walk of a folder and its watch was
  // never seen. Here the watcher is held up (blocked on a queue lock of
  // another volume) while a folder is added: its walk must wait for its watch.
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

  Json::Value every = ParseJson(R"(["/volume1/docs/team", "/volume1/docs/late"])");
  for (const auto& n : nested) every.append(dir + "/" + n.dir);
  fileindex::FolderDelete(every);
  EXPECT_TRUE(WaitFor([] { return Indexed().empty(); }));
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
