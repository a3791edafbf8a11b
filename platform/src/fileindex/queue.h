// The indexing queue of a share: the file FILEIDXQueuePathCompose names
// (<volume>/@kestondri/queue/<folder>.queue). The format and the locking
// rules are in docs/fileindex.md. Every use must be made under a
// PrivilegeScope. Failures throw Error 502.
#ifndef KESTONDRI_FILEINDEX_QUEUE_H_
#define KESTONDRI_FILEINDEX_QUEUE_H_

#include <string>
#include <utility>
#include <vector>

#include "kestondri/fileindex.h"

namespace kestondri {
namespace fileindex {

// The queue path of the share whose folder is `share_path`.
std::string QueuePathOf(const std::string& share_path);

// Adds the entries at the end of the share's queue; an entry already queued
// for the same operation and path moves to the end. The file is rewritten
// whole into its ".tmp" twin and renamed over the queue, under an exclusive
// lock on the queue folder.
void QueueAppend(const std::string& share_path, const std::vector<QueueEntry>& entries);

// The entries waiting in the queue file and in its ".tmp" twin (entries of
// an interrupted rewrite, or of a batch the indexer has taken).
std::vector<QueueEntry> QueueRead(const std::string& share_path);

}  // namespace fileindex
}  // namespace kestondri

#endif  // KESTONDRI_FILEINDEX_QUEUE_H_
