#include "store.h"

#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>
#include <vector>

#include "common/error.h"

namespace kestondri {
namespace db {
namespace {

std::mutex& AccessMutex() {
  static std::mutex mutex;
  return mutex;
}

[[noreturn]] void Fail(const std::string& what) { throw Error(kErrPlatform, what); }

[[noreturn]] void FailSqlite(sqlite3* db, const std::string& what) {
  Fail(what + ": " + (db ? sqlite3_errmsg(db) : "out of memory"));
}

void ServiceIds(uid_t* uid, gid_t* gid) {
  std::vector<char> buffer(4096);
  passwd pw{};
  passwd* result = nullptr;
  int rc;
  while ((rc = getpwnam_r(kServiceUserName, &pw, buffer.data(), buffer.size(), &result)) ==
         ERANGE) {
    buffer.resize(buffer.size() * 2);
  }
  if (rc != 0 || !result) Fail(std::string("service user not found: ") + kServiceUserName);
  *uid = pw.pw_uid;
  *gid = pw.pw_gid;
}

// Root for the lifetime of the object, then the effective uid it found.
class RootPrivilege {
 public:
  RootPrivilege() : euid_(geteuid()) {
    if (euid_ != 0 && seteuid(0) != 0) Fail("cannot take privilege to reach the database");
  }
  ~RootPrivilege() {
    if (euid_ != 0 && seteuid(euid_) != 0) {
      // Going on as root would hand the caller more than it had: stop here.
      abort();
    }
  }
  RootPrivilege(const RootPrivilege&) = delete;
  RootPrivilege& operator=(const RootPrivilege&) = delete;

 private:
  uid_t euid_;
};

// The folder and the file exist, belong to the service user and are closed
// to everyone else. Runs as root.
void PrepareFiles() {
  uid_t uid;
  gid_t gid;
  ServiceIds(&uid, &gid);
  const std::string parent = std::string(kDBFolder).substr(0, std::string(kDBFolder).rfind('/'));
  if (mkdir(parent.c_str(), 0755) != 0 && errno != EEXIST) Fail("cannot create " + parent);
  if (mkdir(kDBFolder, 0700) != 0 && errno != EEXIST) {
    Fail(std::string("cannot create ") + kDBFolder);
  }
  // The folder may have been made by another of the package's libraries
  // (the folder store lives below it) as root's: SQLite writes its journal
  // beside the database as the service user, so the folder is handed over
  // whoever made it. Only root can write its parent, so it is no planted link.
  struct stat folder {};
  if (lstat(kDBFolder, &folder) != 0 || !S_ISDIR(folder.st_mode)) {
    Fail(std::string("cannot use ") + kDBFolder);
  }
  if ((folder.st_uid != uid || folder.st_gid != gid) && chown(kDBFolder, uid, gid) != 0) {
    Fail(std::string("cannot hand over ") + kDBFolder);
  }
  if ((folder.st_mode & 07777) != 0700 && chmod(kDBFolder, 0700) != 0) {
    Fail(std::string("cannot secure ") + kDBFolder);
  }
  const int fd = open(kDBPath, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) Fail(std::string("cannot open ") + kDBPath);
  struct stat st {};
  bool ok = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
  if (ok && (st.st_uid != uid || st.st_gid != gid)) ok = fchown(fd, uid, gid) == 0;
  if (ok && (st.st_mode & 07777) != 0600) ok = fchmod(fd, 0600) == 0;
  close(fd);
  errno = 0;
  if (!ok) Fail(std::string("cannot secure ") + kDBPath);
}

constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS search_history ("
    " id INTEGER PRIMARY KEY AUTOINCREMENT,"
    " uid INTEGER NOT NULL,"
    " keyword TEXT NOT NULL,"
    " time INTEGER NOT NULL);"
    "CREATE INDEX IF NOT EXISTS search_history_uid ON search_history (uid, time);"
    "CREATE TABLE IF NOT EXISTS preference ("
    " uid INTEGER NOT NULL,"
    " key TEXT NOT NULL,"
    " value TEXT NOT NULL,"
    " PRIMARY KEY (uid, key));";

void Exec(sqlite3* db, const char* sql) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql, nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string text = message ? message : sqlite3_errmsg(db);
    sqlite3_free(message);
    Fail(std::string("database statement failed: ") + text);
  }
}

struct Connection {
  sqlite3* db = nullptr;
  ~Connection() { sqlite3_close_v2(db); }
};

}  // namespace

uid_t CallerUID() { return geteuid(); }

bool CallerMayTouch(uid_t uid) {
  const uid_t caller = geteuid();
  if (caller == 0 || caller == uid) return true;
  // Looked up on each call: the account database may change under a
  // long-running process.
  uid_t service_uid;
  gid_t service_gid;
  try {
    ServiceIds(&service_uid, &service_gid);
  } catch (const Error&) {
    return false;
  }
  return caller == service_uid;
}

void WithDatabase(const std::function<void(sqlite3*)>& work) {
  std::lock_guard<std::mutex> lock(AccessMutex());
  const int saved_errno = errno;
  {
    RootPrivilege privilege;
    PrepareFiles();
    Connection conn;
    if (sqlite3_open_v2(kDBPath, &conn.db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_FULLMUTEX,
                        nullptr) != SQLITE_OK) {
      FailSqlite(conn.db, "cannot open the database");
    }
    sqlite3_busy_timeout(conn.db, kBusyTimeoutMs);
    Exec(conn.db, "PRAGMA journal_mode=WAL");
    Exec(conn.db, "PRAGMA synchronous=NORMAL");
    Exec(conn.db, "BEGIN IMMEDIATE");
    try {
      Exec(conn.db, kSchema);
      work(conn.db);
      Exec(conn.db, "COMMIT");
    } catch (...) {
      sqlite3_exec(conn.db, "ROLLBACK", nullptr, nullptr, nullptr);
      throw;
    }
  }
  errno = saved_errno;
}

Statement::Statement(sqlite3* db, const char* sql) : db_(db) {
  if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) {
    FailSqlite(db, "cannot prepare a statement");
  }
}

Statement::~Statement() { sqlite3_finalize(stmt_); }

Statement& Statement::Bind(int index, int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) FailSqlite(db_, "cannot bind");
  return *this;
}

Statement& Statement::Bind(int index, const std::string& value) {
  if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    FailSqlite(db_, "cannot bind");
  }
  return *this;
}

bool Statement::Step() {
  const int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  FailSqlite(db_, "statement failed");
}

void Statement::Run() {
  while (Step()) {
  }
}

int64_t Statement::Int(int column) const { return sqlite3_column_int64(stmt_, column); }

std::string Statement::Text(int column) const {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, column));
  return text ? std::string(text, static_cast<size_t>(sqlite3_column_bytes(stmt_, column)))
              : std::string();
}

}  // namespace db
}  // namespace kestondri
