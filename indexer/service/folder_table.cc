#include "service/folder_table.h"

#include <algorithm>
#include <cstdint>
#include <limits>

#include "kestondri/fileindex.h"

namespace kestondri {
namespace indexer {

bool IndexedFolder::WantsType(const std::string& type) const {
  if (type == "document") return document;
  if (type == "photo") return photo;
  if (type == "video") return video;
  if (type == "audio") return audio;
  return true;  // folders and other files are always indexed by name
}

bool PathWithin(const std::string& path, const std::string& dir) {
  if (dir == "/") return !path.empty() && path[0] == '/';
  return path.size() >= dir.size() && path.compare(0, dir.size(), dir) == 0 &&
         (path.size() == dir.size() || path[dir.size()] == '/');
}

FolderTable::FolderTable(std::vector<IndexedFolder> folders) : folders_(std::move(folders)) {
  std::sort(folders_.begin(), folders_.end(),
            [](const IndexedFolder& a, const IndexedFolder& b) { return a.path < b.path; });
  // Folders sort before the folders they hold, so the nearest holder of
  // each is merged already; only folders that are not paused add wishes.
  merged_.reserve(folders_.size());
  for (size_t i = 0; i < folders_.size(); ++i) {
    IndexedFolder m = folders_[i];
    if (m.paused) m.video = m.audio = m.photo = m.document = false;
    const size_t slash = m.path.rfind('/');
    if (const IndexedFolder* holder = slash > 0 ? Governing(m.path.substr(0, slash)) : nullptr) {
      m.paused = m.paused && holder->paused;
      m.video = m.video || holder->video;
      m.audio = m.audio || holder->audio;
      m.photo = m.photo || holder->photo;
      m.document = m.document || holder->document;
    }
    merged_.push_back(m);
  }
}

std::shared_ptr<const FolderTable> FolderTable::Load() {
  Json::Value page;
  fileindex::FolderList(page, 0, std::numeric_limits<uint64_t>::max(), "path", "asc", "all", "",
                        Json::Value(Json::arrayValue));
  std::vector<IndexedFolder> folders;
  for (const auto& entry : page["folders"]) {
    IndexedFolder f;
    f.path = entry["path"].asString();
    while (f.path.size() > 1 && f.path.back() == '/') f.path.pop_back();
    f.share = entry["share"].asString();
    std::string share_name;
    fileindex::GetShareNamePathByFullPath(f.path, share_name, f.share_path);
    if (f.share_path.empty()) continue;  // its share is gone: nothing to index into
    f.share = share_name;
    f.paused = entry["paused"].asBool();
    f.video = entry["video"].asBool();
    f.audio = entry["audio"].asBool();
    f.photo = entry["photo"].asBool();
    f.document = entry["document"].asBool();
    folders.push_back(f);
  }
  return std::make_shared<const FolderTable>(std::move(folders));
}

const IndexedFolder* FolderTable::Governing(const std::string& path) const {
  // The deepest folder holding `path` is the longest of its leading parts
  // that is a folder: a few binary searches rather than a look at each.
  for (size_t end = path.size(); end != std::string::npos && end > 0;
       end = path.rfind('/', end - 1)) {
    const std::string part = path.substr(0, end);
    auto it =
        std::lower_bound(merged_.begin(), merged_.end(), part,
                         [](const IndexedFolder& f, const std::string& p) { return f.path < p; });
    if (it != merged_.end() && it->path == part) return &*it;
  }
  return nullptr;
}

std::vector<const IndexedFolder*> FolderTable::Within(const std::string& path) const {
  std::vector<const IndexedFolder*> out;
  for (const auto& f : folders_) {
    if (PathWithin(f.path, path)) out.push_back(&f);
  }
  return out;
}

std::map<std::string, std::string> FolderTable::SharePaths() const {
  std::map<std::string, std::string> out;
  for (const auto& f : folders_) out[f.share] = f.share_path;
  return out;
}

}  // namespace indexer
}  // namespace kestondri
