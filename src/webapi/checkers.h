// Parameter checkers: run by the web API server before a handler, they check
// the presence and JSON types of a method's parameters and answer 120 with
// {"name", "reason"} on the first fault. Ranges and meanings are checked
// later by the API classes. Checkers never throw and never log.
#ifndef KESTONDRI_WEBAPI_CHECKERS_H_
#define KESTONDRI_WEBAPI_CHECKERS_H_

#include "kest/webapi.h"

namespace kestondri {
namespace webapi {

bool CheckPass(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckIndice(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckLength(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckPathList(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckPathString(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckFolder(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckFolderList(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckPathOwner(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckSearch(KEST::APIRequest* request, KEST::APIResponse* response);
bool CheckHighlight(KEST::APIRequest* request, KEST::APIResponse* response);

}  // namespace webapi
}  // namespace kestondri

#endif  // KESTONDRI_WEBAPI_CHECKERS_H_
