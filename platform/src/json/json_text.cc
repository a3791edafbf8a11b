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

// The ranges of the Unicode standard's table 3-7.
size_t utf8SequenceLength(const unsigned char* p, size_t left) {
  const unsigned char b0 = p[0];
  if (b0 < 0x80) return 1;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  size_t length = 0;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    length = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    length = 3;
    if (b0 == 0xE0) low = 0xA0;   // overlong
    if (b0 == 0xED) high = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    length = 4;
    if (b0 == 0xF0) low = 0x90;   // overlong
    if (b0 == 0xF4) high = 0x8F;  // past U+10FFFF
  } else {
    return 0;
  }
  if (left < length || p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

namespace {

size_t SequenceLength(const std::string& text, size_t at) {
  return utf8SequenceLength(reinterpret_cast<const unsigned char*>(text.data()) + at,
                            text.size() - at);
}

}  // namespace

bool isValidUtf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceLength(text, at);
    if (length == 0) return false;
    at += length;
  }
  return true;
}

std::string toValidUtf8(const std::string& text) {
  if (isValidUtf8(text)) return text;
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t at = 0; at < text.size();) {
    const size_t length = SequenceLength(text, at);
    if (length == 0) {
      out += "\xEF\xBF\xBD";
      ++at;
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

void makeValidUtf8(Value& value) {
  if (value.isString()) {
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    const std::string text(begin, end);
    if (!isValidUtf8(text)) value = toValidUtf8(text);
  } else if (value.isArray()) {
    for (auto& item : value) makeValidUtf8(item);
  } else if (value.isObject()) {
    bool names_valid = true;
    for (const auto& name : value.getMemberNames()) names_valid = names_valid && isValidUtf8(name);
    if (!names_valid) {
      // Two names may become one: the later member wins, as a parser would.
      Value renamed(objectValue);
      for (const auto& name : value.getMemberNames()) {
        renamed[toValidUtf8(name)] = std::move(value[name]);
      }
      value.swap(renamed);
    }
    for (auto& member : value) makeValidUtf8(member);
  }
}

}  // namespace Json
