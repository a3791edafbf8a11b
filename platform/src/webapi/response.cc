#include "kest/webapi.h"

namespace KEST {

void APIResponse::SetSuccess(const Json::Value& data) {
  if (state_ == State::kError) return;
  state_ = State::kSuccess;
  data_ = data;
}

void APIResponse::SetError(int code, const Json::Value& data) {
  state_ = State::kError;
  data_ = Json::Value();
  error_code_ = code;
  error_data_ = data;
}

Json::Value APIResponse::ToJson(int unset_code) const {
  Json::Value out(Json::objectValue);
  if (state_ == State::kSuccess) {
    out["success"] = true;
    out["data"] = data_;
    return out;
  }
  out["success"] = false;
  Json::Value& error = out["error"];
  error["code"] = state_ == State::kError ? error_code_ : unset_code;
  if (state_ == State::kError && !error_data_.isNull()) error["errors"] = error_data_;
  return out;
}

}  // namespace KEST
