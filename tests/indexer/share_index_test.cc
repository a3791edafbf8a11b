// One share's index as the indexer writes it, driven directly: reindexes,
// updates, interruptions, compaction, a new language built beside the old.
#include "service/share_index.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xapian.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "extract/extractor.h"
#include "index_schema.h"
#include "support/sandbox.h"

namespace kestondri {
namespace indexer {
namespace {

using kesttest::WriteFile;

constexpr char kShare[] = "/volume1/docs";
constexpr char kFolder[] = "/volume1/docs/team";
constexpr char kDb[] = "/volume1/@kestondri/index/docs";
constexpr char kStale[] = "stale text";

const std::map<std::string, std::string> kFiles = {
    {"/volume1/docs/team/a.txt", "alpha words\n"},
    {"/volume1/docs/team/b.txt", "bravo words\n"},
    {"/volume1/docs/team/c.txt", "charlie words\n"},
    {"/volume1/docs/team/d.txt", "delta words\n"},
    {"/volume1/docs/team/sub/e.txt", "echo words\n"},
    {"/volume1/docs/team/sub/f.txt", "fox words\n"},
};

// Stored text of every document that describes a file.
std::map<std::string, std::string> Texts() {
  std::map<std::string, std::string> out;
  Xapian::Database db(kDb);
  for (auto t = db.allterms_begin("Q"); t != db.allterms_end("Q"); ++t) {
    for (auto p = db.postlist_begin(*t); p != db.postlist_end(*t); ++p) {
      const Xapian::Document doc = db.get_document(*p);
      if (index::SlotText(doc, index::kSlotIsDir) == "0") {
        out[index::SlotText(doc, index::kSlotPath)] = doc.get_data();
      }
    }
  }
  return out;
}

class ShareIndexTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("rm -rf /volume1/* && mkdir -p /volume1/docs/team/sub"));
    for (const auto& f : kFiles) WriteFile(f.first, f.second);
    IndexedFolder folder;
    folder.path = kFolder;
    folder.share = "docs";
    folder.share_path = kShare;
    folders_ = FolderTable({folder});
    Reopen();
    ASSERT_TRUE(Sync(SyncMode::kUpdate).completed);
  }

  // A new object over the same database: what a restarted indexer sees.
  void Reopen(const std::string& language = "") {
    index_.reset();
    index_.reset(new ShareIndex(kShare, CommitPolicy(), language));
    std::string error;
    ASSERT_TRUE(index_->Open(&error)) << error;
  }

  // Syncs the folder, committed; stops after `budget` checks for an
  // interruption when `budget` is not negative.
  SyncResult Sync(SyncMode mode, int budget = -1) {
    const SyncResult r = index_->Sync(kFolder, mode, folders_, extractor_, ExtractLimits(),
                                      [&budget] { return budget >= 0 && budget-- == 0; });
    index_->Commit();
    return r;
  }

  // A document whose text went wrong while its file's size and time match;
  // `keep_written`: as if written by the current reindex; `drop_identity`:
  // written before identities were kept.
  void MakeStale(const std::string& path, bool keep_written, bool drop_identity = false) {
    index_->Close();
    {
      Xapian::WritableDatabase db(kDb, Xapian::DB_OPEN);
      const std::string unique = index::UniqueTerm(path);
      Xapian::PostingIterator p = db.postlist_begin(unique);
      ASSERT_NE(p, db.postlist_end(unique)) << path;
      Xapian::Document doc = db.get_document(*p);
      doc.set_data(kStale);
      if (!keep_written) doc.remove_value(index::kSlotWritten);
      if (drop_identity) doc.remove_value(index::kSlotIdentity);
      db.replace_document(unique, doc);
      db.commit();
    }
    std::string error;
    ASSERT_TRUE(index_->Open(&error)) << error;
  }

  FolderTable folders_;
  Extractor extractor_;
  std::unique_ptr<ShareIndex> index_;
};

TEST_F(ShareIndexTest, AReindexRewritesUnchangedFilesAndDropsVanishedOnes) {
  for (const auto& f : kFiles) MakeStale(f.first, false);
  ASSERT_EQ(0, unlink("/volume1/docs/team/c.txt"));

  // An update trusts size and time: only the vanished file is noticed.
  ASSERT_TRUE(Sync(SyncMode::kUpdate).completed);
  auto texts = Texts();
  EXPECT_EQ(0u, texts.count("/volume1/docs/team/c.txt"));
  EXPECT_EQ(kStale, texts["/volume1/docs/team/a.txt"]);

  ASSERT_EQ(0, unlink("/volume1/docs/team/d.txt"));
  ASSERT_TRUE(Sync(SyncMode::kReindex).completed);
  std::map<std::string, std::string> expected = kFiles;
  expected.erase("/volume1/docs/team/c.txt");
  expected.erase("/volume1/docs/team/d.txt");
  EXPECT_EQ(expected, Texts());
  // Nothing is left to resume: the next reindex starts afresh.
  MakeStale("/volume1/docs/team/a.txt", true);
  ASSERT_TRUE(Sync(SyncMode::kReindex).completed);
  EXPECT_EQ(expected, Texts());
}

TEST_F(ShareIndexTest, AnInterruptedReindexGoesOnWhereItStopped) {
  enum Forget { kKeep, kForgetFolder, kForgetAll };
  const struct {
    const char* name;
    bool restart;   // the indexer restarted between the two parts
    Forget forget;  // the folder left the index, or the queue emptied: start afresh
  } cases[] = {
      {"resumed", false, kKeep},
      {"after a restart", true, kKeep},
      {"the folder left the index", false, kForgetFolder},
      {"the queue emptied", false, kForgetAll},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_TRUE(Sync(SyncMode::kReindex).completed);
    for (const auto& f : kFiles) MakeStale(f.first, false);

    EXPECT_FALSE(Sync(SyncMode::kReindex, 4).completed);
    // Searches still find every file: stale or new, none is missing.
    auto texts = Texts();
    ASSERT_EQ(kFiles.size(), texts.size());
    std::map<std::string, std::string> done;
    for (const auto& t : texts) {
      if (t.second != kStale) done.insert(t);
    }
    ASSERT_FALSE(done.empty());
    ASSERT_LT(done.size(), kFiles.size());
    // Spoil what the first part wrote: only a second extraction of these
    // files would mend them.
    for (const auto& d : done) MakeStale(d.first, true);

    if (c.restart) Reopen();
    if (c.forget == kForgetFolder) index_->ForgetReindex(kFolder);
    if (c.forget == kForgetAll) index_->ForgetAllReindexes();
    index_->Commit();
    ASSERT_TRUE(Sync(SyncMode::kReindex).completed);
    texts = Texts();
    for (const auto& f : kFiles) {
      const bool redone = c.forget != kKeep || done.count(f.first) == 0;
      EXPECT_EQ(redone ? f.second : kStale, texts[f.first]) << f.first;
    }
  }
}

// An update pass knows a file by its identity too, not only by size and
// time: another file under the name, or a chmod, gets its document
// rewritten with the file's identity, as does a document written before
// identities were kept.
TEST_F(ShareIndexTest, AnUpdateRewritesWhatIsNoLongerTheIndexedFile) {
  const std::string a = "/volume1/docs/team/a.txt";
  const struct {
    const char* name;
    const char* shell;  // run in the folder
    bool drop_identity;
  } cases[] = {
      {"replaced, same size and time", "echo ALPHA WORDS > n && touch -r a.txt n && mv n a.txt",
       false},
      {"chmod", "chmod 600 a.txt", false},
      {"no identity yet", "true", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_EQ(0, system((std::string("cd /volume1/docs/team && ") + c.shell).c_str()));
    if (c.drop_identity) MakeStale(a, true, true);
    ASSERT_TRUE(Sync(SyncMode::kUpdate).completed);
    EXPECT_EQ(kesttest::ReadFile(a), Texts()[a]);
    struct stat st;
    ASSERT_EQ(0, lstat(a.c_str(), &st));
    Xapian::Database db(kDb);
    EXPECT_EQ(
        index::FileIdentity(st),
        db.get_document(*db.postlist_begin(index::UniqueTerm(a))).get_value(index::kSlotIdentity));
  }
}

ino_t Inode(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

TEST_F(ShareIndexTest, FullWalksEndCompactedAndANewLayoutIsBuiltBesideTheOld) {
  const std::string a = "/volume1/docs/team/a.txt";
  auto language = [] { return Xapian::Database(kDb).get_metadata(index::kLanguageKey); };
  // A new index: once every folder was walked it is compacted, and the
  // copy takes its place.
  ASSERT_TRUE(index_->rebuilding());
  const ino_t built = Inode(kDb);
  index_->EndRebuild();
  EXPECT_FALSE(index_->rebuilding());
  EXPECT_NE(built, Inode(kDb));
  EXPECT_EQ("english", language());
  Reopen();
  EXPECT_FALSE(index_->rebuilding());
  EXPECT_EQ(kFiles, Texts());
  // A reindex that rewrote most of it leaves it as loose: compacted again.
  ASSERT_TRUE(Sync(SyncMode::kReindex).completed);
  ASSERT_TRUE(index_->rebuilding());
  const ino_t reindexed = Inode(kDb);
  index_->EndRebuild();
  EXPECT_NE(reindexed, Inode(kDb));
  Reopen();
  EXPECT_FALSE(index_->rebuilding());

  // Another language: the old index answers until the new one is whole.
  Reopen("french");
  ASSERT_TRUE(index_->rebuilding());
  EXPECT_EQ(0, access((std::string(kDb) + ".new").c_str(), F_OK));
  WriteFile(a, "acheter des pommes\n");
  // A restart in the middle goes on with what was built.
  ASSERT_FALSE(Sync(SyncMode::kUpdate, 3).completed);
  Reopen("french");
  ASSERT_TRUE(Sync(SyncMode::kUpdate).completed);
  EXPECT_EQ("english", language());
  EXPECT_EQ(kFiles.at(a), Texts()[a]);
  index_->EndRebuild();
  EXPECT_EQ("french", language());
  EXPECT_EQ("acheter des pommes\n", Texts()[a]);
  EXPECT_EQ(kFiles.size(), Texts().size());
  EXPECT_NE(0, access((std::string(kDb) + ".new").c_str(), F_OK));
  // Stems of the index's language: "achetées" finds "acheter".
  Xapian::Database db(kDb);
  EXPECT_EQ(1u, db.get_termfreq("ZXCachet"));
}

}  // namespace
}  // namespace indexer
}  // namespace kestondri
