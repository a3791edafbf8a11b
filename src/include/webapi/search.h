// KEST.Ondri.FileIndexing.Search "search": full-text and metadata search over
// the indexed shares the login user may see.
//
// ParseParams() reads the request and turns the share names into the
// daemon's index identifiers, dropping shares the user may not read;
// Execute() records the search in the user's history (in a forked child),
// claims the query id's tracking file (stopping an older request of the same
// id), runs the "search" and "list_db_status" exchanges with the daemon and
// releases the tracking file; FormOutput() adds share paths, readability,
// owner names and mount-point flags to each hit.
//
// Throws kestondri::Error: 120 for a query id holding "/", 1600 for an
// outdated query, 605 when the daemon cannot be reached, 121 for a broken
// exchange, 801 when the login user cannot be looked up, and the daemon's
// own code when it reports a failure. One object serves one request on one
// thread.
#ifndef KESTONDRI_WEBAPI_SEARCH_H_
#define KESTONDRI_WEBAPI_SEARCH_H_

#include <json/json.h>

#include <cstdint>
#include <string>

#include "webapi/ondri_api.h"

namespace kestdaemon {
class SockConnection;
}

namespace kestondri {
namespace webapi {

// Reads the daemon's reply to a "search" request (`request_text`, named in
// the error of a malformed query) from `conn`: the hits, the count and the
// closing status, as Search() answers them. Throws what Search() throws.
Json::Value ReadSearchReply(kestdaemon::SockConnection& conn, const std::string& request_text);
// The indices a "list_db_status" reply names as unavailable; throws 121
// when it is not a JSON object.
Json::Value UnavailOfReply(const std::string& reply);

class SearchAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;
  ~SearchAPI() override;

 protected:
  void ParseParams() override;
  void Execute() override;
  void FormOutput() override;
  // Claims the query id's tracking file for this process.
  virtual void MarkProcRunning();
  // Removes the tracking file.
  virtual void ClearProcRunning();
  // The "search" exchange: {"hits": [...], "total": n}, "total" absent when
  // the daemon sent no count.
  virtual Json::Value Search();
  // The "list_db_status" exchange: the indices that cannot be searched now.
  virtual Json::Value GetUnavailDB();

  int32_t from_ = 0;
  int32_t size_ = 0;
  int32_t query_serial_ = 0;
  bool has_criteria_ = false;
  std::string keyword_;
  std::string orig_keyword_;
  std::string file_type_;
  std::string agent_;
  std::string query_id_;
  Json::Value criteria_list_;
  Json::Value indice_;
  Json::Value params_;
  Json::Value highlight_;
  Json::Value search_weight_list_;
  std::string query_info_file_;

 private:
  void FillOwners();
  void FillIsMountPoint();
  // Runs in the history child.
  void RecordHistory();
};

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_SEARCH_H_
