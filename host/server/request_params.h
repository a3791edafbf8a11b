// Turns what a client sent to the entry point into one JSON object of
// parameters: a query string, an application/x-www-form-urlencoded body, or a
// JSON object body. Form and query values are JSON-decoded when they parse as
// JSON and kept as strings otherwise, so limit=10 is the integer 10 and
// path=/photo the string "/photo". Everything here is untrusted input; every
// function is pure and thread-safe.
#ifndef KESTONDRI_HOST_SERVER_REQUEST_PARAMS_H_
#define KESTONDRI_HOST_SERVER_REQUEST_PARAMS_H_

#include <json/json.h>

#include <set>
#include <string>

namespace kestondri {
namespace host {

// Percent-decodes `in` ('+' is a space when `plus_is_space`). False on a '%'
// not followed by two hex digits; `*out` is then unspecified.
bool PercentDecode(const std::string& in, bool plus_is_space, std::string* out);

// The value of one form field: its JSON meaning, or the text itself.
Json::Value DecodeFormValue(const std::string& text);

// Adds the fields of "a=1&b=x" to the object `*params` (a later field of the
// same name replaces an earlier one). Fields named in `text_names` are kept
// as text, undecoded. False with `*error` on bad encoding.
bool ParseFormParams(const std::string& text, Json::Value* params, std::string* error,
                     const std::set<std::string>& text_names = {});

// Adds the members of a JSON object body to `*params`. False with `*error`
// when the body is not one JSON object.
bool ParseJsonParams(const std::string& body, Json::Value* params, std::string* error);

// The value of cookie `name` in a Cookie header, or "" when absent.
std::string CookieValue(const std::string& header, const std::string& name);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_REQUEST_PARAMS_H_
