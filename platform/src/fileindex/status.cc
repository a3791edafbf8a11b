// The indexer's pause state, the indexed shares, and share names of paths.
#include <unistd.h>

#include <climits>
#include <ctime>

#include "common/error.h"
#include "kest/klib.h"
#include "kestondri/fileindex.h"
#include "privilege.h"
#include "snapshot.h"
#include "store.h"

namespace kestondri {
namespace fileindex {
namespace {

// What GetPauseInfo answers when not paused: a non-zero time in the past.
constexpr int64_t kNotPaused = 1;

}  // namespace

FolderMgr::FolderMgr() = default;

std::set<std::string> FolderMgr::GetIndexedShares() const {
  PrivilegeScope privilege;
  std::set<std::string> shares;
  for (const auto& row : ReadStoreContents().rows) shares.insert(row.share);
  return shares;
}

StatusMgr::StatusMgr() = default;

int64_t StatusMgr::GetPauseInfo() const {
  PrivilegeScope privilege;
  const StoreContents contents = ReadStoreContents();
  if (!contents.paused) return kNotPaused;
  // A timed pause that has run out answers its end, which is in the past.
  return contents.until;
}

void StatusMgr::Pause(int length) {
  if (geteuid() != 0) throw Error(kErrNoPermission, "only an administrator may pause indexing");
  const int64_t now = time(nullptr);
  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  store.SetPause(true, length > 0 ? now + length : 0, now);
  transaction.Commit();
}

void StatusMgr::Resume() {
  if (geteuid() != 0) throw Error(kErrNoPermission, "only an administrator may resume indexing");
  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  store.SetPause(false, 0, time(nullptr));
  transaction.Commit();
}

void GetShareNamePathByFullPath(const std::string& full_path, std::string& share_name,
                                std::string& share_path) {
  char name[4096] = {0};
  char path[4096] = {0};
  share_name.clear();
  share_path.clear();
  if (KESTShareNamePathGet(full_path.c_str(), name, sizeof(name), path, sizeof(path)) != 0) return;
  share_name = name;
  share_path = path;
}

namespace elastic {

std::string GetFileIndexID(const std::string& share_name) {
  char id[1024] = {0};
  if (FILEIDXGetIndexID(share_name.c_str(), id, sizeof(id)) < 0) {
    throw Error(kErrInvalidParam, "no index id for share \"" + share_name + "\"");
  }
  return id;
}

}  // namespace elastic
}  // namespace fileindex
}  // namespace kestondri
