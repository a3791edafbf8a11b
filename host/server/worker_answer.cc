#include "server/worker_answer.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

#include "kest/webapi.h"
#include "server/error_codes.h"

namespace kestondri {
namespace host {

Json::Value ErrorAnswer(int code, const Json::Value& errors) {
  KEST::APIResponse response;
  response.SetError(code, errors);
  return response.ToJson();
}

Json::Value ParamError(const char* name, const char* reason) {
  Json::Value errors(Json::objectValue);
  errors["name"] = name;
  errors["reason"] = reason;
  return ErrorAnswer(kErrBadServerParam, errors);
}

Json::Value SuccessAnswer(const Json::Value& data) {
  KEST::APIResponse response;
  response.SetSuccess(data);
  return response.ToJson();
}

int AnswerCode(const Json::Value& answer) {
  if (answer.isObject() && answer["success"].isBool() && answer["success"].asBool()) return 0;
  const Json::Value& code = answer["error"]["code"];
  return code.isInt() ? code.asInt() : -1;
}

std::string EncodeAnswer(const AnswerHeader& header, const std::string& text) {
  return std::to_string(header.code) + " " + std::to_string(header.admin) + "\n" + text;
}

bool DecodeAnswer(const std::string& frame, AnswerHeader* header, std::string* text) {
  const size_t newline = frame.find('\n');
  if (newline == std::string::npos || newline > 32) return false;
  const std::string line = frame.substr(0, newline);
  if (line.empty() || (line[0] != '-' && (line[0] < '0' || line[0] > '9'))) return false;
  const char* p = line.c_str();
  char* end = nullptr;
  errno = 0;
  const long code = strtol(p, &end, 10);
  if (end == p || *end != ' ' || errno != 0 || code < INT_MIN || code > INT_MAX) return false;
  p = end + 1;
  if (*p != '-' && (*p < '0' || *p > '9')) return false;
  const long admin = strtol(p, &end, 10);
  if (end == p || *end != '\0' || admin < -1 || admin > 1) return false;
  header->code = static_cast<int>(code);
  header->admin = static_cast<int>(admin);
  text->assign(frame, newline + 1, std::string::npos);
  return true;
}

}  // namespace host
}  // namespace kestondri
