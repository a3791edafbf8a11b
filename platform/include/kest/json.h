// Text operations on JSON values, shared by every component: parse a text
// or a file into a value, and write a value as compact text or to a file.
#ifndef KEST_JSON_H_
#define KEST_JSON_H_

#include <json/json.h>

#include <string>

namespace Json {

// Parses `text` into `*value`; false (and `*value` untouched) when the text is
// not exactly one JSON value: trailing text, comments, nesting deeper than
// 1000 levels and text larger than 64 MiB are refused.
bool fromString(Value& value, const std::string& text);
// The value as compact JSON text on one line, UTF-8 kept as it is.
std::string toString(const Value& value);
// fromString on the whole content of the file at `path`.
bool fromFile(Value& value, const std::string& path);
// Writes toString(value) to `path` (replacing it); false on any I/O failure.
bool toFile(const Value& value, const std::string& path);

// Length of the well-formed UTF-8 sequence that starts at `p`, with `left`
// bytes available (at least 1); 0 when none starts there.
size_t utf8SequenceLength(const unsigned char* p, size_t left);
// Whether `text` is well-formed UTF-8 (no overlong forms, surrogates or code
// points past U+10FFFF).
bool isValidUtf8(const std::string& text);
// `text` with every byte that is not part of a well-formed sequence replaced
// by U+FFFD; well-formed text comes back unchanged.
std::string toValidUtf8(const std::string& text);
// Applies toValidUtf8 to every string and member name inside `value`.
void makeValidUtf8(Value& value);

}  // namespace Json

#endif  // KEST_JSON_H_
