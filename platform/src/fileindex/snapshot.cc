#include "snapshot.h"

#include <fcntl.h>
#include <json/json.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace kestondri {
namespace fileindex {
namespace {

// A snapshot larger than this is not read: the store never gets near it.
constexpr off_t kMaxSnapshotSize = 64 << 20;

// Which state of which database file: the header's change counter, and the
// file itself with its modification time, so that a database replaced by
// another file, or overwritten in place by a copy (whose counter may be the
// same), does not match the old file's snapshot.
struct Stamp {
  uint32_t counter = 0;
  dev_t dev = 0;
  ino_t ino = 0;
  int64_t mtime_ns = 0;
  bool operator==(const Stamp& other) const {
    return counter == other.counter && dev == other.dev && ino == other.ino &&
           mtime_ns == other.mtime_ns;
  }
};

// False when there is no database or it is not one.
bool ReadStamp(Stamp* stamp) {
  const int fd = open(kStorePath, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  unsigned char header[28];
  struct stat st;
  const bool ok = fstat(fd, &st) == 0 &&
                  pread(fd, header, sizeof(header), 0) == static_cast<ssize_t>(sizeof(header)) &&
                  memcmp(header, "SQLite format 3", 16) == 0;
  close(fd);
  if (!ok) return false;
  stamp->counter = (uint32_t{header[24]} << 24) | (uint32_t{header[25]} << 16) |
                   (uint32_t{header[26]} << 8) | uint32_t{header[27]};
  stamp->dev = st.st_dev;
  stamp->ino = st.st_ino;
  stamp->mtime_ns = int64_t{st.st_mtim.tv_sec} * 1000000000 + st.st_mtim.tv_nsec;
  return true;
}

std::string StampText(const Stamp& stamp) {
  return std::to_string(stamp.counter) + "/" + std::to_string(stamp.dev) + "/" +
         std::to_string(stamp.ino) + "/" + std::to_string(stamp.mtime_ns);
}

bool ReadWhole(const char* path, std::string* text) {
  const int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st;
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < kMaxSnapshotSize;
  if (ok) {
    text->resize(static_cast<size_t>(st.st_size));
    size_t done = 0;
    while (ok && done < text->size()) {
      const ssize_t n = read(fd, &(*text)[done], text->size() - done);
      if (n < 0 && errno == EINTR) continue;
      ok = n > 0;
      if (ok) done += static_cast<size_t>(n);
    }
  }
  close(fd);
  return ok;
}

}  // namespace

bool ParseSnapshot(const std::string& text, const std::string& stamp, StoreContents* contents) {
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr) || !root.isObject() ||
      !root["stamp"].isString() || root["stamp"].asString() != stamp || !root["rows"].isArray() ||
      !root["pause"].isArray() || root["pause"].size() != 3) {
    return false;
  }
  StoreContents loaded;
  const Json::Value& pause = root["pause"];
  if (!pause[0].isBool() || !pause[1].isInt64() || !pause[2].isInt64()) return false;
  loaded.paused = pause[0].asBool();
  loaded.until = pause[1].asInt64();
  loaded.changed = pause[2].asInt64();
  for (const Json::Value& item : root["rows"]) {
    if (!item.isArray() || item.size() != 10) return false;
    for (Json::ArrayIndex i = 0; i < 4; ++i) {
      if (!item[i].isString()) return false;
    }
    for (Json::ArrayIndex i = 4; i < 9; ++i) {
      if (!item[i].isBool()) return false;
    }
    if (!item[9].isInt64()) return false;
    FolderRow row;
    row.path = item[0].asString();
    row.name = item[1].asString();
    row.owner = item[2].asString();
    row.share = item[3].asString();
    row.paused = item[4].asBool();
    row.video = item[5].asBool();
    row.audio = item[6].asBool();
    row.photo = item[7].asBool();
    row.document = item[8].asBool();
    row.created = item[9].asInt64();
    loaded.rows.push_back(std::move(row));
  }
  *contents = std::move(loaded);
  return true;
}

namespace {

bool LoadSnapshot(const Stamp& stamp, StoreContents* contents) {
  std::string text;
  return ReadWhole(kSnapshotPath, &text) && ParseSnapshot(text, StampText(stamp), contents);
}

// Best effort: a snapshot that cannot be written is read from the database
// next time, nothing worse.
void SaveSnapshot(const Stamp& stamp, const StoreContents& contents) {
  Json::Value root(Json::objectValue);
  root["stamp"] = StampText(stamp);
  Json::Value& pause = root["pause"] = Json::Value(Json::arrayValue);
  pause.append(contents.paused);
  pause.append(Json::Int64(contents.until));
  pause.append(Json::Int64(contents.changed));
  Json::Value& rows = root["rows"] = Json::Value(Json::arrayValue);
  for (const FolderRow& row : contents.rows) {
    Json::Value item(Json::arrayValue);
    item.append(row.path);
    item.append(row.name);
    item.append(row.owner);
    item.append(row.share);
    item.append(row.paused);
    item.append(row.video);
    item.append(row.audio);
    item.append(row.photo);
    item.append(row.document);
    item.append(Json::Int64(row.created));
    rows.append(std::move(item));
  }
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  const std::string text = Json::writeString(builder, root);

  std::string temporary = std::string(kSnapshotPath) + ".XXXXXX";
  const int fd = mkostemp(&temporary[0], O_CLOEXEC);  // mode 0600
  if (fd < 0) return;
  bool ok = true;
  for (size_t done = 0; ok && done < text.size();) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    ok = n > 0;
    if (ok) done += static_cast<size_t>(n);
  }
  ok = close(fd) == 0 && ok;
  if (!ok || rename(temporary.c_str(), kSnapshotPath) != 0) unlink(temporary.c_str());
}

}  // namespace

StoreContents ReadStoreContents() {
  const int saved_errno = errno;
  StoreContents contents;
  Stamp before;
  const bool stamped = ReadStamp(&before);
  if (stamped && LoadSnapshot(before, &contents)) {
    errno = saved_errno;
    return contents;
  }
  Store& store = Store::Shared();
  contents.rows = store.All();
  store.GetPause(&contents.paused, &contents.until, &contents.changed);
  // Only when no commit came between the two stamps: then the contents are
  // exactly those of that stamp.
  Stamp after;
  if (stamped && ReadStamp(&after) && after == before) SaveSnapshot(before, contents);
  errno = saved_errno;
  return contents;
}

}  // namespace fileindex
}  // namespace kestondri
