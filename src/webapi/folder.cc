#include "webapi/folder.h"

#include "common/error.h"
#include "kestondri/fileindex.h"

namespace kestondri {
namespace webapi {
namespace {

constexpr auto kRequired = KEST::APIRequest::PARAM_REQUIRED;
constexpr auto kOptional = KEST::APIRequest::PARAM_OPTIONAL;

}  // namespace

void FolderAddAPI::ParseParams() {
  folder_ = request_->GetAndCheckArray("folder", kRequired).Get();
}

void FolderAddAPI::Execute() { fileindex::FolderAdd(folder_, false); }

void FolderSetAPI::ParseParams() {
  folder_ = request_->GetAndCheckArray("folder", kRequired).Get();
}

void FolderSetAPI::Execute() { fileindex::FolderSet(folder_, false); }

void FolderGetAPI::ParseParams() { path_ = request_->GetAndCheckString("path", kRequired).Get(); }

void FolderGetAPI::Execute() { fileindex::FolderGet(output_, path_); }

void FolderDelAPI::ParseParams() {
  path_ = request_->GetAndCheckArray("path", kOptional).Get(Json::Value());
  owner_ = request_->GetAndCheckString("owner", kOptional).Get("");
}

void FolderDelAPI::Execute() {
  if (!path_.isNull()) {
    fileindex::FolderDelete(path_);
  } else if (!owner_.empty()) {
    fileindex::FolderDelete(owner_);
  } else {
    throw Error(kErrInvalidParam, "Need path or owner");
  }
}

void FolderListAPI::ParseParams() {
  offset_ = request_->GetAndCheckInt("offset", kRequired).Get();
  limit_ = request_->GetAndCheckInt("limit", kRequired).Get(-1);
  direction_ = request_->GetAndCheckString("direction", kRequired).Get();
  sort_by_ = request_->GetAndCheckString("sort_by", kRequired).Get();
  group_ = request_->GetAndCheckString("group", kRequired).Get("all");
  pattern_ = request_->GetAndCheckString("pattern", kRequired).Get("");
  additional_ = request_->GetAndCheckArray("additional", kRequired).Get();
}

void FolderListAPI::Execute() {
  // Sign extension on purpose: -1 becomes "no limit".
  fileindex::FolderList(output_, static_cast<uint64_t>(static_cast<int64_t>(offset_)),
                        static_cast<uint64_t>(static_cast<int64_t>(limit_)), sort_by_, direction_,
                        group_, pattern_, additional_);
}

void FolderListGroupAPI::Execute() { fileindex::FolderListGroups(output_); }

void FolderSummaryAPI::Execute() { fileindex::FolderSummary(output_); }

void FolderReIndexAPI::ParseParams() {
  path_ = request_->GetAndCheckArray("path", kRequired).Get();
}

void FolderReIndexAPI::Execute() { fileindex::FolderReindex(path_); }

}  // namespace webapi
}  // namespace kestondri
