// What readers ask the folder store most often (every indexed folder and
// the pause state), answered without SQLite when nothing changed.
//
// The web API serves each request in a fresh process, where opening the
// database (loading SQLite's code, reading the schema) cost more than the
// rest of a status request. The contents are therefore also kept in a
// snapshot file beside the database, stamped with the database's change
// counter (the header field SQLite increments at every commit, in the
// rollback-journal mode the store uses). A reader whose stamp matches the
// counter it reads uses the snapshot; any other reader reads the database
// and writes a new snapshot. Writers do nothing: a commit changes the
// counter, which retires the snapshot. A missing, torn or foreign snapshot
// is simply not used.
#ifndef KESTONDRI_FILEINDEX_SNAPSHOT_H_
#define KESTONDRI_FILEINDEX_SNAPSHOT_H_

#include <cstdint>
#include <vector>

#include "store.h"

namespace kestondri {
namespace fileindex {

constexpr char kSnapshotPath[] = "/var/packages/KestOndri/var/fileindex/folders.snapshot";

struct StoreContents {
  std::vector<FolderRow> rows;  // ordered by path
  bool paused = false;          // as Store::GetPause answers
  int64_t until = 0;
  int64_t changed = 0;
};

// Must be called under a PrivilegeScope; throws what Store throws.
StoreContents ReadStoreContents();

// The contents a snapshot's text holds, when it is whole and carries
// `stamp`; false, with `*contents` untouched, for anything else.
bool ParseSnapshot(const std::string& text, const std::string& stamp, StoreContents* contents);

}  // namespace fileindex
}  // namespace kestondri

#endif  // KESTONDRI_FILEINDEX_SNAPSHOT_H_
