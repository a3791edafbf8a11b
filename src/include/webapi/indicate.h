// KEST.Ondri.FileIndexing.Indicate "indicate": per file type, how many
// documents match a keyword over every index the login user may see. Without
// a daemon, or without a visible index, every requested file type counts 0.
//
// Throws kestondri::Error: 605 when the daemon socket exists but cannot be
// reached, 121 for a broken exchange. The daemon's "success" is not looked
// at: whatever its "data" holds is the answer. One object serves one request
// on one thread.
#ifndef KESTONDRI_WEBAPI_INDICATE_H_
#define KESTONDRI_WEBAPI_INDICATE_H_

#include <json/json.h>

#include "webapi/ondri_api.h"

namespace kestondri {
namespace webapi {

class IndicateAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;
  ~IndicateAPI() override;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  // The request to the daemon, built by ParseParams().
  Json::Value daemon_request_;
  // Index identifiers of the shares the user may see.
  Json::Value indices_{Json::arrayValue};
};

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_INDICATE_H_
