// The JSON answers of the web API, and what a worker sends back in its
// frame: one header line, then the answer's JSON text. The header carries the answer's code (0 for
// a success), so the master forwards the text as it is and still knows the code for its log without
// parsing what may be megabytes, and, when the worker looked them up afresh, the login user's
// administrator flag and identity (ids and groups). Pure functions.
#ifndef KESTONDRI_HOST_SERVER_WORKER_ANSWER_H_
#define KESTONDRI_HOST_SERVER_WORKER_ANSWER_H_

#include <json/json.h>

#include <string>

#include "kest/klib.h"

namespace kestondri {
namespace host {

// {"success": false, "error": {"code": N[, "errors": data]}}.
Json::Value ErrorAnswer(int code, const Json::Value& errors = Json::Value());
// An error of a server method's parameter: code 115, errors {"name", "reason"}.
Json::Value ParamError(const char* name, const char* reason);
// {"success": true, "data": data}.
Json::Value SuccessAnswer(const Json::Value& data);
// The code of an answer: 0 for a success, -1 when it has none.
int AnswerCode(const Json::Value& answer);

struct AnswerHeader {
  int code = 0;
  int admin = -1;  // 1 or 0 when looked up by the worker, else -1
  // Only with a looked-up flag, when the user was found; the name is not sent.
  bool has_identity = false;
  KLIBUserIdentity identity{};
};

std::string EncodeAnswer(const AnswerHeader& header, const std::string& text);
// False when the frame does not start with a well-formed header line.
bool DecodeAnswer(const std::string& frame, AnswerHeader* header, std::string* text);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_WORKER_ANSWER_H_
