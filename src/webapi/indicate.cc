#include "webapi/indicate.h"

#include <cxxabi.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "common/constants.h"
#include "common/log.h"
#include "common/sdk/share.h"
#include "kest/json.h"
#include "kestdaemon/sock_connection.h"
#include "kestondri/fileindex.h"

namespace kestondri {
namespace webapi {
namespace {

constexpr char kFile[] = "indicate.cc";

}  // namespace

IndicateAPI::~IndicateAPI() = default;

void IndicateAPI::ParseParams() {
  using Req = KEST::APIRequest;
  const auto criteria_list = request_->GetAndCheckArray("criteria_list", Req::PARAM_REQUIRED);
  const auto keyword = request_->GetAndCheckString("keyword", Req::PARAM_REQUIRED);
  const auto file_type = request_->GetAndCheckArray("file_type", Req::PARAM_REQUIRED);
  const auto search_weight_list =
      request_->GetAndCheckArray("search_weight_list", Req::PARAM_REQUIRED);

  const std::string user_name = request_->GetLoginUserName();
  for (const auto& share_name : fileindex::FolderMgr().GetIndexedShares()) {
    try {
      sdk::SDKShare share(share_name);
      // "homes" holds every user's own folder, and administrators see every
      // share: neither is asked for a privilege.
      if (!request_->IsAdmin() && share_name != "homes" && 4 == share.GetPrivilege(user_name)) {
        continue;
      }
      indices_.append(fileindex::elastic::GetFileIndexID(share_name));
    } catch (abi::__forced_unwind&) {
      throw;
    } catch (...) {
      continue;
    }
  }

  daemon_request_["command"] = "indicate";
  Json::Value& data = daemon_request_["data"];
  data["keyword"] = keyword.Get();
  data["indice"] = indices_;
  data["criteria_list"] = criteria_list.Get();
  data["search_weight_list"] = search_weight_list.Get();

  output_ = Json::Value(Json::objectValue);
  for (const auto& type : file_type.Get()) {
    const std::string name = type.asString();
    Json::Value query;
    Json::Value& filters = query["query"]["filters"];
    filters = Json::Value(Json::arrayValue);
    if (!request_->IsAdmin()) {
      Json::Value permission;
      permission["name"] = "permission";
      permission["data"] = static_cast<Json::UInt>(request_->GetLoginUID());
      filters.append(permission);
    }
    Json::Value by_type;
    by_type["name"] = "file_type";
    by_type["data"] = name;
    filters.append(by_type);
    query["query"]["default_search_op"] = "AND";
    query["name"] = name;
    data["queries"].append(query);
    output_[name] = 0;
  }
}

void IndicateAPI::Execute() {
  if (0 != access(kElasticdSocketPath, F_OK) || indices_.empty()) {
    errno = 0;
    return;
  }
  kestdaemon::DomainSockConnection conn(kElasticdSocketPath);
  if (!conn.Connect(kElasticdConnectTimeout)) {
    LogError({kFile, 79, "Execute"}, "Cannot connect to kestelastic daemon");
    throw Error(kErrDaemonConnect);
  }
  if (!conn.Send(Json::toString(daemon_request_))) {
    LogError({kFile, 83, "Execute"}, "Cannot send search json to kestelastic daemon");
    throw Error(kErrExecute);
  }
  std::string str_resp;
  if (!conn.Recv(str_resp)) {
    LogError({kFile, 88, "Execute"}, "Recv from daemon fail");
    throw Error(kErrExecute);
  }
  Json::Value resp;
  if (!Json::fromString(resp, str_resp)) {
    LogError({kFile, 93, "Execute"}, "Malformed resp from daemon: %s", str_resp.c_str());
    throw Error(kErrExecute);
  }
  // "success" is not looked at: the counts in "data" are the answer as sent.
  output_ = resp.isObject() ? resp["data"] : Json::Value();
}

}  // namespace webapi
}  // namespace kestondri
