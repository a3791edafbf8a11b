#include "webapi/highlight.h"

#include <string>

#include "common/constants.h"
#include "common/log.h"
#include "common/permission.h"
#include "common/util.h"
#include "kest/json.h"
#include "kestdaemon/sock_connection.h"
#include "kestondri/fileindex.h"

namespace kestondri {
namespace webapi {
namespace {

constexpr char kFile[] = "highlight.cc";

}  // namespace

HighlightAPI::~HighlightAPI() = default;

void HighlightAPI::ParseParams() {
  using Req = KEST::APIRequest;
  FilePermission file_perm(request_->GetLoginUID());
  const auto doc_id = request_->GetAndCheckInt("doc_id", Req::PARAM_REQUIRED);
  const auto full_path = request_->GetAndCheckString("full_path", Req::PARAM_REQUIRED);
  const auto keyword = request_->GetAndCheckString("keyword", Req::PARAM_REQUIRED);
  const auto highlight = request_->GetAndCheckObject("highlight", Req::PARAM_REQUIRED);
  // A hit whose path is not UTF-8 carries a reference to its bytes.
  const std::string path = PathFromParam(full_path.Get());

  if (!file_perm.CheckRead(path)) {
    ThrowFailed({kFile, 31, "ParseParams"}, "!file_perm.CheckRead(full_path.Get())",
                Error(kErrNoPermission, "No file permission, path: " + path +
                                            ", user: " + request_->GetLoginUserName()));
  }

  std::string share_name;
  std::string share_path;
  fileindex::GetShareNamePathByFullPath(path, share_name, share_path);

  daemon_request_["command"] = "highlight";
  Json::Value& data = daemon_request_["data"];
  data["id"] = "fileindex_" + share_name;
  data["doc_id"] = doc_id.Get();
  data["highlight"] = highlight.Get();
  data["keyword"] = keyword.Get();
  // Always sent, always empty: the daemon ranks fragments without weights.
  data["search_weight_list"] = Json::Value(Json::arrayValue);
  // The check above is of the client's path, not of the document's: the
  // daemon checks the document itself for this user, as in a search.
  if (!request_->IsAdmin()) {
    data["filters"][0]["name"] = "permission";
    data["filters"][0]["data"] = static_cast<Json::UInt>(request_->GetLoginUID());
  }
}

void HighlightAPI::Execute() {
  kestdaemon::DomainSockConnection conn(kElasticdSocketPath);
  if (!conn.Connect(kElasticdConnectTimeout)) {
    LogError({kFile, 55, "Execute"}, "Cannot connect to kestelastic daemon");
    throw Error(kErrDaemonConnect);
  }
  // The log text says "search" for every command that goes this way.
  if (!conn.Send(Json::toString(daemon_request_))) {
    LogError({kFile, 60, "Execute"}, "Cannot send search json to kestelastic daemon");
    throw Error(kErrExecute);
  }
  std::string str_resp;
  if (!conn.Recv(str_resp)) {
    LogError({kFile, 65, "Execute"}, "Recv from daemon fail");
    throw Error(kErrExecute);
  }
  Json::Value resp;
  if (!Json::fromString(resp, str_resp) || !resp.isObject()) {
    LogError({kFile, 70, "Execute"}, "Malformed resp from daemon: %s", str_resp.c_str());
    throw Error(kErrExecute);
  }
  if (!resp["success"].asBool()) {
    const Json::Value& error = resp["error"];
    // A failure that names no code is as malformed as no answer at all.
    if (!error.isObject() || !error["code"].isInt()) {
      LogError({kFile, 77, "Execute"}, "Malformed resp from daemon: %s", str_resp.c_str());
      throw Error(kErrExecute);
    }
    throw Error(static_cast<ErrorCode>(error["code"].asInt()),
                error["msg"].isString() ? error["msg"].asString() : std::string());
  }
  output_ = resp["data"];
}

}  // namespace webapi
}  // namespace kestondri
