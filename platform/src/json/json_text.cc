#include "kest/json.h"

#include <fstream>
#include <memory>
#include <sstream>

namespace Json {
namespace {

constexpr size_t kMaxText = 64u << 20;

const CharReaderBuilder& StrictReader() {
  static const CharReaderBuilder builder = [] {
    CharReaderBuilder b;
    b["collectComments"] = false;
    b["allowComments"] = false;
    b["allowTrailingCommas"] = false;
    b["strictRoot"] = false;
    b["allowDroppedNullPlaceholders"] = false;
    b["allowNumericKeys"] = false;
    b["allowSingleQuotes"] = false;
    b["stackLimit"] = 1000;
    b["failIfExtra"] = true;
    b["rejectDupKeys"] = false;
    b["allowSpecialFloats"] = false;
    b["skipBom"] = false;
    return b;
  }();
  return builder;
}

const StreamWriterBuilder& CompactWriter() {
  static const StreamWriterBuilder builder = [] {
    StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    b["commentStyle"] = "None";
    return b;
  }();
  return builder;
}

// The reader skips comments between the members of objects and arrays even
// when told not to, and takes raw control characters inside strings. Neither
// is JSON: refuse a '/' outside strings and a byte below 0x20 inside one.
bool OutsideJson(const std::string& text) {
  bool in_string = false;
  bool escaped = false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (in_string) {
      if (byte < 0x20) return true;
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        in_string = false;
      }
    } else if (c == '"') {
      in_string = true;
    } else if (c == '/') {
      return true;
    }
  }
  return false;
}

}  // namespace

bool fromString(Value& value, const std::string& text) {
  if (text.size() > kMaxText || OutsideJson(text)) return false;
  // One reader per thread: making one costs about a sixth of parsing a
  // search hit, and a search reply is many hits. Each parse starts from a
  // clean state, even after one that threw.
  thread_local const std::unique_ptr<CharReader> reader(StrictReader().newCharReader());
  Value parsed;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &errors)) return false;
  } catch (const std::exception&) {
    // The reader throws on pathological input (nesting past its limit).
    return false;
  }
  value.swap(parsed);
  return true;
}

std::string toString(const Value& value) { return writeString(CompactWriter(), value); }

bool fromFile(Value& value, const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return false;
  return fromString(value, text.str());
}

bool toFile(const Value& value, const std::string& path) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out << toString(value);
  out.flush();
  return static_cast<bool>(out);
}

}  // namespace Json
