// The package's indexing library: the store of indexed folders, the pause
// state of the indexer, and the names of share indices.
//
// Every operation acts for the calling process's effective identity (the
// web API module switches to the login user, or to root for an
// administrator): the library decides who may see and change which folder.
// Failures throw kestondri::Error: 120 for bad input (with a reason), 502 for
// a failure of the platform or the store.
#ifndef KESTONDRI_FILEINDEX_H_
#define KESTONDRI_FILEINDEX_H_

#include <json/json.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace kestondri {
namespace fileindex {

void FolderAdd(const Json::Value& folders, bool replace);
void FolderSet(const Json::Value& folders, bool replace);
void FolderGet(Json::Value& output, const std::string& path);
void FolderDelete(const Json::Value& paths);
void FolderDelete(const std::string& owner);
void FolderList(Json::Value& output, uint64_t offset, uint64_t limit, const std::string& sort_by,
                const std::string& direction, const std::string& group, const std::string& pattern,
                const Json::Value& additional);
void FolderListGroups(Json::Value& output);
void FolderSummary(Json::Value& output);
void FolderReindex(const Json::Value& paths);

// Share queue files (see docs/fileindex.md): one "op<TAB>path" line per entry,
// the path escaped.
// "update": the index follows the disk, touching only what differs (a folder
// added, its types changed, its pause ended); "reindex": every file is
// extracted again (a user's request); "remove": the folder leaves the index.
constexpr char kQueueUpdate[] = "update";
constexpr char kQueueReindex[] = "reindex";
constexpr char kQueueRemove[] = "remove";

struct QueueEntry {
  std::string op;    // kQueueUpdate, kQueueReindex or kQueueRemove
  std::string path;  // a folder's or file's volume path
};

// The whole text of a queue file holding `entries`: the header, then one
// line per entry whose path has its control bytes, DEL and backslash
// escaped, so that no file name can end a line or split one.
std::string FormatQueueText(const std::vector<QueueEntry>& entries);

// Appends to `out`, in text order, the complete entries of a queue file's
// text: lines of a known operation with an absolute path, decoded as the
// header's version says (files of version 1 hold raw paths). Blank and
// comment lines are skipped, and so is a last line without its newline (the
// cut end of an interrupted write). Returns the number of other lines
// refused (unknown operation, bad escape, a path that is not absolute or
// holds NUL, a header of an unknown version): never throws.
size_t ParseQueueText(const std::string& text, std::vector<QueueEntry>* out);

// ParseQueueText over one file; refused lines and a file that is not a
// regular file are logged to syslog. A missing file adds nothing.
void ReadQueueFile(const std::string& file, std::vector<QueueEntry>* out);

// The share that holds `full_path`: its name and its folder. Both are empty
// when the path lies in no share.
void GetShareNamePathByFullPath(const std::string& full_path, std::string& share_name,
                                std::string& share_path);

class FolderMgr {
 public:
  FolderMgr();
  // Names of the shares that hold at least one indexed folder.
  std::set<std::string> GetIndexedShares() const;
};

// The indexer's pause state, shared by every process of the package.
class StatusMgr {
 public:
  StatusMgr();
  // 0 while paused until resumed; the end time (seconds since the epoch) of a
  // timed pause; a non-zero time in the past when not paused.
  int64_t GetPauseInfo() const;
  // Pauses for `length` seconds; 0 or less pauses until resumed.
  void Pause(int length);
  void Resume();
};

namespace elastic {
// "fileindex_" + share name: the search daemon's name of the share's index.
std::string GetFileIndexID(const std::string& share_name);
}  // namespace elastic

}  // namespace fileindex
}  // namespace kestondri

#endif  // KESTONDRI_FILEINDEX_H_
