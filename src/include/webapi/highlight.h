// KEST.Ondri.FileIndexing.Highlight "highlight": fragments of one found
// document with the matches marked, answered by the search daemon after a
// check that the login user may read the file.
//
// Throws kestondri::Error: 507 when the user may not read the file (nothing
// is sent then), 605 when the daemon cannot be reached, 121 for a broken
// exchange, the daemon's own code when it reports a failure, and what the
// permission check throws. One object serves one request on one thread.
#ifndef KESTONDRI_WEBAPI_HIGHLIGHT_H_
#define KESTONDRI_WEBAPI_HIGHLIGHT_H_

#include <json/json.h>

#include "webapi/ondri_api.h"

namespace kestondri {
namespace webapi {

class HighlightAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;
  ~HighlightAPI() override;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  // The whole request to the daemon, built by ParseParams().
  Json::Value daemon_request_;
};

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_HIGHLIGHT_H_
