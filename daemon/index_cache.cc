#include "index_cache.h"

#include <sys/stat.h>

namespace kestondri {
namespace daemon {
namespace {

bool PathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace

void MissingIndexLog::Note(const std::string& index_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Any local user may name any id; the log must not grow without bound.
  if (ids_.size() >= kMaxMissingIds) return;
  ids_.insert(index_id);
}

void MissingIndexLog::Forget(const std::string& index_id) {
  std::lock_guard<std::mutex> lock(mutex_);
  ids_.erase(index_id);
}

std::vector<std::string> MissingIndexLog::Ids() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return std::vector<std::string>(ids_.begin(), ids_.end());
}

Xapian::Database* IndexCache::Acquire(const std::string& index_id, IndexState* state,
                                      IndexLocation* location) {
  return Open(index_id, state, location, true);
}

Xapian::Database* IndexCache::Open(const std::string& index_id, IndexState* state,
                                   IndexLocation* location, bool note_missing) {
  IndexLocation loc;
  if (!resolver_.Resolve(index_id, &loc)) {
    Drop(index_id);
    if (note_missing) missing_.Note(index_id);
    *state = IndexState::kUnknown;
    return nullptr;
  }
  if (location) *location = loc;
  if (PathExists(loc.db_path + kCheckingMarkerSuffix)) {
    Drop(index_id);
    *state = IndexState::kChecking;
    return nullptr;
  }
  struct stat at;
  if (lstat(loc.db_path.c_str(), &at) != 0) {
    Drop(index_id);
    if (note_missing) missing_.Note(index_id);
    *state = IndexState::kUnknown;
    return nullptr;
  }
  // A remote index that did not answer is not asked again at once: each
  // attempt may wait for a connection time-out.
  auto down = unreachable_until_.find(index_id);
  if (down != unreachable_until_.end()) {
    if (std::chrono::steady_clock::now() < down->second) {
      *state = IndexState::kUnknown;
      return nullptr;
    }
    unreachable_until_.erase(down);
  }

  auto it = open_.find(index_id);
  if (it != open_.end() && (it->second.dev != at.st_dev || it->second.ino != at.st_ino)) {
    open_.erase(it);
    it = open_.end();
  }
  if (it != open_.end()) {
    try {
      it->second.db->reopen();
      // reopen() alone does not notice a damaged revision; touching the
      // statistics makes it surface here rather than halfway through a match.
      (void)it->second.db->get_doccount();
      *state = IndexState::kReady;
      missing_.Forget(index_id);
      return it->second.db.get();
    } catch (const Xapian::Error&) {
      // Replaced or damaged since we opened it: start afresh below.
      open_.erase(it);
    }
  }
  try {
    std::unique_ptr<Xapian::Database> db;
    for (int attempt = 0;; ++attempt) {
      try {
        db = std::make_unique<Xapian::Database>(loc.db_path);
        (void)db->get_doccount();
        break;
      } catch (const Xapian::DatabaseError&) {
        // Opened while the indexer put another database in its place:
        // once more, from what is there now.
        struct stat now;
        if (attempt > 0 || lstat(loc.db_path.c_str(), &now) != 0 || now.st_ino == at.st_ino) {
          throw;
        }
        at = now;
      }
    }
    Xapian::Database* raw = db.get();
    open_[index_id] = OpenIndex{std::move(db), at.st_dev, at.st_ino};
    *state = IndexState::kReady;
    missing_.Forget(index_id);
    return raw;
  } catch (const Xapian::NetworkError&) {
    // There is an index, on a machine that does not answer: worth naming
    // in list_db_status whoever asked.
    unreachable_until_[index_id] = std::chrono::steady_clock::now() + kRemoteRetryDelay;
    missing_.Note(index_id);
    *state = IndexState::kUnknown;
    return nullptr;
  } catch (const Xapian::DatabaseLockError&) {
    *state = IndexState::kChecking;
  } catch (const Xapian::Error&) {
    *state = IndexState::kCrashed;
  }
  missing_.Forget(index_id);
  return nullptr;
}

void IndexCache::Drop(const std::string& index_id) { open_.erase(index_id); }

IndexState IndexCache::Probe(const std::string& index_id) {
  IndexState state;
  Open(index_id, &state, nullptr, false);
  return state;
}

}  // namespace daemon
}  // namespace kestondri
