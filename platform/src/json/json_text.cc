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

}  // namespace

bool fromString(Value& value, const std::string& text) {
  if (text.size() > kMaxText) return false;
  std::unique_ptr<CharReader> reader(StrictReader().newCharReader());
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
