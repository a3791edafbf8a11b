// kest-indexer's main loop. The worker (the calling thread of Run) takes the
// entries of the shares' queue files and brings the share indices in line
// with them; a watcher thread turns inotify events into queue entries; every
// `check_interval` every folder is queued again to catch what inotify
// missed. After a burst of indexing, the term-suggestion updater runs.
//
// Stop() may be called from any thread or a signal handler's thread of
// choice (it only stores an atomic and writes an eventfd).
#ifndef KESTONDRI_INDEXER_SERVICE_INDEXER_SERVICE_H_
#define KESTONDRI_INDEXER_SERVICE_INDEXER_SERVICE_H_

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "extract/extract_types.h"
#include "extract/extractor.h"
#include "service/folder_table.h"
#include "service/queue_file.h"
#include "service/share_index.h"

namespace kestondri {
namespace indexer {

struct ServiceOptions {
  CommitPolicy commit;
  ExtractLimits limits;
  ExtractorOptions extractor;
  std::chrono::seconds check_interval{600};
  std::chrono::milliseconds refresh_interval{1000};  // rereading the folder store
  // The updater runs once indexing has been idle this long.
  std::chrono::seconds suggest_delay{5};
  std::string suggest_program;  // empty: no term-suggestion updates
  std::string suggest_pid_file;
};

class IndexerService {
 public:
  explicit IndexerService(ServiceOptions options);
  ~IndexerService();
  IndexerService(const IndexerService&) = delete;
  IndexerService& operator=(const IndexerService&) = delete;

  // Runs until Stop(); returns the exit status.
  int Run();
  void Stop();

 private:
  bool Paused() const;
  void Refresh();
  void QueueAllFolders();
  void QueueChangedFolders(const FolderTable& old);
  QueueFile& QueueOf(const std::string& share_path);
  ShareIndex* IndexOf(const std::string& share_path);
  size_t ProcessShare(const std::string& share_path);
  void OnChanges(const std::map<std::string, std::vector<std::string>>& changes);
  void MaybeSuggest();
  bool SuggestRunning();
  void IndexFailed(ShareIndex* index, const std::string& what, bool damaged);
  void Wait(std::chrono::milliseconds timeout);

  const ServiceOptions options_;
  std::atomic<bool> stop_{false};
  std::mutex wake_mutex_;
  std::condition_variable wake_;
  bool woken_ = false;

  std::shared_ptr<const FolderTable> folders_;
  std::set<std::string> share_paths_;             // every share of shares.conf
  std::map<std::string, std::string> languages_;  // share path -> "index language"
  std::mutex queues_mutex_;
  std::map<std::string, std::unique_ptr<QueueFile>> queues_;
  std::map<std::string, std::unique_ptr<ShareIndex>> indices_;
  std::map<std::string, std::chrono::steady_clock::time_point> failing_;  // retry after
  Extractor extractor_;

  std::set<std::string> changed_dbs_;
  std::chrono::steady_clock::time_point last_change_;
  pid_t suggest_pid_ = -1;
  std::vector<std::string> suggest_dbs_;  // what the running updater works on

  mutable std::chrono::steady_clock::time_point pause_checked_;
  mutable bool paused_ = false;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_INDEXER_SERVICE_H_
