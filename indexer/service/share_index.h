// The Xapian database of one share, as the indexer writes it: brings the
// documents below a path in line with the disk and the folder store, and
// commits in batches so that readers see whole batches.
//
// Not thread-safe: the indexer's worker thread owns every ShareIndex. Xapian
// errors propagate as Xapian::Error; a database that cannot be opened is
// reported by Open().
#ifndef KESTONDRI_INDEXER_SERVICE_SHARE_INDEX_H_
#define KESTONDRI_INDEXER_SERVICE_SHARE_INDEX_H_

#include <xapian.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "extract/extract_types.h"
#include "index_schema.h"
#include "service/folder_table.h"

namespace kestondri {
namespace indexer {

class Extractor;

struct CommitPolicy {
  size_t max_documents = 1000;                // commit after this many changed documents
  std::chrono::milliseconds max_delay{1000};  // or when the first of them is this old
};

// kUpdate redoes what differs from the disk; kReindex extracts and rewrites
// every file again (a user's request when results look wrong).
enum class SyncMode { kUpdate, kReindex };

struct SyncResult {
  bool completed = false;  // false: interrupted, the entry must stay queued
  size_t changed = 0;      // documents added, replaced or deleted
};

class ShareIndex {
 public:
  // `language`: the stemming language of the share (Stemmer::Make), "" for
  // the default one.
  ShareIndex(std::string share_path, CommitPolicy policy, const std::string& language = "");
  ~ShareIndex();
  ShareIndex(const ShareIndex&) = delete;
  ShareIndex& operator=(const ShareIndex&) = delete;

  const std::string& share_path() const { return share_path_; }
  const std::string& db_path() const { return db_path_; }
  // The language asked for, as given.
  const std::string& language() const { return asked_language_; }

  // Opens (creating when needed) the database. False, with `error` set, when
  // the share's folder is missing (an unmounted volume: nothing is created
  // on the mount point) or the database cannot be opened.
  //
  // Whenever a database must be filled from the disk, `rebuilding()` tells
  // that every folder of the share must be walked, and EndRebuild(), once
  // they all were, compacts it (a database written document by document is
  // about twice the size it needs) and puts it in place:
  // - a new database;
  // - a damaged one (not merely locked): set aside and replaced by an empty
  //   one, and the "<database>.checking" file beside it keeps readers away
  //   until EndRebuild();
  // - one where a reindex rewrote at least half the documents;
  // - one of an older layout (index_schema.h) or another language: a new
  //   one is built beside it ("<database>.new") while the old one goes on
  //   answering searches, and takes its place at EndRebuild().
  bool Open(std::string* error);
  bool is_open() const { return db_ != nullptr; }
  bool rebuilding() const { return rebuilding_ || fresh_ || upgrading_; }
  void EndRebuild();
  // The next Open() builds the index again instead of opening it.
  void MarkDamaged() { damaged_ = true; }
  // Commits what is pending and lets the database go (another writer, the
  // term-suggestion updater, may then open it).
  void Close();

  // Makes the documents at and below `path` match the disk: new and changed
  // files and folders are (re)indexed, vanished ones and those the folder
  // store no longer wants are removed. Documents under a paused folder are
  // left alone. Stops early, with completed false, when `interrupted`
  // answers true.
  //
  // kUpdate: `path` itself is always indexed again (it is what changed);
  // below it only what differs in size, time or owner.
  // kReindex: every file and folder is written again, each document
  // replaced in place so that searches find the old one until the commit
  // that holds the new. The time the reindex began is kept in the
  // database's metadata until it completes, so an interrupted reindex
  // (pause, stop, restart) goes on with the documents not yet written since.
  SyncResult Sync(const std::string& path, SyncMode mode, const FolderTable& folders,
                  Extractor& extractor, const ExtractLimits& limits,
                  const std::function<bool()>& interrupted);

  // Forgets an unfinished reindex of `path` (its folder left the index).
  void ForgetReindex(const std::string& path);
  // Forgets every unfinished reindex: called when the share's queue is
  // empty, where none can be waiting (a queue file removed by hand, say).
  // A reindex asked for later then starts afresh.
  void ForgetAllReindexes();

  // Commits when the policy says so, or now.
  void CommitIfDue();
  void Commit();

 private:
  void Changed();
  bool Rebuild(std::string* error);
  bool Upgrade(std::string* error);
  void Stamp(Xapian::WritableDatabase& db) const;
  bool Current(const Xapian::Database& db) const;
  bool CompactInPlace(const std::string& from);

  const std::string share_path_;
  std::string db_path_;
  const CommitPolicy policy_;
  const std::string asked_language_;
  index::Stemmer stemmer_;
  std::unique_ptr<Xapian::WritableDatabase> db_;
  size_t pending_ = 0;
  bool rebuilding_ = false;  // damaged: built again in place, readers kept away
  bool fresh_ = false;       // new: filled for the first time
  bool upgrading_ = false;   // built beside the one readers use
  bool damaged_ = false;
  std::chrono::steady_clock::time_point first_pending_;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_SHARE_INDEX_H_
