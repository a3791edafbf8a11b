// A snapshot of the folder store as the indexer needs it: which folders are
// indexed, in which share, with which file types, and whether paused. Read
// through the indexing library as root (an administrator sees every folder).
//
// Immutable once built; share it by shared_ptr between threads.
#ifndef KESTONDRI_INDEXER_SERVICE_FOLDER_TABLE_H_
#define KESTONDRI_INDEXER_SERVICE_FOLDER_TABLE_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestondri {
namespace indexer {

struct IndexedFolder {
  std::string path;
  std::string share;
  std::string share_path;  // the share's folder, e.g. /volume1/photo
  bool paused = false;
  bool video = true, audio = true, photo = true, document = true;

  bool operator==(const IndexedFolder& o) const {
    return path == o.path && share == o.share && share_path == o.share_path && paused == o.paused &&
           video == o.video && audio == o.audio && photo == o.photo && document == o.document;
  }
  // Whether a file of this index type ("document", "photo", ...) is wanted.
  bool WantsType(const std::string& type) const;
};

// True when `path` is `dir` or lies below it.
bool PathWithin(const std::string& path, const std::string& dir);

class FolderTable {
 public:
  FolderTable() = default;
  explicit FolderTable(std::vector<IndexedFolder> folders);

  // Reads the store; throws kestondri::Error when it cannot.
  static std::shared_ptr<const FolderTable> Load();

  const std::vector<IndexedFolder>& folders() const { return folders_; }
  // What governs `path`: the wishes of every indexed folder holding it,
  // merged (docs/indexer.md): paused only when all of them are paused; a
  // file type is wanted when any of those not paused wants it. `path` is the
  // deepest of them. Null when no folder holds `path`. Folders belong to
  // different users, and no user's choice may take a document out of
  // another's folder.
  const IndexedFolder* Governing(const std::string& path) const;
  // Folders at or below `path`.
  std::vector<const IndexedFolder*> Within(const std::string& path) const;
  // Share folders of every indexed folder, by share name.
  std::map<std::string, std::string> SharePaths() const;

  bool operator==(const FolderTable& o) const { return folders_ == o.folders_; }

 private:
  std::vector<IndexedFolder> folders_;  // sorted by path
  // Per folder of folders_, its wishes merged with those of the folders
  // holding it: every folder holding a path holds the deepest of them.
  std::vector<IndexedFolder> merged_;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_FOLDER_TABLE_H_
