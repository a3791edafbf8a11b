#include "kestondri/db.h"

#include <string>
#include <vector>

#include "common/error.h"
#include "store.h"

namespace kestondri {
namespace db {
namespace {

constexpr size_t kMaxKeywordBytes = 4096;

void CheckOwnRows(uint32_t uid) {
  if (CallerMayTouch(uid)) return;
  throw Error(kErrNoPermission, "search history of uid " + std::to_string(uid) +
                                    " is not open to uid " + std::to_string(CallerUID()));
}

}  // namespace

struct DBSession::Impl {};

DBSession::DBSession() : impl_(new Impl) {}
DBSession::~DBSession() = default;

DBSession& DBSession::Instance() {
  static DBSession session;
  return session;
}

SearchHistoryTable::SearchHistoryTable(DBSession& session)
    : TableBase<SearchHistory>(session, "search_history") {}

void SearchHistoryTable::UpdateWithTime(const SearchHistory& record, int max_num) {
  CheckOwnRows(record.uid);
  if (record.keyword.size() > kMaxKeywordBytes) {
    throw Error(kErrInvalidParam, "search history keyword too long");
  }
  WithDatabase([&](sqlite3* db) {
    // A keyword searched again moves to the front: its old row goes and a new
    // one is added, so that ties within one second still order by recency.
    Statement(db, "DELETE FROM search_history WHERE uid = ?1 AND keyword = ?2")
        .Bind(1, static_cast<int64_t>(record.uid))
        .Bind(2, record.keyword)
        .Run();
    Statement(db, "INSERT INTO search_history (uid, keyword, time) VALUES (?1, ?2, ?3)")
        .Bind(1, static_cast<int64_t>(record.uid))
        .Bind(2, record.keyword)
        .Bind(3, record.time)
        .Run();
    Statement(db,
              "DELETE FROM search_history WHERE uid = ?1 AND id NOT IN ("
              " SELECT id FROM search_history WHERE uid = ?1"
              " ORDER BY time DESC, id DESC LIMIT ?2)")
        .Bind(1, static_cast<int64_t>(record.uid))
        .Bind(2, static_cast<int64_t>(max_num < 0 ? 0 : max_num))
        .Run();
  });
}

std::vector<SearchHistory> SearchHistoryTable::List(uint32_t uid) {
  CheckOwnRows(uid);
  std::vector<SearchHistory> rows;
  WithDatabase([&](sqlite3* db) {
    Statement stmt(db,
                   "SELECT id, uid, keyword, time FROM search_history WHERE uid = ?1"
                   " ORDER BY time DESC, id DESC");
    stmt.Bind(1, static_cast<int64_t>(uid));
    while (stmt.Step()) {
      SearchHistory row;
      row.id = static_cast<int32_t>(stmt.Int(0));
      row.uid = static_cast<uint32_t>(stmt.Int(1));
      row.keyword = stmt.Text(2);
      row.time = stmt.Int(3);
      rows.push_back(std::move(row));
    }
  });
  return rows;
}

}  // namespace db
}  // namespace kestondri
