#include "server/request_params.h"

#include "kest/json.h"

namespace kestondri {
namespace host {
namespace {

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string Trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

// JSON's own number grammar; the parser also takes forms like 007 that JSON
// does not, and such a value is text ("007" as a name must stay a name).
bool JsonNumberText(const std::string& text) {
  const std::string t = Trim(text);
  size_t i = 0;
  const auto digits = [&] {
    const size_t start = i;
    while (i < t.size() && t[i] >= '0' && t[i] <= '9') ++i;
    return i > start;
  };
  if (i < t.size() && t[i] == '-') ++i;
  if (i < t.size() && t[i] == '0') {
    ++i;
  } else if (!digits()) {
    return false;
  }
  if (i < t.size() && t[i] == '.') {
    ++i;
    if (!digits()) return false;
  }
  if (i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    ++i;
    if (i < t.size() && (t[i] == '+' || t[i] == '-')) ++i;
    if (!digits()) return false;
  }
  return i == t.size();
}

}  // namespace

bool PercentDecode(const std::string& in, bool plus_is_space, std::string* out) {
  out->clear();
  out->reserve(in.size());
  for (size_t i = 0; i < in.size(); ++i) {
    const char c = in[i];
    if (c == '%') {
      const int high = i + 1 < in.size() ? HexDigit(in[i + 1]) : -1;
      const int low = i + 2 < in.size() ? HexDigit(in[i + 2]) : -1;
      if (high < 0 || low < 0) return false;
      out->push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else if (c == '+' && plus_is_space) {
      out->push_back(' ');
    } else {
      out->push_back(c);
    }
  }
  return true;
}

Json::Value DecodeFormValue(const std::string& text) {
  Json::Value value;
  if (!text.empty() && Json::fromString(value, text) &&
      (!value.isNumeric() || JsonNumberText(text))) {
    return value;
  }
  return Json::Value(text);
}

bool ParseFormParams(const std::string& text, Json::Value* params, std::string* error,
                     const std::set<std::string>& text_names) {
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('&', start);
    if (end == std::string::npos) end = text.size();
    const std::string field = text.substr(start, end - start);
    start = end + 1;
    if (field.empty()) continue;
    const size_t equals = field.find('=');
    std::string name;
    std::string value;
    if (!PercentDecode(field.substr(0, equals), true, &name) ||
        (equals != std::string::npos && !PercentDecode(field.substr(equals + 1), true, &value))) {
      *error = "malformed percent-encoding";
      return false;
    }
    if (name.empty()) continue;
    (*params)[name] = text_names.count(name) ? Json::Value(value) : DecodeFormValue(value);
  }
  return true;
}

bool ParseJsonParams(const std::string& body, Json::Value* params, std::string* error) {
  Json::Value parsed;
  if (!Json::fromString(parsed, body)) {
    *error = "the body is not valid JSON";
    return false;
  }
  if (!parsed.isObject()) {
    *error = "the body is not a JSON object";
    return false;
  }
  for (const auto& name : parsed.getMemberNames()) (*params)[name] = parsed[name];
  return true;
}

std::string CookieValue(const std::string& header, const std::string& name) {
  size_t start = 0;
  while (start < header.size()) {
    size_t end = header.find(';', start);
    if (end == std::string::npos) end = header.size();
    const std::string pair = header.substr(start, end - start);
    start = end + 1;
    const size_t equals = pair.find('=');
    if (equals == std::string::npos) continue;
    if (Trim(pair.substr(0, equals)) == name) return Trim(pair.substr(equals + 1));
  }
  return "";
}

}  // namespace host
}  // namespace kestondri
