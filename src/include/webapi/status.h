// The three methods of KEST.Ondri.FileIndexing.Status: whether indexing and
// term-suggestion work is pending, and pausing and resuming indexing. The
// pause state lives in the indexing library's StatusMgr; nothing is stored
// here. Each object serves one request on one thread.
#ifndef KESTONDRI_WEBAPI_STATUS_H_
#define KESTONDRI_WEBAPI_STATUS_H_

#include <cstdint>
#include <string>

#include "webapi/ondri_api.h"

namespace kestondri {
namespace webapi {

// {"status": {"index": <word>, "term": <word>}}, words "processing",
// "paused", "finished".
class StatusGetAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void Execute() override;

 private:
  // One broken share is logged and skipped, never fails the request.
  std::string IsIndexProcessing();
  std::string IsTermSuggProcessing();
};

class StatusPauseAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override;
  void Execute() override;

 private:
  int32_t length_ = 0;
};

class StatusResumeAPI : public OndriAPI {
 public:
  using OndriAPI::OndriAPI;

 protected:
  void ParseParams() override {}
  void Execute() override;
};

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_STATUS_H_
