// The binary contract between the web API server and a module library.
//
// A module exports two functions with C linkage, `GetAPITable` and
// `GetAPICheckTable`, each returning a pointer to a static, read-only table
// that ends with an all-zero row. The server reads the rows word by word, so
// the layouts below are fixed: four machine words for a handler row, six for
// a check row.
#ifndef KEST_WEBAPI_MODULE_H_
#define KEST_WEBAPI_MODULE_H_

#include <cstdint>

namespace KEST {

class APIRequest;
class APIResponse;

using APIHandler = void (*)(APIRequest* request, APIResponse* response);
// Answers false after it has set an error on the response itself.
using APIChecker = bool (*)(APIRequest* request, APIResponse* response);

struct APIHandlerRow {
  const char* api;     // full API name, e.g. "KEST.Ondri.FileIndexing.Folder"
  intptr_t version;    // API version
  const char* method;  // method name, e.g. "add"
  APIHandler handler;
};

struct APICheckRow {
  const char* api;
  intptr_t version;
  const char* method;
  APIChecker checker;
  const void* reserved1;  // always null
  const void* reserved2;  // always null
};

static_assert(sizeof(APIHandlerRow) == 4 * sizeof(void*), "handler row is four words");
static_assert(sizeof(APICheckRow) == 6 * sizeof(void*), "check row is six words");

// Names of the two exported functions, for dlsym.
constexpr const char kGetAPITableSymbol[] = "GetAPITable";
constexpr const char kGetAPICheckTableSymbol[] = "GetAPICheckTable";

using GetAPITableFunc = const APIHandlerRow* (*)();
using GetAPICheckTableFunc = const APICheckRow* (*)();

}  // namespace KEST

#endif  // KEST_WEBAPI_MODULE_H_
