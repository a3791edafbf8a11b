// The folder operations. Who may do what is decided here, under the
// caller's own effective identity (the web API module acts as the login
// user, or as root for an administrator):
//   - anybody may add a folder they can read (read and search permission on
//     the folder, and access to its share); they become its owner;
//   - only the owner or an administrator may change, reindex or delete it;
//   - a list, a get, the groups and the summary show only folders the caller
//     can read (an administrator sees all).
// The store is then reached under a PrivilegeScope. Bad input throws
// Error 120 with a reason, a refused change 507, a platform failure 502; a
// failed change leaves the store as it was.
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>

#include "common/error.h"
#include "kest/klib.h"
#include "kestondri/fileindex.h"
#include "privilege.h"
#include "queue.h"
#include "snapshot.h"
#include "store.h"

namespace kestondri {
namespace fileindex {
namespace {

constexpr size_t kMaxPath = 4095;
constexpr size_t kMaxName = 255;
constexpr size_t kMaxFoldersPerCall = 1000;
constexpr char kReservedDir[] = "@kestondri";
constexpr char kPackageDir[] = "/var/packages/KestOndri";

[[noreturn]] void BadInput(const std::string& reason) { throw Error(kErrInvalidParam, reason); }

struct Caller {
  uid_t uid = 0;
  std::string name;
  bool admin = false;
  // Share name -> the caller's privilege is not "no access"; asked once per
  // share within one call (the user and group databases are slow to ask).
  mutable std::map<std::string, bool> share_access;
};

Caller CurrentCaller() {
  Caller caller;
  caller.uid = geteuid();
  caller.admin = caller.uid == 0;
  PKESTUSER user = nullptr;
  if (KESTUserGetByUID(caller.uid, &user) < 0 || !user) {
    throw Error(kErrPlatform, "unknown calling user " + std::to_string(caller.uid));
  }
  caller.name = user->szName;
  KESTUserFree(user);
  return caller;
}

bool UserExists(const std::string& name) {
  PKESTUSER user = nullptr;
  if (KESTUserGet(name.c_str(), &user) < 0 || !user) return false;
  KESTUserFree(user);
  return true;
}

struct ShareInfo {
  std::string name;
  std::string path;
};

bool ShareOf(const std::string& path, ShareInfo* share) {
  char name[4096] = {0};
  char root[4096] = {0};
  if (KESTShareNamePathGet(path.c_str(), name, sizeof(name), root, sizeof(root)) != 0) return false;
  share->name = name;
  share->path = root;
  return true;
}

// The caller's privilege on the share is not "no access".
bool ShareAccessible(const Caller& caller, const std::string& share_name) {
  if (caller.admin) return true;
  auto cached = caller.share_access.find(share_name);
  if (cached != caller.share_access.end()) return cached->second;
  PKESTSHARE share = nullptr;
  bool accessible = false;
  if (KESTShareGet(share_name.c_str(), &share) == 0 && share) {
    accessible = KESTShareUserPrivCalc(caller.name.c_str(), share) != KEST_SHARE_PRIV_NA;
  }
  KESTShareFree(share);
  caller.share_access[share_name] = accessible;
  return accessible;
}

// Whether the caller may read the folder: asked of the kernel as the caller.
bool Readable(const Caller& caller, const std::string& path, const std::string& share_name) {
  if (caller.admin) return true;
  const int saved = errno;
  const bool ok = faccessat(AT_FDCWD, path.c_str(), R_OK | X_OK, AT_EACCESS) == 0;
  errno = saved;
  return ok && ShareAccessible(caller, share_name);
}

// The path as given must already be canonical: absolute, no empty, "." or
// ".." components, no control characters (a folder's own name is its
// default display name, and display names hold none); one trailing '/' is
// dropped.
std::string NormalizePath(const Json::Value& value) {
  if (!value.isString()) BadInput("path must be a string");
  std::string path = value.asString();
  if (path.empty() || path[0] != '/') BadInput("path must be absolute: " + path);
  if (path.size() > kMaxPath) BadInput("path too long");
  if (path.size() > 1 && path.back() == '/') path.pop_back();
  for (char c : path) {
    if (iscntrl(static_cast<unsigned char>(c))) BadInput("control character in path");
  }
  size_t start = 1;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") BadInput("path is not canonical: " + path);
    if (part.compare(0, strlen(kReservedDir), kReservedDir) == 0) {
      BadInput("path is inside the package's own data: " + path);
    }
    start = end + 1;
  }
  if (path == kPackageDir ||
      path.compare(0, strlen(kPackageDir) + 1, std::string(kPackageDir) + "/") == 0) {
    BadInput("path is inside the package's own data: " + path);
  }
  return path;
}

bool IsInside(const std::string& path, const std::string& folder) {
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == '/');
}

std::string Basename(const std::string& path) { return path.substr(path.rfind('/') + 1); }

void CheckName(const std::string& name) {
  if (name.size() > kMaxName) BadInput("name longer than 255 bytes");
  for (char c : name) {
    if (iscntrl(static_cast<unsigned char>(c))) BadInput("control character in name");
  }
}

const std::vector<std::string>& EntryMembers() {
  static const std::vector<std::string> members = {
      "path", "name", "owner", "paused", "video", "audio", "photo", "document", "additional"};
  return members;
}

void CheckEntryShape(const Json::Value& entry) {
  if (!entry.isObject()) BadInput("a folder entry must be an object");
  for (const auto& member : entry.getMemberNames()) {
    const auto& known = EntryMembers();
    if (std::find(known.begin(), known.end(), member) == known.end()) {
      BadInput("unknown member of a folder entry: " + member);
    }
  }
  for (const char* flag : {"paused", "video", "audio", "photo", "document"}) {
    if (entry.isMember(flag) && !entry[flag].isBool())
      BadInput(std::string(flag) + " must be a boolean");
  }
  if (entry.isMember("name") && !entry["name"].isString()) BadInput("name must be a string");
  if (entry.isMember("owner") && !entry["owner"].isString()) BadInput("owner must be a string");
  if (entry.isMember("additional") && !entry["additional"].isObject()) {
    BadInput("additional must be an object");
  }
  if (!entry.isMember("path")) BadInput("a folder entry needs a path");
}

// Owner given in an entry: one's own name, or any existing user for an
// administrator.
std::string OwnerOf(const Json::Value& entry, const Caller& caller, const std::string& fallback) {
  if (!entry.isMember("owner")) return fallback;
  const std::string owner = entry["owner"].asString();
  if (owner == fallback) return owner;
  if (!caller.admin) throw Error(kErrNoPermission, "only an administrator may set another owner");
  if (!UserExists(owner)) BadInput("unknown user: " + owner);
  return owner;
}

void ApplyFlags(const Json::Value& entry, FolderRow* row) {
  if (entry.isMember("paused")) row->paused = entry["paused"].asBool();
  if (entry.isMember("video")) row->video = entry["video"].asBool();
  if (entry.isMember("audio")) row->audio = entry["audio"].asBool();
  if (entry.isMember("photo")) row->photo = entry["photo"].asBool();
  if (entry.isMember("document")) row->document = entry["document"].asBool();
}

void CheckFolderArray(const Json::Value& folders) {
  if (!folders.isArray()) BadInput("folders must be an array");
  if (folders.empty()) BadInput("no folder given");
  if (folders.size() > kMaxFoldersPerCall) BadInput("too many folders in one call");
}

std::vector<std::string> PathsOf(const Json::Value& paths) {
  if (!paths.isArray()) BadInput("paths must be an array");
  if (paths.empty()) BadInput("no path given");
  if (paths.size() > kMaxFoldersPerCall) BadInput("too many paths in one call");
  std::vector<std::string> out;
  for (const auto& p : paths) {
    const std::string path = NormalizePath(p);
    if (std::find(out.begin(), out.end(), path) == out.end()) out.push_back(path);
  }
  return out;
}

// Queue entries grouped by the share folder whose queue takes them.
using QueueBatch = std::map<std::string, std::vector<QueueEntry>>;

void Enqueue(QueueBatch* batch, const std::string& path, const char* op) {
  ShareInfo share;
  // A folder whose share is gone has no queue to tell; its index goes with
  // the share.
  if (!ShareOf(path, &share)) return;
  (*batch)[share.path].push_back({op, path});
}

void Flush(const QueueBatch& batch) {
  for (const auto& entry : batch) QueueAppend(entry.first, entry.second);
}

std::string FolderStatus(const FolderRow& row, bool globally_paused,
                         std::map<std::string, std::vector<QueueEntry>>* queues) {
  struct stat st;
  ShareInfo share;
  if (stat(row.path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || !ShareOf(row.path, &share)) {
    return "unavailable";
  }
  auto it = queues->find(share.path);
  if (it == queues->end()) it = queues->emplace(share.path, QueueRead(share.path)).first;
  bool pending = false;
  for (const auto& e : it->second) {
    if (IsInside(e.path, row.path) || IsInside(row.path, e.path)) pending = true;
  }
  if (!pending) return "finished";
  return row.paused || globally_paused ? "paused" : "processing";
}

Json::Value EntryJson(const FolderRow& row) {
  Json::Value entry(Json::objectValue);
  entry["path"] = row.path;
  entry["name"] = row.name;
  entry["owner"] = row.owner;
  entry["share"] = row.share;
  entry["paused"] = row.paused;
  entry["video"] = row.video;
  entry["audio"] = row.audio;
  entry["photo"] = row.photo;
  entry["document"] = row.document;
  entry["created"] = Json::Int64(row.created);
  return entry;
}

bool GloballyPaused(const StoreContents& contents) {
  return contents.paused && (contents.until == 0 || contents.until > time(nullptr));
}

// The rows the caller can read, read from the store with privilege and
// judged without it; with `globally_paused`, also the pause state of that
// same read.
std::vector<FolderRow> VisibleRows(const Caller& caller, bool* globally_paused = nullptr) {
  std::vector<FolderRow> rows;
  {
    PrivilegeScope privilege;
    StoreContents contents = ReadStoreContents();
    if (globally_paused) *globally_paused = GloballyPaused(contents);
    rows = std::move(contents.rows);
  }
  std::vector<FolderRow> visible;
  for (auto& row : rows) {
    if (Readable(caller, row.path, row.share)) visible.push_back(std::move(row));
  }
  return visible;
}

// A row the caller may change. A folder the caller cannot see is reported as
// not indexed, so that nobody learns of folders they may not read.
FolderRow ChangeableRow(Store& store, const Caller& caller, const std::string& path,
                        const std::map<std::string, bool>& readable) {
  FolderRow row;
  if (!store.Get(path, &row)) BadInput("not an indexed folder: " + path);
  if (caller.admin || row.owner == caller.name) return row;
  auto it = readable.find(path);
  if (it != readable.end() && it->second) {
    throw Error(kErrNoPermission, "only the owner or an administrator may change " + path);
  }
  BadInput("not an indexed folder: " + path);
}

// Readability of each path, judged before privilege is taken.
std::map<std::string, bool> ReadableMap(const Caller& caller,
                                        const std::vector<std::string>& paths) {
  std::map<std::string, bool> out;
  for (const auto& path : paths) {
    ShareInfo share;
    out[path] = ShareOf(path, &share) && Readable(caller, path, share.name);
  }
  return out;
}

std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

}  // namespace

void FolderAdd(const Json::Value& folders, bool replace) {
  CheckFolderArray(folders);
  const Caller caller = CurrentCaller();
  std::vector<FolderRow> rows;
  for (const auto& entry : folders) {
    CheckEntryShape(entry);
    FolderRow row;
    row.path = NormalizePath(entry["path"]);
    for (const auto& other : rows) {
      if (other.path == row.path) BadInput("folder given twice: " + row.path);
    }
    ShareInfo share;
    if (!ShareOf(row.path, &share)) BadInput("not inside a shared folder: " + row.path);
    // Judged as the caller: what stat tells, the caller could learn anyway.
    struct stat st;
    if (stat(row.path.c_str(), &st) != 0) {
      const bool missing = errno == ENOENT;
      errno = 0;
      BadInput((missing ? "no such folder: " : "not a readable folder: ") + row.path);
    }
    if (!S_ISDIR(st.st_mode)) BadInput("not a folder: " + row.path);
    if (!Readable(caller, row.path, share.name)) BadInput("not a readable folder: " + row.path);
    char resolved[PATH_MAX];
    if (!realpath(row.path.c_str(), resolved)) BadInput("no such folder: " + row.path);
    if (row.path != resolved) {
      BadInput("path goes through a symbolic link: " + row.path + " (is " + resolved + ")");
    }
    PKESTSHARE record = nullptr;
    if (KESTShareGet(share.name.c_str(), &record) < 0 || !record) {
      throw Error(kErrPlatform, "share " + share.name + " cannot be read");
    }
    const bool indexable = !record->blEncrypted && !record->blReadOnly;
    KESTShareFree(record);
    if (!indexable) BadInput("share " + share.name + " cannot be indexed (encrypted or read-only)");
    row.share = share.name;
    row.name = entry.isMember("name") && !entry["name"].asString().empty()
                   ? entry["name"].asString()
                   : Basename(row.path);
    CheckName(row.name);
    row.owner = OwnerOf(entry, caller, caller.name);
    ApplyFlags(entry, &row);
    row.created = time(nullptr);
    rows.push_back(row);
  }

  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  QueueBatch batch;
  for (const auto& row : rows) {
    FolderRow existing;
    if (store.Get(row.path, &existing)) {
      if (!replace) BadInput("already indexed: " + row.path);
      if (!caller.admin && existing.owner != caller.name) {
        throw Error(kErrNoPermission, "only the owner or an administrator may change " + row.path);
      }
      FolderRow updated = row;
      updated.owner = existing.owner;
      updated.created = existing.created;
      store.Update(updated);
    } else {
      store.Insert(row);
    }
    Enqueue(&batch, row.path, kQueueUpdate);
  }
  Flush(batch);
  transaction.Commit();
}

void FolderSet(const Json::Value& folders, bool replace) {
  CheckFolderArray(folders);
  const Caller caller = CurrentCaller();
  std::vector<std::string> paths;
  for (const auto& entry : folders) {
    CheckEntryShape(entry);
    const std::string path = NormalizePath(entry["path"]);
    if (std::find(paths.begin(), paths.end(), path) != paths.end()) {
      BadInput("folder given twice: " + path);
    }
    if (entry.isMember("name")) CheckName(entry["name"].asString());
    paths.push_back(path);
  }
  const auto readable = ReadableMap(caller, paths);

  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  QueueBatch batch;
  for (Json::ArrayIndex i = 0; i < folders.size(); ++i) {
    const Json::Value& entry = folders[i];
    FolderRow row = ChangeableRow(store, caller, paths[i], readable);
    const FolderRow before = row;
    if (replace) {
      FolderRow defaults;
      row.paused = defaults.paused;
      row.video = defaults.video;
      row.audio = defaults.audio;
      row.photo = defaults.photo;
      row.document = defaults.document;
      row.name = Basename(row.path);
    }
    if (entry.isMember("name") && !entry["name"].asString().empty())
      row.name = entry["name"].asString();
    row.owner = OwnerOf(entry, caller, row.owner);
    ApplyFlags(entry, &row);
    store.Update(row);
    // A new choice of file types, or the end of a pause, needs the indexer.
    if (row.video != before.video || row.audio != before.audio || row.photo != before.photo ||
        row.document != before.document || (before.paused && !row.paused)) {
      Enqueue(&batch, row.path, kQueueUpdate);
    }
  }
  Flush(batch);
  transaction.Commit();
}

void FolderGet(Json::Value& output, const std::string& path) {
  const std::string canonical = NormalizePath(Json::Value(path));
  const Caller caller = CurrentCaller();
  ShareInfo share;
  FolderRow row;
  bool found = false;
  bool globally_paused = false;
  {
    PrivilegeScope privilege;
    const StoreContents contents = ReadStoreContents();
    for (const FolderRow& candidate : contents.rows) {
      if (candidate.path != canonical) continue;
      row = candidate;
      found = true;
    }
    globally_paused = GloballyPaused(contents);
  }
  if (!found || !Readable(caller, row.path, row.share))
    BadInput("not an indexed folder: " + canonical);
  Json::Value entry = EntryJson(row);
  PrivilegeScope privilege;
  std::map<std::string, std::vector<QueueEntry>> queues;
  entry["additional"]["status"] = FolderStatus(row, globally_paused, &queues);
  output = entry;
}

void FolderDelete(const Json::Value& paths) {
  const std::vector<std::string> list = PathsOf(paths);
  const Caller caller = CurrentCaller();
  const auto readable = ReadableMap(caller, list);
  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  QueueBatch batch;
  for (const auto& path : list) {
    ChangeableRow(store, caller, path, readable);
    store.Delete(path);
    Enqueue(&batch, path, kQueueRemove);
  }
  Flush(batch);
  transaction.Commit();
}

void FolderDelete(const std::string& owner) {
  if (owner.empty()) BadInput("no owner given");
  const Caller caller = CurrentCaller();
  if (!caller.admin && owner != caller.name) {
    throw Error(kErrNoPermission, "only an administrator may delete the folders of " + owner);
  }
  PrivilegeScope privilege;
  Store& store = Store::Shared();
  Store::Transaction transaction(store);
  QueueBatch batch;
  int deleted = 0;
  for (const auto& row : store.All()) {
    if (row.owner != owner) continue;
    store.Delete(row.path);
    Enqueue(&batch, row.path, kQueueRemove);
    ++deleted;
  }
  // Folders of a deleted account may still be cleaned up; a name that is
  // neither a user nor an owner is a mistake.
  if (deleted == 0 && !UserExists(owner)) BadInput("unknown user: " + owner);
  Flush(batch);
  transaction.Commit();
}

void FolderList(Json::Value& output, uint64_t offset, uint64_t limit, const std::string& sort_by,
                const std::string& direction, const std::string& group, const std::string& pattern,
                const Json::Value& additional) {
  const std::string sort_key = sort_by.empty() ? "path" : sort_by;
  static const std::vector<std::string> kSortKeys = {"path", "name", "owner", "share", "created"};
  if (std::find(kSortKeys.begin(), kSortKeys.end(), sort_key) == kSortKeys.end()) {
    BadInput("unknown sort_by: " + sort_by);
  }
  const std::string dir = direction.empty() ? "asc" : Lower(direction);
  if (dir != "asc" && dir != "desc") BadInput("unknown direction: " + direction);
  const std::string group_id = group.empty() ? "all" : group;
  if (group_id != "all" && group_id != "mine" && group_id.compare(0, 6, "share:") != 0) {
    BadInput("unknown group: " + group);
  }
  bool with_status = false;
  if (!additional.isNull()) {
    if (!additional.isArray()) BadInput("additional must be an array");
    for (const auto& field : additional) {
      if (!field.isString() || field.asString() != "status") {
        BadInput("unknown additional field: " + field.toStyledString());
      }
      with_status = true;
    }
  }
  const Caller caller = CurrentCaller();
  bool globally_paused = false;
  std::vector<FolderRow> rows = VisibleRows(caller, &globally_paused);
  const std::string needle = Lower(pattern);
  rows.erase(std::remove_if(
                 rows.begin(), rows.end(),
                 [&](const FolderRow& row) {
                   if (group_id == "mine" && row.owner != caller.name) return true;
                   if (group_id.compare(0, 6, "share:") == 0 && row.share != group_id.substr(6)) {
                     return true;
                   }
                   return !needle.empty() && Lower(row.name).find(needle) == std::string::npos &&
                          Lower(row.path).find(needle) == std::string::npos;
                 }),
             rows.end());
  auto key = [&sort_key](const FolderRow& row) -> std::string {
    if (sort_key == "name") return Lower(row.name);
    if (sort_key == "owner") return row.owner;
    if (sort_key == "share") return row.share;
    if (sort_key == "created") {
      char buffer[32];
      snprintf(buffer, sizeof(buffer), "%020lld", static_cast<long long>(row.created));
      return buffer;
    }
    return row.path;
  };
  std::stable_sort(rows.begin(), rows.end(), [&](const FolderRow& a, const FolderRow& b) {
    const std::string ka = key(a), kb = key(b);
    if (ka != kb) return dir == "asc" ? ka < kb : ka > kb;
    return a.path < b.path;
  });

  Json::Value page(Json::objectValue);
  page["total"] = Json::Int64(rows.size());
  page["offset"] = Json::UInt64(offset);  // as asked, also when huge
  page["folders"] = Json::Value(Json::arrayValue);
  std::map<std::string, std::vector<QueueEntry>> queues;
  for (uint64_t i = offset; i < rows.size() && i - offset < limit; ++i) {
    Json::Value entry = EntryJson(rows[i]);
    if (with_status) {
      PrivilegeScope privilege;
      entry["additional"]["status"] = FolderStatus(rows[i], globally_paused, &queues);
    }
    page["folders"].append(entry);
  }
  output = page;
}

void FolderListGroups(Json::Value& output) {
  const Caller caller = CurrentCaller();
  const std::vector<FolderRow> rows = VisibleRows(caller);
  std::map<std::string, uint64_t> shares;
  uint64_t mine = 0;
  for (const auto& row : rows) {
    ++shares[row.share];
    if (row.owner == caller.name) ++mine;
  }
  Json::Value groups(Json::arrayValue);
  auto add = [&groups](const std::string& id, const std::string& name, uint64_t count) {
    Json::Value group(Json::objectValue);
    group["id"] = id;
    group["name"] = name;
    group["count"] = Json::Int64(count);
    groups.append(group);
  };
  add("all", "all", rows.size());
  add("mine", "mine", mine);
  for (const auto& share : shares) add("share:" + share.first, share.first, share.second);
  output = Json::Value(Json::objectValue);
  output["groups"] = groups;
}

void FolderSummary(Json::Value& output) {
  const Caller caller = CurrentCaller();
  bool globally_paused = false;
  const std::vector<FolderRow> rows = VisibleRows(caller, &globally_paused);
  Json::Value summary(Json::objectValue);
  uint64_t mine = 0, paused = 0, video = 0, audio = 0, photo = 0, document = 0;
  std::map<std::string, int> shares;
  for (const auto& row : rows) {
    mine += row.owner == caller.name;
    paused += row.paused;
    video += row.video;
    audio += row.audio;
    photo += row.photo;
    document += row.document;
    ++shares[row.share];
  }
  summary["total"] = Json::Int64(rows.size());
  summary["mine"] = Json::Int64(mine);
  summary["paused"] = Json::Int64(paused);
  summary["shares"] = Json::Int64(shares.size());
  summary["types"]["video"] = Json::Int64(video);
  summary["types"]["audio"] = Json::Int64(audio);
  summary["types"]["photo"] = Json::Int64(photo);
  summary["types"]["document"] = Json::Int64(document);
  summary["indexing_paused"] = globally_paused;
  output = summary;
}

void FolderReindex(const Json::Value& paths) {
  const std::vector<std::string> list = PathsOf(paths);
  const Caller caller = CurrentCaller();
  const auto readable = ReadableMap(caller, list);
  PrivilegeScope privilege;
  Store& store = Store::Shared();
  QueueBatch batch;
  for (const auto& path : list) {
    ChangeableRow(store, caller, path, readable);
    Enqueue(&batch, path, kQueueReindex);
  }
  Flush(batch);
}

}  // namespace fileindex
}  // namespace kestondri
