// The package's database: one SQLite file holding the users' search history.
#ifndef KESTONDRI_DB_H_
#define KESTONDRI_DB_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestdbquery {
// Marks a record that can be inserted into, respectively updated in, a table.
class Insertable {
 public:
  virtual ~Insertable() = default;
};
class Updatable {
 public:
  virtual ~Updatable() = default;
};
}  // namespace kestdbquery

namespace kestondri {
namespace db {

class DBSession {
 public:
  // The process-wide session on the package database.
  static DBSession& Instance();
  virtual ~DBSession();

 private:
  DBSession();
  struct Impl;
  std::unique_ptr<Impl> impl_;
  template <typename R>
  friend class TableBase;
  friend class SearchHistoryTable;
};

struct SearchHistory : public kestdbquery::Insertable, public kestdbquery::Updatable {
  int32_t id = 0;
  uint32_t uid = 0;
  std::string keyword;
  int64_t time = 0;
};

template <typename R>
class TableBase {
 public:
  TableBase(DBSession& session, std::string name) : session_(session), name_(std::move(name)) {}
  virtual ~TableBase() = default;

 protected:
  DBSession& session_;
  std::string name_;
};

class SearchHistoryTable : public TableBase<SearchHistory> {
 public:
  explicit SearchHistoryTable(DBSession& session);
  // Records `record.keyword` for `record.uid` at `record.time`: refreshes the
  // time of a keyword already there, then keeps at most `max_num` entries of
  // the user, the oldest going first. Throws kestondri::Error 502 on failure.
  void UpdateWithTime(const SearchHistory& record, int max_num);
  // The user's entries, newest first.
  std::vector<SearchHistory> List(uint32_t uid);
};

}  // namespace db
}  // namespace kestondri

#endif  // KESTONDRI_DB_H_
