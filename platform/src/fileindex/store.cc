#include "store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>

#include "common/error.h"
#include "snapshot.h"

namespace kestondri {
namespace fileindex {
namespace {

struct StmtFinalize {
  void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using Stmt = std::unique_ptr<sqlite3_stmt, StmtFinalize>;

constexpr int kSchemaVersion = 1;
constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS folders ("
    " path TEXT PRIMARY KEY NOT NULL,"
    " name TEXT NOT NULL,"
    " owner TEXT NOT NULL,"
    " share TEXT NOT NULL,"
    " paused INTEGER NOT NULL,"
    " video INTEGER NOT NULL,"
    " audio INTEGER NOT NULL,"
    " photo INTEGER NOT NULL,"
    " document INTEGER NOT NULL,"
    " created INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS folders_owner ON folders(owner);"
    "CREATE TABLE IF NOT EXISTS pause ("
    " id INTEGER PRIMARY KEY CHECK (id = 1),"
    " paused INTEGER NOT NULL,"
    " until INTEGER NOT NULL,"
    " changed INTEGER NOT NULL);";

// Creates `path` when missing; mode and owner are set only on folders it
// creates, except for the store's own folder, which is always made private.
void EnsureDir(const std::string& path, mode_t mode, bool enforce) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) {
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST) {
      throw Error(kErrPlatform, "cannot create " + path);
    }
    enforce = true;
  } else if (!S_ISDIR(st.st_mode)) {
    throw Error(kErrPlatform, path + " is not a folder");
  }
  if (enforce && (chown(path.c_str(), 0, 0) != 0 || chmod(path.c_str(), mode) != 0)) {
    throw Error(kErrPlatform, "cannot secure " + path);
  }
}

FolderRow RowOf(sqlite3_stmt* stmt) {
  FolderRow row;
  auto text = [stmt](int col) {
    const unsigned char* t = sqlite3_column_text(stmt, col);
    return t ? std::string(reinterpret_cast<const char*>(t)) : std::string();
  };
  row.path = text(0);
  row.name = text(1);
  row.owner = text(2);
  row.share = text(3);
  row.paused = sqlite3_column_int(stmt, 4) != 0;
  row.video = sqlite3_column_int(stmt, 5) != 0;
  row.audio = sqlite3_column_int(stmt, 6) != 0;
  row.photo = sqlite3_column_int(stmt, 7) != 0;
  row.document = sqlite3_column_int(stmt, 8) != 0;
  row.created = sqlite3_column_int64(stmt, 9);
  return row;
}

constexpr char kColumns[] =
    "path, name, owner, share, paused, video, audio, photo, document, created";

}  // namespace

Store::Store() : db_(nullptr) {
  try {
    EnsureDir("/var/packages/KestOndri", 0755, false);
    EnsureDir("/var/packages/KestOndri/var", 0755, false);
    EnsureDir(kStoreDir, 0700, true);
    const int rc =
        sqlite3_open_v2(kStorePath, &db_,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    if (rc != SQLITE_OK) Fail("cannot open the folder store");
    sqlite3_busy_timeout(db_, 10000);
    // A new file got the caller's effective gid: hand it to root alone.
    struct stat st;
    if (stat(kStorePath, &st) != 0 || st.st_uid != 0 || st.st_gid != 0 ||
        (st.st_mode & 07777) != 0600) {
      if (chown(kStorePath, 0, 0) != 0 || chmod(kStorePath, 0600) != 0) {
        Fail("cannot secure the folder store");
      }
    }
    if (SchemaVersion() != kSchemaVersion) {
      // A new database: whatever snapshot lies beside it describes another.
      unlink(kSnapshotPath);
      Exec(kSchema);
      Exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str());
    }
  } catch (...) {
    sqlite3_close_v2(db_);
    throw;
  }
}

Store& Store::Shared() {
  struct Cached {
    std::unique_ptr<Store> store;
    pid_t pid = 0;
    dev_t dev = 0;
    ino_t ino = 0;
  };
  thread_local Cached cached;
  struct stat st;
  const bool present = stat(kStorePath, &st) == 0;
  const pid_t pid = getpid();
  if (cached.store && cached.pid == pid && present && st.st_dev == cached.dev &&
      st.st_ino == cached.ino) {
    return *cached.store;
  }
  // A parent's connection is left untouched, not even closed: SQLite's
  // closing would act on the file (its journal) for a connection whose
  // transaction, if any, belongs to the parent.
  if (cached.pid != pid) (void)cached.store.release();
  cached.store.reset();
  auto store = std::make_unique<Store>();
  if (stat(kStorePath, &st) != 0) throw Error(kErrPlatform, "folder store vanished while opened");
  cached = Cached{std::move(store), pid, st.st_dev, st.st_ino};
  return *cached.store;
}

Store::~Store() { sqlite3_close_v2(db_); }

void Store::Fail(const std::string& what) {
  std::string reason = "folder store: " + what;
  if (db_) reason += ": " + std::string(sqlite3_errmsg(db_));
  errno = 0;
  throw Error(kErrPlatform, reason);
}

int Store::SchemaVersion() {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_, "PRAGMA user_version", -1, &raw, nullptr) != SQLITE_OK) {
    Fail("schema version");
  }
  Stmt stmt(raw);
  if (sqlite3_step(raw) != SQLITE_ROW) Fail("schema version");
  return sqlite3_column_int(raw, 0);
}

void Store::Exec(const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message ? message : "?";
    sqlite3_free(message);
    Fail(text);
  }
}

std::vector<FolderRow> Store::All() {
  sqlite3_stmt* raw = nullptr;
  const std::string sql = std::string("SELECT ") + kColumns + " FROM folders ORDER BY path";
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) Fail("select");
  Stmt stmt(raw);
  std::vector<FolderRow> rows;
  int rc;
  while ((rc = sqlite3_step(raw)) == SQLITE_ROW) rows.push_back(RowOf(raw));
  if (rc != SQLITE_DONE) Fail("select");
  return rows;
}

bool Store::Get(const std::string& path, FolderRow* row) {
  sqlite3_stmt* raw = nullptr;
  const std::string sql = std::string("SELECT ") + kColumns + " FROM folders WHERE path = ?1";
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) Fail("select");
  Stmt stmt(raw);
  sqlite3_bind_text(raw, 1, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
  const int rc = sqlite3_step(raw);
  if (rc == SQLITE_ROW) {
    *row = RowOf(raw);
    return true;
  }
  if (rc != SQLITE_DONE) Fail("select");
  return false;
}

void Store::Insert(const FolderRow& row) {
  sqlite3_stmt* raw = nullptr;
  const std::string sql = std::string("INSERT INTO folders (") + kColumns +
                          ") VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)";
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) Fail("insert");
  Stmt stmt(raw);
  auto bind_text = [raw](int i, const std::string& s) {
    sqlite3_bind_text(raw, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
  };
  bind_text(1, row.path);
  bind_text(2, row.name);
  bind_text(3, row.owner);
  bind_text(4, row.share);
  sqlite3_bind_int(raw, 5, row.paused);
  sqlite3_bind_int(raw, 6, row.video);
  sqlite3_bind_int(raw, 7, row.audio);
  sqlite3_bind_int(raw, 8, row.photo);
  sqlite3_bind_int(raw, 9, row.document);
  sqlite3_bind_int64(raw, 10, row.created);
  if (sqlite3_step(raw) != SQLITE_DONE) Fail("insert " + row.path);
}

void Store::Update(const FolderRow& row) {
  sqlite3_stmt* raw = nullptr;
  const char* sql =
      "UPDATE folders SET name = ?2, owner = ?3, paused = ?4, video = ?5, audio = ?6, photo = ?7,"
      " document = ?8 WHERE path = ?1";
  if (sqlite3_prepare_v2(db_, sql, -1, &raw, nullptr) != SQLITE_OK) Fail("update");
  Stmt stmt(raw);
  auto bind_text = [raw](int i, const std::string& s) {
    sqlite3_bind_text(raw, i, s.data(), static_cast<int>(s.size()), SQLITE_TRANSIENT);
  };
  bind_text(1, row.path);
  bind_text(2, row.name);
  bind_text(3, row.owner);
  sqlite3_bind_int(raw, 4, row.paused);
  sqlite3_bind_int(raw, 5, row.video);
  sqlite3_bind_int(raw, 6, row.audio);
  sqlite3_bind_int(raw, 7, row.photo);
  sqlite3_bind_int(raw, 8, row.document);
  if (sqlite3_step(raw) != SQLITE_DONE) Fail("update " + row.path);
}

void Store::Delete(const std::string& path) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_, "DELETE FROM folders WHERE path = ?1", -1, &raw, nullptr) !=
      SQLITE_OK) {
    Fail("delete");
  }
  Stmt stmt(raw);
  sqlite3_bind_text(raw, 1, path.data(), static_cast<int>(path.size()), SQLITE_TRANSIENT);
  if (sqlite3_step(raw) != SQLITE_DONE) Fail("delete " + path);
}

void Store::GetPause(bool* paused, int64_t* until, int64_t* changed) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_, "SELECT paused, until, changed FROM pause WHERE id = 1", -1, &raw,
                         nullptr) != SQLITE_OK) {
    Fail("select pause");
  }
  Stmt stmt(raw);
  const int rc = sqlite3_step(raw);
  *paused = false;
  *until = 0;
  *changed = 0;
  if (rc == SQLITE_ROW) {
    *paused = sqlite3_column_int(raw, 0) != 0;
    *until = sqlite3_column_int64(raw, 1);
    *changed = sqlite3_column_int64(raw, 2);
  } else if (rc != SQLITE_DONE) {
    Fail("select pause");
  }
}

void Store::SetPause(bool paused, int64_t until, int64_t changed) {
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_,
                         "INSERT OR REPLACE INTO pause (id, paused, until, changed)"
                         " VALUES (1, ?1, ?2, ?3)",
                         -1, &raw, nullptr) != SQLITE_OK) {
    Fail("update pause");
  }
  Stmt stmt(raw);
  sqlite3_bind_int(raw, 1, paused);
  sqlite3_bind_int64(raw, 2, until);
  sqlite3_bind_int64(raw, 3, changed);
  if (sqlite3_step(raw) != SQLITE_DONE) Fail("update pause");
}

Store::Transaction::Transaction(Store& store) : store_(store), done_(false) {
  store_.Exec("BEGIN IMMEDIATE");
}

Store::Transaction::~Transaction() {
  if (!done_) sqlite3_exec(store_.db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

void Store::Transaction::Commit() {
  store_.Exec("COMMIT");
  done_ = true;
}

}  // namespace fileindex
}  // namespace kestondri
