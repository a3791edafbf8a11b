// The package database file and the privilege taken to reach it, shared by
// the database and preference libraries (not installed as a public header).
//
// The file belongs to the service user "KestOndri" and is readable by no one
// else, while its callers run as whichever user the web request acts for.
// Every access therefore takes privilege for exactly its own duration: the
// effective identity becomes root (the process's real and saved ids are
// root), then the service user, and is put back as it was before returning,
// also when the access throws. Supplementary groups are left alone.
//
// A connection is opened for each access and closed after it, so nothing
// crosses a fork and concurrent writers in other processes only wait for
// SQLite's lock (WAL journal, busy time-out).
//
// Thread-safety: the effective identity belongs to the whole process, so
// accesses are serialised by one process-wide lock of the library. Callers
// that switch identity themselves must not do so while an access runs.
#ifndef KESTONDRI_PLATFORM_DB_STORE_H_
#define KESTONDRI_PLATFORM_DB_STORE_H_

#include <sqlite3.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace kestondri {
namespace db {

// Where the database lives.
constexpr char kDBFolder[] = "/var/packages/KestOndri/var";
constexpr char kDBPath[] = "/var/packages/KestOndri/var/kestondri.db";
constexpr char kServiceUserName[] = "KestOndri";
constexpr int kBusyTimeoutMs = 10000;

// The effective uid of the caller, i.e. the user an access is made for.
uid_t CallerUID();

// Whether the caller may read and change the rows of `uid`: its own, and
// every user's for the package itself (root and the service user).
bool CallerMayTouch(uid_t uid);

// Runs `work` on an open connection as the service user, inside one
// transaction that `work` commits by returning and rolls back by throwing.
// Throws kestondri::Error 502 when the privilege, the file or SQLite fails;
// what `work` throws passes on after the rollback.
void WithDatabase(const std::function<void(sqlite3*)>& work);

// A prepared statement, finalised by the destructor.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql);
  ~Statement();
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& Bind(int index, int64_t value);
  Statement& Bind(int index, const std::string& value);
  // True while a row is available; throws 502 on failure.
  bool Step();
  // Runs a statement that returns no rows.
  void Run();
  int64_t Int(int column) const;
  std::string Text(int column) const;

 private:
  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace db
}  // namespace kestondri

#endif  // KESTONDRI_PLATFORM_DB_STORE_H_
