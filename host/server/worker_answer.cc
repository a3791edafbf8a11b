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
  std::string line = std::to_string(header.code) + " " + std::to_string(header.admin);
  if (header.admin >= 0 && header.has_identity) {
    line += " " + std::to_string(header.identity.uid) + " " + std::to_string(header.identity.gid);
    char separator = ' ';
    for (gid_t gid : header.identity.groups) {
      line += separator + std::to_string(gid);
      separator = ',';
    }
  }
  return line + "\n" + text;
}

namespace {

// A decimal number in [min, max] at `*p`, which moves past it.
bool ParseNumber(const char** p, long long min, long long max, long long* value) {
  const char* start = *p;
  if (*start != '-' && (*start < '0' || *start > '9')) return false;
  char* end = nullptr;
  errno = 0;
  *value = strtoll(start, &end, 10);
  if (end == start || errno != 0 || *value < min || *value > max) return false;
  *p = end;
  return true;
}

}  // namespace

bool DecodeAnswer(const std::string& frame, AnswerHeader* header, std::string* text) {
  const size_t newline = frame.find('\n');
  // A user in every group the kernel allows still fits.
  if (newline == std::string::npos || newline > (1u << 20)) return false;
  const std::string line = frame.substr(0, newline);
  const char* p = line.c_str();
  long long code, admin;
  if (!ParseNumber(&p, INT_MIN, INT_MAX, &code) || *p++ != ' ' || !ParseNumber(&p, -1, 1, &admin)) {
    return false;
  }
  AnswerHeader parsed;
  parsed.code = static_cast<int>(code);
  parsed.admin = static_cast<int>(admin);
  if (*p == ' ' && admin >= 0) {
    ++p;
    long long uid, gid, group;
    if (!ParseNumber(&p, 0, UINT_MAX - 1, &uid) || *p++ != ' ' ||
        !ParseNumber(&p, 0, UINT_MAX - 1, &gid)) {
      return false;
    }
    parsed.has_identity = true;
    parsed.identity.uid = static_cast<uid_t>(uid);
    parsed.identity.gid = static_cast<gid_t>(gid);
    char separator = ' ';
    while (*p == separator) {
      ++p;
      if (!ParseNumber(&p, 0, UINT_MAX - 1, &group)) return false;
      parsed.identity.groups.push_back(static_cast<gid_t>(group));
      separator = ',';
    }
    if (parsed.identity.groups.empty()) return false;
  }
  if (*p != '\0') return false;
  *header = std::move(parsed);
  text->assign(frame, newline + 1, std::string::npos);
  return true;
}

}  // namespace host
}  // namespace kestondri
