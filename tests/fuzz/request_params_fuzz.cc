// An HTTP request's parameters as the web API server parses them (query
// string, form body or JSON body, and the Cookie header), then every checker
// of the module's check table run on the result.
#include <cstddef>
#include <cstdint>
#include <string>

#include "kest/webapi.h"
#include "kest/webapi_module.h"
#include "server/request_params.h"

extern "C" const KEST::APICheckRow* GetAPICheckTable();

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  // The first byte picks the body's kind; the rest is what the client sent.
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  Json::Value params(Json::objectValue);
  std::string error;
  const bool ok = data[0] & 1
                      ? kestondri::host::ParseJsonParams(text, &params, &error)
                      : kestondri::host::ParseFormParams(text, &params, &error, {"keyword"});
  kestondri::host::CookieValue(text, "id");
  if (!ok) return 0;
  for (const KEST::APICheckRow* row = GetAPICheckTable(); row->api; ++row) {
    KEST::APIRequest request(params, 2001, "ann", "sid", data[0] & 2);
    KEST::APIResponse response;
    row->checker(&request, &response);
  }
  return 0;
}
