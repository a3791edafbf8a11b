// The module's two exported tables. The server reads them word by word; the
// rows and their orders are part of the module's contract and differ on
// purpose: the check table guards "KEST.Ondri.FileIndexing.Term" "update",
// which another module serves, and has no row for Indicate, whose parameters
// only the framework's getters check.
#include "kest/webapi_module.h"
#include "webapi/checkers.h"
#include "webapi/folder.h"
#include "webapi/highlight.h"
#include "webapi/indicate.h"
#include "webapi/ondri_api.h"
#include "webapi/search.h"
#include "webapi/status.h"

#define KEST_API_PREFIX "KEST.Ondri.FileIndexing."

namespace kestondri {
namespace webapi {
namespace {

const KEST::APIHandlerRow kAPITable[] = {
    {KEST_API_PREFIX "Folder", 1, "add", OndriAPIRun<FolderAddAPI>},
    {KEST_API_PREFIX "Folder", 1, "set", OndriAPIRun<FolderSetAPI>},
    {KEST_API_PREFIX "Folder", 1, "get", OndriAPIRun<FolderGetAPI>},
    {KEST_API_PREFIX "Folder", 1, "delete", OndriAPIRun<FolderDelAPI>},
    {KEST_API_PREFIX "Folder", 1, "list", OndriAPIRun<FolderListAPI>},
    {KEST_API_PREFIX "Folder", 1, "list_group", OndriAPIRun<FolderListGroupAPI>},
    {KEST_API_PREFIX "Folder", 1, "summary", OndriAPIRun<FolderSummaryAPI>},
    {KEST_API_PREFIX "Folder", 1, "reindex", OndriAPIRun<FolderReIndexAPI>},
    {KEST_API_PREFIX "Status", 1, "get", OndriAPIRun<StatusGetAPI>},
    {KEST_API_PREFIX "Status", 1, "resume", OndriAPIRun<StatusResumeAPI>},
    {KEST_API_PREFIX "Status", 1, "pause", OndriAPIRun<StatusPauseAPI>},
    {KEST_API_PREFIX "Search", 1, "search", OndriAPIRun<SearchAPI>},
    {KEST_API_PREFIX "Highlight", 1, "highlight", OndriAPIRun<HighlightAPI>},
    {KEST_API_PREFIX "Indicate", 1, "indicate", OndriAPIRun<IndicateAPI>},
    {nullptr, 0, nullptr, nullptr},
};

const KEST::APICheckRow kAPICheckTable[] = {
    {KEST_API_PREFIX "Term", 1, "update", CheckIndice, nullptr, nullptr},
    {KEST_API_PREFIX "Status", 1, "get", CheckPass, nullptr, nullptr},
    {KEST_API_PREFIX "Status", 1, "pause", CheckLength, nullptr, nullptr},
    {KEST_API_PREFIX "Status", 1, "resume", CheckPass, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "reindex", CheckPathList, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "set", CheckFolder, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "get", CheckPathString, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "list", CheckFolderList, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "list_group", CheckPass, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "summary", CheckPass, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "add", CheckFolder, nullptr, nullptr},
    {KEST_API_PREFIX "Folder", 1, "delete", CheckPathOwner, nullptr, nullptr},
    {KEST_API_PREFIX "Search", 1, "search", CheckSearch, nullptr, nullptr},
    {KEST_API_PREFIX "Highlight", 1, "highlight", CheckHighlight, nullptr, nullptr},
    {nullptr, 0, nullptr, nullptr, nullptr, nullptr},
};

}  // namespace
}  // namespace webapi
}  // namespace kestondri

extern "C" __attribute__((visibility("default"))) const KEST::APIHandlerRow* GetAPITable() {
  return kestondri::webapi::kAPITable;
}

extern "C" __attribute__((visibility("default"))) const KEST::APICheckRow* GetAPICheckTable() {
  return kestondri::webapi::kAPICheckTable;
}
