// The open Xapian databases of one worker thread. Xapian::Database objects
// may not be shared between threads, so every worker owns one IndexCache and
// nothing in it is locked. Each Acquire() brings the database up to the
// latest revision the indexer committed (or reopens it from scratch when the
// indexer replaced it), so a commit is visible to the next request.
#ifndef KESTONDRI_DAEMON_INDEX_CACHE_H_
#define KESTONDRI_DAEMON_INDEX_CACHE_H_

#include <sys/types.h>
#include <xapian.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "index_resolver.h"

namespace kestondri {
namespace daemon {

enum class IndexState {
  kReady,
  kUnknown,   // no such index, no database at its path, or a remote that cannot be reached
  kChecking,  // the indexer marked it as being checked or rebuilt
  kCrashed,   // the database is there but cannot be opened or read
};

// A database being checked or rebuilt carries this marker file beside it:
// db_path + kCheckingMarkerSuffix.
constexpr const char kCheckingMarkerSuffix[] = ".checking";

// How long a remote index that could not be reached is taken as unknown
// before it is tried again (per worker).
constexpr std::chrono::seconds kRemoteRetryDelay(5);

// Ids that requests asked for but that had no database: the "unknown" list
// of list_db_status. Shared by all workers; thread-safe.
class MissingIndexLog {
 public:
  static constexpr size_t kMaxMissingIds = 1024;
  void Note(const std::string& index_id);
  void Forget(const std::string& index_id);
  std::vector<std::string> Ids() const;

 private:
  mutable std::mutex mutex_;
  std::set<std::string> ids_;
};

class IndexCache {
 public:
  // Both must outlive the cache.
  IndexCache(const IndexResolver& resolver, MissingIndexLog& missing)
      : resolver_(resolver), missing_(missing) {}
  IndexCache(const IndexCache&) = delete;
  IndexCache& operator=(const IndexCache&) = delete;

  // The database of `index_id` at its latest revision, or null with `*state`
  // telling why not. The pointer stays valid until the next call for the same
  // id or Drop(). Never throws for a damaged or missing index.
  Xapian::Database* Acquire(const std::string& index_id, IndexState* state,
                            IndexLocation* location = nullptr);
  // Forgets the open database, e.g. after it failed in the middle of a match.
  void Drop(const std::string& index_id);
  // The state of `index_id`; unlike Acquire, a missing database is not
  // recorded in the MissingIndexLog.
  IndexState Probe(const std::string& index_id);

 private:
  Xapian::Database* Open(const std::string& index_id, IndexState* state, IndexLocation* location,
                         bool note_missing);

  struct OpenIndex {
    std::unique_ptr<Xapian::Database> db;
    // What lay at the database's path when it was opened: the indexer puts
    // a rebuilt or compacted database in place of another by exchanging
    // folders, and an open database would go on reading the old one's files.
    dev_t dev;
    ino_t ino;
  };

  const IndexResolver& resolver_;
  MissingIndexLog& missing_;
  std::map<std::string, OpenIndex> open_;
  std::map<std::string, std::chrono::steady_clock::time_point> unreachable_until_;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_INDEX_CACHE_H_
