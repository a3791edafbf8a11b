// The folder store: one SQLite database, /var/packages/KestOndri/var/
// fileindex/folders.db (folder 0700, file 0600, both root's), holding the
// indexed folders and the indexer's pause state. Every use must be made
// under a PrivilegeScope. A Store is one connection of one thread; many
// processes may use the database at once (SQLite's locking, with a busy
// timeout). Failures throw Error 502.
//
// Callers take the thread's connection from Shared() rather than opening
// their own: a request asks the store several times, and opening (which
// reads the schema anew) costs more than a question.
#ifndef KESTONDRI_FILEINDEX_STORE_H_
#define KESTONDRI_FILEINDEX_STORE_H_

#include <sqlite3.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestondri {
namespace fileindex {

constexpr char kStoreDir[] = "/var/packages/KestOndri/var/fileindex";
constexpr char kStorePath[] = "/var/packages/KestOndri/var/fileindex/folders.db";

struct FolderRow {
  std::string path;   // canonical volume path, e.g. /volume1/photo/trip
  std::string name;   // display name
  std::string owner;  // user name
  std::string share;  // name of the share holding the folder when added
  bool paused = false;
  bool video = true;
  bool audio = true;
  bool photo = true;
  bool document = true;
  int64_t created = 0;  // seconds since the epoch
};

class Store {
 public:
  // This thread's connection, opened on first use and kept. Opened again
  // when the file was removed or replaced since, and in a forked child,
  // which must never use its parent's connection. Must be called under a
  // PrivilegeScope, like every use; throws as the constructor does.
  static Store& Shared();

  Store();
  ~Store();
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  std::vector<FolderRow> All();
  // False when the path is not in the store.
  bool Get(const std::string& path, FolderRow* row);
  void Insert(const FolderRow& row);
  void Update(const FolderRow& row);
  void Delete(const std::string& path);

  // paused false: not paused; else until 0 means until resumed.
  void GetPause(bool* paused, int64_t* until, int64_t* changed);
  void SetPause(bool paused, int64_t until, int64_t changed);

  // BEGIN IMMEDIATE on construction; rolled back unless Commit() was called.
  class Transaction {
   public:
    explicit Transaction(Store& store);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void Commit();

   private:
    Store& store_;
    bool done_;
  };

 private:
  void Exec(const char* sql);
  int SchemaVersion();
  [[noreturn]] void Fail(const std::string& what);

  sqlite3* db_;
};

}  // namespace fileindex
}  // namespace kestondri

#endif  // KESTONDRI_FILEINDEX_STORE_H_
