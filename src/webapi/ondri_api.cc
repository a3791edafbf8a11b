#include "webapi/ondri_api.h"

#include "common/sdk/task.h"

namespace kestondri {
namespace webapi {

OndriAPI::OndriAPI(KEST::APIRequest* request, KEST::APIResponse* response)
    : request_(request),
      response_(response),
      set_success_(true),
      uid_(request->GetLoginUID()),
      session_id_(request->GetSessionID()),
      credentials_(request->GetLoginUserName()),
      output_(Json::nullValue) {}

OndriAPI::~OndriAPI() noexcept(false) = default;

void OndriAPI::Run() {
  ParseParams();
  Execute();
  FormOutput();
  if (set_success_) response_->SetSuccess(output_);
  // Every successful request forks one child, also when PostActions() is
  // the empty default: the cost is accepted so that after-response work
  // never depends on which class served the request.
  sdk::ForkTask task(1);
  task.DoTask([this] { PostActions(); });
}

}  // namespace webapi
}  // namespace kestondri
