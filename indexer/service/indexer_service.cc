#include "service/indexer_service.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <thread>

#include "kest/klib.h"
#include "kestondri/fileindex.h"
#include "service/term_suggest.h"
#include "service/watcher.h"

namespace kestondri {
namespace indexer {
namespace {

// Every share of the configuration: its folder and its index's language.
std::map<std::string, std::string> ConfiguredShares() {
  std::map<std::string, std::string> out;
  PKLIBCSZLIST names = KLIBCSzListAlloc(16);
  if (!names) return out;
  if (KLIBShareEnum(&names, nullptr) >= 0) {
    for (int i = 0; i < names->nItem; ++i) {
      const char* name = KLIBCSzListGet(names, i);
      PKESTSHARE share = nullptr;
      if (KESTShareGet(name, &share) == 0 && share) {
        char language[64] = "";
        if (KLIBShareIndexLanguageGet(name, language, sizeof language) < 0) language[0] = '\0';
        out[share->szPath] = language;
        KESTShareFree(share);
      }
    }
  }
  KLIBCSzListFree(names);
  return out;
}

constexpr char kFolderStore[] = "/var/packages/KestOndri/var/fileindex/folders.db";

// The library writes a folder's queue entry inside its store transaction,
// before the commit. Taking the store's write lock for a moment waits until
// such a transaction has ended, so that the store read next knows every
// folder whose entry is already queued.
void AwaitStoreWriters() {
  struct stat st;
  if (stat(kFolderStore, &st) != 0) return;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(kFolderStore, &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
    sqlite3_busy_timeout(db, 10000);
    if (sqlite3_exec(db, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK) {
      sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    }
  }
  sqlite3_close(db);
}

std::string QueuePathOf(const std::string& share_path) {
  char path[4096] = {0};
  if (FILEIDXQueuePathCompose(share_path.c_str(), path, sizeof path) < 0) return "";
  return path;
}

}  // namespace

IndexerService::IndexerService(ServiceOptions options)
    : options_(std::move(options)), extractor_(options_.extractor) {}

IndexerService::~IndexerService() {
  if (suggest_pid_ > 0) waitpid(suggest_pid_, nullptr, 0);
}

void IndexerService::Stop() {
  stop_ = true;
  std::lock_guard<std::mutex> guard(wake_mutex_);
  woken_ = true;
  wake_.notify_all();
}

void IndexerService::Wait(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(wake_mutex_);
  wake_.wait_for(lock, timeout, [this] { return woken_ || stop_; });
  woken_ = false;
}

bool IndexerService::Paused() const {
  const auto now = std::chrono::steady_clock::now();
  if (now - pause_checked_ < std::chrono::milliseconds(500)) return paused_;
  pause_checked_ = now;
  try {
    const int64_t until = fileindex::StatusMgr().GetPauseInfo();
    paused_ = until == 0 || until > static_cast<int64_t>(time(nullptr));
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "index: cannot read the pause state: %s", e.what());
    paused_ = true;  // nothing is lost by waiting
  }
  return paused_;
}

QueueFile& IndexerService::QueueOf(const std::string& share_path) {
  std::lock_guard<std::mutex> guard(queues_mutex_);
  auto& q = queues_[share_path];
  if (!q) q.reset(new QueueFile(QueuePathOf(share_path)));
  return *q;
}

ShareIndex* IndexerService::IndexOf(const std::string& share_path) {
  auto& index = indices_[share_path];
  const auto language = languages_.find(share_path);
  const std::string wanted = language == languages_.end() ? "" : language->second;
  if (index && index->language() != wanted) {
    // Another language: the index is built again (ShareIndex::Open).
    try {
      index->Close();
    } catch (const Xapian::Error& e) {
      syslog(LOG_ERR, "index: %s: %s", index->db_path().c_str(), e.get_description().c_str());
    }
    index.reset();
  }
  if (!index) index.reset(new ShareIndex(share_path, options_.commit, wanted));
  if (index->is_open()) return index.get();
  auto failing = failing_.find(share_path);
  if (failing != failing_.end() && std::chrono::steady_clock::now() < failing->second) {
    return nullptr;
  }
  std::string error;
  if (!index->Open(&error)) {
    syslog(LOG_ERR, "index: cannot open the index of %s: %s", share_path.c_str(), error.c_str());
    failing_[share_path] = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    return nullptr;
  }
  failing_.erase(share_path);
  if (index->rebuilding()) {
    std::vector<QueueItem> items;
    for (const auto& f : folders_->folders()) {
      if (f.share_path == share_path) items.push_back({kQueueOpUpdate, f.path});
    }
    try {
      QueueOf(share_path).Append(items);
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "index: cannot queue the folders of %s: %s", share_path.c_str(), e.what());
    }
  }
  return index.get();
}

void IndexerService::Refresh() {
  try {
    folders_ = FolderTable::Load();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "index: cannot read the folder store: %s", e.what());
    if (!folders_) folders_ = std::make_shared<const FolderTable>();
  }
  languages_ = ConfiguredShares();
  share_paths_.clear();
  for (const auto& share : languages_) share_paths_.insert(share.first);
  for (const auto& f : folders_->folders()) share_paths_.insert(f.share_path);
}

void IndexerService::QueueAllFolders() {
  std::map<std::string, std::vector<QueueItem>> items;
  for (const auto& f : folders_->folders()) {
    // A paused folder is walked when it resumes (the library queues it then);
    // queued now, it would keep the indexer "processing" for nothing.
    if (!f.paused) items[f.share_path].push_back({kQueueOpUpdate, f.path});
  }
  for (const auto& share : items) {
    try {
      QueueOf(share.first).Append(share.second);
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "index: cannot queue the folders of %s: %s", share.first.c_str(), e.what());
    }
  }
}

// The library queues a folder before its change of the store commits, so an
// entry may have been worked on with the store as it was. Every folder whose
// entry changed is walked again with the store as it is now; the walk only
// touches what differs.
void IndexerService::QueueChangedFolders(const FolderTable& old) {
  std::map<std::string, std::vector<QueueItem>> items;
  for (const auto& f : folders_->folders()) {
    bool same = false;
    for (const auto& o : old.folders()) same = same || o == f;
    if (!same) items[f.share_path].push_back({kQueueOpUpdate, f.path});
  }
  for (const auto& o : old.folders()) {
    bool kept = false;
    for (const auto& f : folders_->folders()) kept = kept || f.path == o.path;
    if (!kept) items[o.share_path].push_back({kQueueOpRemove, o.path});
  }
  for (const auto& share : items) {
    try {
      QueueOf(share.first).Append(share.second);
    } catch (const std::exception& e) {
      syslog(LOG_ERR, "index: cannot queue the folders of %s: %s", share.first.c_str(), e.what());
    }
  }
}

void IndexerService::OnChanges(const std::map<std::string, std::vector<std::string>>& changes) {
  for (const auto& share : changes) {
    std::vector<QueueItem> items;
    for (const auto& path : share.second) items.push_back({kQueueOpUpdate, path});
    try {
      QueueOf(share.first).Append(items);
    } catch (const std::exception& e) {
      // The periodic check finds these changes again.
      syslog(LOG_ERR, "index: cannot queue changes of %s: %s", share.first.c_str(), e.what());
    }
  }
  std::lock_guard<std::mutex> guard(wake_mutex_);
  woken_ = true;
  wake_.notify_all();
}

// Works through one share's queue; the number of entries finished.
size_t IndexerService::ProcessShare(const std::string& share_path) {
  QueueFile& queue = QueueOf(share_path);
  if (!queue.HasWork()) return 0;
  std::vector<QueueItem> items;
  try {
    items = queue.Take();
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "index: cannot read the queue of %s: %s", share_path.c_str(), e.what());
    return 0;
  }
  std::vector<QueueItem> done;
  struct stat st;
  if (stat(share_path.c_str(), &st) != 0) {
    // The share's folder is gone (its volume still holds the queue): there
    // is nothing to index into.
    done = items;
  } else {
    ShareIndex* index = IndexOf(share_path);
    if (!index) return 0;
    auto interrupted = [this] { return stop_.load() || Paused(); };
    try {
      for (const auto& item : items) {
        if (interrupted()) break;
        if (!PathWithin(item.path, share_path)) {
          done.push_back(item);  // not of this share: nothing to do here
          continue;
        }
        const IndexedFolder* folder = folders_->Governing(item.path);
        if (folder && folder->paused) continue;  // stays queued until the folder resumes
        if (item.op == kQueueOpRemove) index->ForgetReindex(item.path);
        const SyncMode mode = item.op == kQueueOpReindex ? SyncMode::kReindex : SyncMode::kUpdate;
        const SyncResult r =
            index->Sync(item.path, mode, *folders_, extractor_, options_.limits, interrupted);
        if (r.changed) {
          changed_dbs_.insert(index->db_path());
          last_change_ = std::chrono::steady_clock::now();
        }
        if (!r.completed) break;
        done.push_back(item);
      }
      index->Commit();
    } catch (const Xapian::DatabaseCorruptError& e) {
      // A damaged index is built again at once.
      IndexFailed(index, e.get_description(), true);
      return 0;
    } catch (const Xapian::Error& e) {
      // Other failures (a full volume, say) are tried again a little later.
      IndexFailed(index, e.get_description(), false);
      return 0;
    }
  }
  try {
    queue.Finish(done);
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "index: cannot update the queue of %s: %s", share_path.c_str(), e.what());
  }
  auto index = indices_.find(share_path);
  if (index != indices_.end() && !queue.HasWork()) {
    try {
      index->second->ForgetAllReindexes();
      index->second->Commit();
    } catch (const Xapian::Error& e) {
      syslog(LOG_ERR, "index: %s: %s", index->second->db_path().c_str(),
             e.get_description().c_str());
    }
    if (index->second->rebuilding()) {
      try {
        index->second->EndRebuild();
      } catch (const Xapian::Error& e) {
        syslog(LOG_ERR, "index: %s: %s", index->second->db_path().c_str(),
               e.get_description().c_str());
      }
      // The index in place is another database now: its term suggestions
      // are made again.
      changed_dbs_.insert(index->second->db_path());
      last_change_ = std::chrono::steady_clock::now();
    }
  }
  return done.size();
}

void IndexerService::IndexFailed(ShareIndex* index, const std::string& what, bool damaged) {
  syslog(LOG_ERR, "index: %s: %s", index->db_path().c_str(), what.c_str());
  try {
    index->Close();
  } catch (const Xapian::Error&) {
  }
  if (damaged) {
    index->MarkDamaged();
  } else {
    failing_[index->share_path()] = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  }
}

bool IndexerService::SuggestRunning() {
  if (suggest_pid_ <= 0) return false;
  int status = 0;
  const pid_t r = waitpid(suggest_pid_, &status, WNOHANG);
  if (r == 0) return true;
  suggest_pid_ = -1;
  // A large vocabulary takes several runs, between which the indexer works.
  if (r > 0 && WIFEXITED(status) && WEXITSTATUS(status) == kTermSuggestUnfinished) {
    changed_dbs_.insert(suggest_dbs_.begin(), suggest_dbs_.end());
  }
  suggest_dbs_.clear();
  return false;
}

void IndexerService::MaybeSuggest() {
  if (options_.suggest_program.empty() || changed_dbs_.empty() || SuggestRunning()) return;
  if (std::chrono::steady_clock::now() - last_change_ < options_.suggest_delay) return;
  // The updater needs the write lock of the databases it rebuilds.
  for (auto& index : indices_) {
    if (changed_dbs_.count(index.second->db_path())) index.second->Close();
  }
  suggest_dbs_.assign(changed_dbs_.begin(), changed_dbs_.end());
  suggest_pid_ =
      SpawnTermSuggest(options_.suggest_program, options_.suggest_pid_file, suggest_dbs_);
  changed_dbs_.clear();
}

int IndexerService::Run() {
  Refresh();
  Watcher watcher([this](const std::map<std::string, std::vector<std::string>>& changes) {
    OnChanges(changes);
  });
  std::thread watching([&watcher] { watcher.Run(); });
  // Returns once every folder is watched: a walk that began before its
  // folder's watch would miss for good a file created between the two.
  watcher.SetFolders(folders_);
  syslog(LOG_INFO, "index: started, %zu folders", folders_->folders().size());

  // The first walk of every folder: after a restart it only looks at what
  // changed meanwhile.
  QueueAllFolders();
  auto last_check = std::chrono::steady_clock::now();
  auto last_refresh = last_check;

  while (!stop_) {
    const auto now = std::chrono::steady_clock::now();
    if (now - last_refresh >= options_.refresh_interval) {
      last_refresh = now;
      std::shared_ptr<const FolderTable> old = folders_;
      Refresh();
      if (!(*old == *folders_)) {
        watcher.SetFolders(folders_);
        QueueChangedFolders(*old);
      }
    }
    if (now - last_check >= options_.check_interval) {
      last_check = now;
      watcher.Rescan();  // watches renewed before the walks they must cover
      QueueAllFolders();
    }
    bool busy = false;
    if (!SuggestRunning() && !Paused()) {
      bool work = false;
      for (const auto& share_path : share_paths_) work = work || QueueOf(share_path).HasWork();
      if (work) {
        AwaitStoreWriters();
        std::shared_ptr<const FolderTable> old = folders_;
        Refresh();
        if (!(*old == *folders_)) {
          watcher.SetFolders(folders_);
          QueueChangedFolders(*old);
        }
      }
      for (const auto& share_path : share_paths_) {
        if (stop_) break;
        if (ProcessShare(share_path) > 0) busy = true;
      }
      if (!busy) MaybeSuggest();
    }
    Wait(busy ? std::chrono::milliseconds(50) : std::chrono::milliseconds(500));
  }

  watcher.Stop();
  watching.join();
  for (auto& index : indices_) {
    try {
      index.second->Close();
    } catch (const Xapian::Error& e) {
      syslog(LOG_ERR, "index: %s: %s", index.first.c_str(), e.get_description().c_str());
    }
  }
  syslog(LOG_INFO, "index: stopped");
  return 0;
}

}  // namespace indexer
}  // namespace kestondri
