// Watches every indexed folder with inotify and reports the paths that
// changed: files created, written, moved, deleted, and attribute or ACL
// changes (IN_ATTRIB). Folders created or moved in are watched at once.
// When the kernel's event queue overflowed, or a watched volume went away,
// the roots of every folder are reported, and the next Rescan() watches
// what appeared again.
//
// Run() belongs to one thread; SetFolders(), Rescan() and Stop() may be
// called from any other. SetFolders() and Rescan() return once the watches
// are in place: a folder must be watched before it is walked, or what
// changes between the walk's look at a folder and its watch is never seen.
#ifndef KESTONDRI_INDEXER_SERVICE_WATCHER_H_
#define KESTONDRI_INDEXER_SERVICE_WATCHER_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "service/folder_table.h"

namespace kestondri {
namespace indexer {

class Watcher {
 public:
  // Changed paths by share folder, handed over at most every few hundred
  // milliseconds.
  using Sink = std::function<void(const std::map<std::string, std::vector<std::string>>&)>;

  explicit Watcher(Sink sink);
  ~Watcher();
  Watcher(const Watcher&) = delete;
  Watcher& operator=(const Watcher&) = delete;

  void SetFolders(std::shared_ptr<const FolderTable> folders);
  void Rescan();
  // Stops Run(); a SetFolders() or Rescan() waiting returns.
  void Stop();
  void Run();

 private:
  void AddTree(const std::string& root);
  void RemoveTree(const std::string& root);
  void Request(std::shared_ptr<const FolderTable> folders, bool rescan, bool wait);
  void Apply();
  void Note(const std::string& path);
  void Flush();
  void HandleEvents();

  const Sink sink_;
  int fd_ = -1;
  int wake_fd_ = -1;
  std::atomic<bool> stop_{false};

  std::mutex mutex_;  // guards next_folders_, rescan_ and the generations
  std::condition_variable applied_cv_;
  std::shared_ptr<const FolderTable> next_folders_;
  bool rescan_ = false;
  uint64_t requested_ = 0;  // requests of SetFolders() and Rescan()
  uint64_t applied_ = 0;    // of those, the ones whose watches are in place

  // Run()'s own state.
  std::shared_ptr<const FolderTable> folders_;
  std::map<int, std::string> dirs_;  // watch descriptor -> folder
  std::map<std::string, int> watches_;
  std::map<std::string, std::set<std::string>> pending_;
  bool overflowed_ = false;
  bool warned_limit_ = false;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_WATCHER_H_
