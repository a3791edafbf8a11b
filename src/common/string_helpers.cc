#include "common/string_helpers.h"

#include <cctype>
#include <cerrno>
#include <cstring>

namespace kestondri {
namespace {

bool IsSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

}  // namespace

std::string LTrim(const std::string& s) {
  size_t i = 0;
  while (i < s.size() && IsSpace(s[i])) ++i;
  return s.substr(i);
}

std::string RTrim(const std::string& s) {
  size_t n = s.size();
  while (n > 0 && IsSpace(s[n - 1])) --n;
  return s.substr(0, n);
}

std::string Trim(const std::string& s) { return LTrim(RTrim(s)); }

std::string ToLower(const std::string& s) {
  std::string out = s;
  for (auto& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string GetErrnoStr() { return strerror(errno); }

std::string GetErrnoStr(int errnum) { return strerror(errnum); }

}  // namespace kestondri
