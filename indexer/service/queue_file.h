// The indexer's side of a share's queue file (docs/fileindex.md, "The queue
// file"): the entries waiting for the indexer. Pending work lives in the file
// rather than in memory so that the status method sees it and a restart of
// the indexer finds it again.
//
// The indexer reads a share's entries (Take), works on them, commits the
// index, and only then takes the finished entries out (Finish). Entries the
// indexer itself appended while it worked (a file changed again) stay, as do
// entries another writer may have queued again meanwhile: such an entry is
// worked on once more, which costs a walk but loses nothing.
//
// One object per share, shared by the indexer's threads: every method locks
// the object's mutex and, for the file, the queue folder's flock. Failures
// throw std::runtime_error.
#ifndef KESTONDRI_INDEXER_SERVICE_QUEUE_FILE_H_
#define KESTONDRI_INDEXER_SERVICE_QUEUE_FILE_H_

#include <sys/types.h>

#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kestondri {
namespace indexer {

// What the entries ask for (docs/fileindex.md): bring the index in line with
// the disk, extract every file again, or drop a folder.
constexpr char kQueueOpUpdate[] = "update";
constexpr char kQueueOpReindex[] = "reindex";
constexpr char kQueueOpRemove[] = "remove";

struct QueueItem {
  std::string op;
  std::string path;
  bool operator==(const QueueItem& o) const { return op == o.op && path == o.path; }
  bool operator<(const QueueItem& o) const { return op != o.op ? op < o.op : path < o.path; }
};

class QueueFile {
 public:
  // `queue_path` as FILEIDXQueuePathCompose gives it.
  explicit QueueFile(std::string queue_path);
  QueueFile(const QueueFile&) = delete;
  QueueFile& operator=(const QueueFile&) = delete;

  const std::string& path() const { return path_; }

  // True when the queue file or its twin exists.
  bool HasWork() const;

  // Appends `items`; one already queued moves to the end (as every writer
  // does).
  void Append(const std::vector<QueueItem>& items);

  // The entries waiting, first to last, duplicates merged.
  std::vector<QueueItem> Take();

  // Takes out the entries of the last Take() that are in `done`, except
  // those queued again since. Removes the files when nothing is left.
  void Finish(const std::vector<QueueItem>& done);

 private:
  struct Stamp {
    ino_t ino = 0;
    off_t size = -1;
    long long mtime_ns = -1;
    bool operator==(const Stamp& o) const {
      return ino == o.ino && size == o.size && mtime_ns == o.mtime_ns;
    }
  };
  class Lock;

  Stamp StampNow() const;
  std::vector<QueueItem> ReadLocked() const;
  void WriteLocked(const std::vector<QueueItem>& items);

  const std::string path_;
  const std::string dir_;
  mutable std::mutex mutex_;
  std::vector<QueueItem> taken_;
  std::set<QueueItem> appended_since_take_;
  Stamp known_;  // the file as this object last left it
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_QUEUE_FILE_H_
