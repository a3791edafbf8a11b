#include "service/share_index.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <vector>

#include "extract/extractor.h"
#include "index_schema.h"
#include "kest/klib.h"

namespace kestondri {
namespace indexer {
namespace {

// What an indexed document says about its file, to tell whether it changed.
struct Known {
  Xapian::docid id = 0;
  int64_t mtime = 0;
  uint64_t size = 0;
  uint32_t owner = 0;
  bool is_dir = false;
  double written = 0;    // kSlotWritten
  std::string identity;  // kSlotIdentity
};

// Set in a new database until its first walk of every folder is complete.
constexpr char kFillingKey[] = "kestondri:filling";
// Beside the database: a new one being built while the old one answers,
// and a compacted copy before it takes the database's place.
constexpr char kBuildSuffix[] = ".new";
constexpr char kCompactSuffix[] = ".compact";

// Swaps the folders `a` and `b` at once, so that readers find one database
// or the other at each path, never none. Without the kernel's exchange
// (a file system that lacks it) by three renames.
bool Exchange(const std::string& a, const std::string& b) {
  if (renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0) return true;
  if (errno != EINVAL && errno != ENOSYS && errno != EPERM) return false;
  const std::string aside = b + ".old";
  if (rename(b.c_str(), aside.c_str()) != 0) return false;
  if (rename(a.c_str(), b.c_str()) != 0) {
    rename(aside.c_str(), b.c_str());
    return false;
  }
  return rename(aside.c_str(), a.c_str()) == 0;
}

void RemoveTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

// The metadata key that holds when a reindex of `path` began.
constexpr char kReindexKeyPrefix[] = "kestondri:reindex:";
std::string ReindexKey(const std::string& path) {
  return index::ExactTerm(kReindexKeyPrefix, path);
}

// Microseconds since the epoch: a double holds them exactly for ages.
double NowMicros() {
  return static_cast<double>(std::chrono::duration_cast<std::chrono::microseconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                 .count());
}

// The package's own data, and what the walk never follows.
bool Skipped(const char* name) {
  return strncmp(name, "@kestondri", 10) == 0 || strcmp(name, "@eaDir") == 0;
}

bool MakeIndexDir(const std::string& dir) {
  if (mkdir(dir.c_str(), 0700) == 0) return chown(dir.c_str(), 0, 0) == 0;
  return errno == EEXIST;
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

ShareIndex::ShareIndex(std::string share_path, CommitPolicy policy, const std::string& language)
    : share_path_(std::move(share_path)), policy_(policy), asked_language_(language) {
  char db[4096] = {0};
  if (FILEIDXDBPathCompose(share_path_.c_str(), db, sizeof db) == 0) db_path_ = db;
  const std::string wanted = language.empty() ? index::kDefaultLanguage : language;
  if (!index::Stemmer::Make(wanted, &stemmer_)) {
    syslog(LOG_WARNING, "index of %s: no stemmer for \"%s\"; %s is used", share_path_.c_str(),
           wanted.c_str(), index::kDefaultLanguage);
    index::Stemmer::Make(index::kDefaultLanguage, &stemmer_);
  }
}

void ShareIndex::Stamp(Xapian::WritableDatabase& db) const {
  db.set_metadata(index::kFormatKey, index::kFormatVersion);
  db.set_metadata(index::kLanguageKey, stemmer_.language());
}

bool ShareIndex::Current(const Xapian::Database& db) const {
  return db.get_metadata(index::kFormatKey) == index::kFormatVersion &&
         db.get_metadata(index::kLanguageKey) == stemmer_.language();
}

ShareIndex::~ShareIndex() {
  try {
    Close();
  } catch (const Xapian::Error& e) {
    syslog(LOG_ERR, "index %s: commit failed: %s", db_path_.c_str(), e.get_description().c_str());
  }
}

bool ShareIndex::Open(std::string* error) {
  if (db_) return true;
  struct stat st;
  if (db_path_.empty()) {
    *error = "no index path for " + share_path_;
    return false;
  }
  if (stat(share_path_.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    *error = "share folder " + share_path_ + " is missing";
    return false;
  }
  // <volume>/@kestondri/index holds the text of private files: root's only.
  const std::string index_dir = db_path_.substr(0, db_path_.rfind('/'));
  if (!MakeIndexDir(index_dir.substr(0, index_dir.rfind('/'))) || !MakeIndexDir(index_dir)) {
    *error = "cannot create " + index_dir + ": " + strerror(errno);
    return false;
  }
  if (damaged_) {
    damaged_ = false;
    return Rebuild(error);
  }
  try {
    db_.reset(new Xapian::WritableDatabase(db_path_, Xapian::DB_CREATE_OR_OPEN));
    if (db_->get_metadata(index::kFormatKey).empty() && db_->get_doccount() == 0) {
      Stamp(*db_);
      db_->set_metadata(kFillingKey, "1");
      db_->commit();
    }
    if (!Current(*db_)) return Upgrade(error);
    fresh_ = db_->get_metadata(kFillingKey) == "1";
    // A rebuild after damage that a stop cut short: readers stay away
    // until it is complete.
    rebuilding_ = fresh_ && access((db_path_ + ".checking").c_str(), F_OK) == 0;
  } catch (const Xapian::DatabaseLockError& e) {
    db_.reset();
    *error = e.get_description();  // another writer: try again later
    return false;
  } catch (const Xapian::Error& e) {
    db_.reset();
    syslog(LOG_ERR, "index %s is damaged (%s); it is built again", db_path_.c_str(),
           e.get_description().c_str());
    return Rebuild(error);
  }
  // What an upgrade or a compaction that was cut short left beside it.
  RemoveTree(db_path_ + kBuildSuffix);
  RemoveTree(db_path_ + kCompactSuffix);
  pending_ = 0;
  return true;
}

// The old database stays where readers find it; the new one is built
// beside it from the disk. A build cut short (a stop, a restart) goes on
// where it was.
bool ShareIndex::Upgrade(std::string* error) {
  db_->close();
  db_.reset();
  const std::string build = db_path_ + kBuildSuffix;
  try {
    std::unique_ptr<Xapian::WritableDatabase> db(
        new Xapian::WritableDatabase(build, Xapian::DB_CREATE_OR_OPEN));
    if (!db->get_metadata(index::kFormatKey).empty() && !Current(*db)) {
      db.reset(new Xapian::WritableDatabase(build, Xapian::DB_CREATE_OR_OVERWRITE));
    }
    if (db->get_metadata(index::kFormatKey).empty()) {
      Stamp(*db);
      db->commit();
    }
    db_ = std::move(db);
  } catch (const Xapian::DatabaseLockError& e) {
    *error = e.get_description();
    return false;
  } catch (const Xapian::Error& e) {
    RemoveTree(build);
    *error = "cannot build " + build + ": " + e.get_description();
    return false;
  }
  if (!upgrading_) {
    syslog(LOG_INFO,
           "index %s: of an older layout or another language; a new one is built beside it, "
           "and takes its place once complete",
           db_path_.c_str());
  }
  upgrading_ = true;
  pending_ = 0;
  return true;
}

// Compacts the database at `from` into a copy that then takes the place of
// db_path_ (whose database `from` may be). False, with nothing changed,
// when that cannot be done (no room on the volume, say).
bool ShareIndex::CompactInPlace(const std::string& from) {
  const std::string copy = db_path_ + kCompactSuffix;
  RemoveTree(copy);
  try {
    // Document ids stay: a client may ask to highlight a hit it found
    // before.
    Xapian::Database(from).compact(copy, Xapian::DBCOMPACT_NO_RENUMBER);
  } catch (const Xapian::Error& e) {
    syslog(LOG_WARNING, "index %s: cannot compact: %s", db_path_.c_str(),
           e.get_description().c_str());
    RemoveTree(copy);
    return false;
  }
  if (!Exchange(copy, db_path_)) {
    syslog(LOG_WARNING, "index %s: cannot put the compacted index in place: %s", db_path_.c_str(),
           strerror(errno));
    RemoveTree(copy);
    return false;
  }
  RemoveTree(copy);
  if (from != db_path_) RemoveTree(from);
  return true;
}

// Readers are kept away by the ".checking" file while the index is empty
// and filling; the damaged database is removed, not kept: it may be as large
// as the volume allows and holds nothing the files do not.
bool ShareIndex::Rebuild(std::string* error) {
  const std::string checking = db_path_ + ".checking";
  const int fd = open(checking.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    *error = "cannot create " + checking + ": " + strerror(errno);
    return false;
  }
  close(fd);
  const std::string aside = db_path_ + ".damaged";
  std::error_code ec;
  std::filesystem::remove_all(aside, ec);
  if (rename(db_path_.c_str(), aside.c_str()) != 0 && errno != ENOENT) {
    *error = "cannot set aside " + db_path_ + ": " + strerror(errno);
    return false;
  }
  std::filesystem::remove_all(aside, ec);
  try {
    db_.reset(new Xapian::WritableDatabase(db_path_, Xapian::DB_CREATE_OR_OPEN));
    Stamp(*db_);
    db_->set_metadata(kFillingKey, "1");
    db_->commit();
  } catch (const Xapian::Error& e) {
    db_.reset();
    *error = e.get_description();
    return false;
  }
  rebuilding_ = true;
  pending_ = 0;
  return true;
}

void ShareIndex::EndRebuild() {
  if (!rebuilding() || !db_) return;
  Commit();
  const std::string from = upgrading_ ? db_path_ + kBuildSuffix : db_path_;
  Close();
  const bool compacted = CompactInPlace(from);
  if (!compacted && upgrading_) {
    // Uncompacted, but of the current layout: better than the old one.
    if (!Exchange(from, db_path_)) {
      syslog(LOG_ERR, "index %s: cannot put the new index in place: %s", db_path_.c_str(),
             strerror(errno));
      return;  // tried again at the next end of a walk
    }
    RemoveTree(from);
  }
  // Only now is the filling over: a stop during the compaction leaves it to
  // the next end of a walk.
  try {
    Xapian::WritableDatabase db(db_path_, Xapian::DB_OPEN);
    db.set_metadata(kFillingKey, "");
    db.commit();
  } catch (const Xapian::Error& e) {
    syslog(LOG_ERR, "index %s: %s", db_path_.c_str(), e.get_description().c_str());
  }
  if (rebuilding_) unlink((db_path_ + ".checking").c_str());
  syslog(LOG_INFO, "index %s is %s", db_path_.c_str(),
         upgrading_    ? "rebuilt in the new layout"
         : rebuilding_ ? "built again"
                       : "built");
  rebuilding_ = fresh_ = upgrading_ = false;
}

void ShareIndex::Close() {
  if (!db_) return;
  std::unique_ptr<Xapian::WritableDatabase> db = std::move(db_);
  if (pending_) db->commit();
  pending_ = 0;
  db->close();
}

void ShareIndex::Commit() {
  if (!db_ || !pending_) return;
  db_->commit();
  pending_ = 0;
}

void ShareIndex::CommitIfDue() {
  if (!pending_) return;
  if (pending_ >= policy_.max_documents ||
      std::chrono::steady_clock::now() - first_pending_ >= policy_.max_delay) {
    Commit();
  }
}

void ShareIndex::Changed() {
  if (pending_++ == 0) first_pending_ = std::chrono::steady_clock::now();
  CommitIfDue();
}

void ShareIndex::ForgetReindex(const std::string& path) {
  if (!db_ || db_->get_metadata(ReindexKey(path)).empty()) return;
  db_->set_metadata(ReindexKey(path), "");
  Changed();
}

void ShareIndex::ForgetAllReindexes() {
  if (!db_) return;
  std::vector<std::string> keys;
  for (auto k = db_->metadata_keys_begin(kReindexKeyPrefix);
       k != db_->metadata_keys_end(kReindexKeyPrefix); ++k) {
    keys.push_back(*k);
  }
  for (const auto& key : keys) {
    db_->set_metadata(key, "");
    Changed();
  }
}

SyncResult ShareIndex::Sync(const std::string& path, SyncMode mode, const FolderTable& folders,
                            Extractor& extractor, const ExtractLimits& limits,
                            const std::function<bool()>& interrupted) {
  SyncResult result;
  if (!db_) return result;
  Xapian::WritableDatabase& db = *db_;

  // A reindex rewrites what was written before it began; after an
  // interruption, documents written since are already new.
  double reindex_began = 0;
  if (mode == SyncMode::kReindex) {
    const std::string key = ReindexKey(path);
    const std::string began = db.get_metadata(key);
    if (began.empty()) {
      reindex_began = NowMicros();
      db.set_metadata(key, Xapian::sortable_serialise(reindex_began));
      Changed();
    } else {
      reindex_began = Xapian::sortable_unserialise(began);
    }
  }

  // Every document at or below `path`. Unique terms keep the first bytes of
  // the path whole, so a prefix scan finds them; the path value decides.
  std::map<std::string, Known> known;
  {
    const std::string unique = index::UniqueTerm(path);
    const std::string prefix = unique.substr(0, std::min(unique.size(), size_t{1} + 160));
    for (auto t = db.allterms_begin(prefix); t != db.allterms_end(prefix); ++t) {
      for (auto p = db.postlist_begin(*t); p != db.postlist_end(*t); ++p) {
        const Xapian::Document doc = db.get_document(*p);
        const std::string doc_path = index::SlotText(doc, index::kSlotPath);
        if (!PathWithin(doc_path, path)) continue;
        Known k;
        k.id = *p;
        k.mtime = static_cast<int64_t>(index::SlotNumber(doc, index::kSlotMTime));
        k.size = static_cast<uint64_t>(index::SlotNumber(doc, index::kSlotSize));
        k.owner = static_cast<uint32_t>(std::stoul("0" + index::SlotText(doc, index::kSlotOwner)));
        k.is_dir = index::SlotText(doc, index::kSlotIsDir) == "1";
        k.written = index::SlotNumber(doc, index::kSlotWritten);
        k.identity = index::SlotText(doc, index::kSlotIdentity);
        known[doc_path] = k;
      }
    }
  }

  std::vector<std::string> kept;  // paused folders: their documents stay as they are

  auto index_one = [&](const std::string& p, const struct stat& st, const IndexedFolder& folder,
                       bool force) {
    const bool is_dir = S_ISDIR(st.st_mode);
    index::FileRecord record;
    record.path = p;
    record.name = BaseName(p);
    record.folders = index::FoldersBetween(share_path_, p);
    record.is_dir = is_dir;
    record.extension = index::ExtensionOfName(record.name, is_dir);
    const std::string type = is_dir ? "folder" : index::FileTypeOfExtension(record.extension);
    auto it = known.find(p);
    const bool wanted = folder.WantsType(type);
    if (!wanted) return;  // left in `known`: removed below
    record.size = is_dir ? 0 : static_cast<uint64_t>(st.st_size);
    record.mtime = st.st_mtime;
    record.owner_uid = st.st_uid;
    record.identity = index::FileIdentity(st);
    if (it != known.end()) {
      const Known& k = it->second;
      // Another file under the same name, or a chmod, is a change too: the
      // daemon hides a document whose identity the path no longer has.
      const bool same = k.mtime == record.mtime && k.size == record.size &&
                        k.owner == record.owner_uid && k.is_dir == is_dir &&
                        k.identity == record.identity;
      const bool fresh = mode == SyncMode::kUpdate || k.written >= reindex_began;
      known.erase(it);
      if (same && fresh && !force) return;
    }
    if (!is_dir) {
      ExtractResult extracted = extractor.Extract(p, limits);
      record.text = std::move(extracted.text);
      // Whatever was read came from one file only if the name held the same
      // file before and after: renaming or linking a file moves its ctime,
      // so a file swapped in and back out shows. Otherwise the document
      // stays unverified (shown to nobody filtered) and the change that
      // moved it brings the next pass.
      struct stat after;
      if (lstat(p.c_str(), &after) != 0 || index::FileIdentity(after) != record.identity) {
        record.identity.clear();
      }
    }
    Xapian::Document doc = index::MakeDocument(record, stemmer_);
    doc.add_value(index::kSlotWritten, Xapian::sortable_serialise(NowMicros()));
    db.replace_document(index::UniqueTerm(p), doc);
    ++result.changed;
    Changed();
  };

  struct stat st;
  if (lstat(path.c_str(), &st) == 0 && (S_ISDIR(st.st_mode) || S_ISREG(st.st_mode)) &&
      PathWithin(path, share_path_)) {
    std::vector<std::string> dirs;
    auto visit = [&](const std::string& p, const struct stat& s, bool force) {
      const IndexedFolder* folder = folders.Governing(p);
      if (folder && folder->paused) {
        kept.push_back(folder->path);
        return;
      }
      if (folder) index_one(p, s, *folder, force);
      // Below a folder nobody indexes there may still be indexed folders.
      if (S_ISDIR(s.st_mode) && (folder || !folders.Within(p).empty())) dirs.push_back(p);
    };
    visit(path, st, mode == SyncMode::kUpdate);
    while (!dirs.empty()) {
      if (interrupted()) return result;
      const std::string dir = dirs.back();
      dirs.pop_back();
      DIR* d = opendir(dir.c_str());
      if (!d) {
        syslog(LOG_WARNING, "index: cannot read folder %s: %s", dir.c_str(), strerror(errno));
        continue;
      }
      std::vector<std::string> names;
      while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0 || Skipped(e->d_name)) {
          continue;
        }
        names.emplace_back(e->d_name);
      }
      closedir(d);
      for (const auto& name : names) {
        if (interrupted()) return result;
        const std::string child = dir == "/" ? "/" + name : dir + "/" + name;
        struct stat cs;
        if (lstat(child.c_str(), &cs) != 0) continue;  // gone meanwhile: removed below
        // Symbolic links, devices, sockets: not files of the share.
        if (!S_ISDIR(cs.st_mode) && !S_ISREG(cs.st_mode)) continue;
        visit(child, cs, false);
      }
    }
  }

  for (const auto& entry : known) {
    bool keep = false;
    for (const auto& k : kept) keep = keep || PathWithin(entry.first, k);
    if (keep) continue;
    if (interrupted()) return result;
    db.delete_document(entry.second.id);
    ++result.changed;
    Changed();
  }
  if (mode == SyncMode::kReindex) {
    ForgetReindex(path);
    // Rewriting a large part of the index leaves it as loose as a new one:
    // it is compacted too once the queue is worked off (EndRebuild).
    if (!rebuilding() && result.changed * 2 >= db.get_doccount()) {
      db.set_metadata(kFillingKey, "1");
      Changed();
      fresh_ = true;
    }
  }
  result.completed = true;
  return result;
}

}  // namespace indexer
}  // namespace kestondri
