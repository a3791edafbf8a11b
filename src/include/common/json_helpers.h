// Typed reading of JSON members with the module's error reporting, merging
// of change sets, and conversion between string lists and JSON arrays.
#ifndef KESTONDRI_COMMON_JSON_HELPERS_H_
#define KESTONDRI_COMMON_JSON_HELPERS_H_

#include <json/json.h>

#include <string>
#include <vector>

#include "common/error.h"

namespace kestondri {

// Whether `v` can be read as a T. The rules follow the JSON library's
// convertibility, except for long: only a JSON integer is a long (no real,
// boolean, string or null), which keeps 64-bit ids from being silently
// rounded from reals.
template <typename T>
bool isJsonType(const Json::Value& v);
template <>
inline bool isJsonType<std::string>(const Json::Value& v) {
  return v.isConvertibleTo(Json::stringValue);
}
template <>
inline bool isJsonType<bool>(const Json::Value& v) {
  return v.isConvertibleTo(Json::booleanValue);
}
template <>
inline bool isJsonType<int>(const Json::Value& v) {
  return v.isConvertibleTo(Json::intValue);
}
template <>
inline bool isJsonType<unsigned int>(const Json::Value& v) {
  return v.isConvertibleTo(Json::uintValue);
}
template <>
inline bool isJsonType<long>(const Json::Value& v) {
  return v.type() == Json::intValue || v.type() == Json::uintValue;
}
template <>
inline bool isJsonType<double>(const Json::Value& v) {
  return v.isConvertibleTo(Json::realValue);
}

template <typename T>
T asJsonType(const Json::Value& v);
template <>
inline std::string asJsonType<std::string>(const Json::Value& v) {
  return v.asString();
}
template <>
inline bool asJsonType<bool>(const Json::Value& v) {
  return v.asBool();
}
template <>
inline int asJsonType<int>(const Json::Value& v) {
  return v.asInt();
}
template <>
inline unsigned int asJsonType<unsigned int>(const Json::Value& v) {
  return v.asUInt();
}
template <>
inline long asJsonType<long>(const Json::Value& v) {
  // A uint beyond the signed range is refused by asInt64(); keep its bits.
  return v.type() == Json::uintValue ? static_cast<long>(v.asUInt64()) : v.asInt64();
}
template <>
inline double asJsonType<double>(const Json::Value& v) {
  return v.asDouble();
}

// ", data=" followed by the compact text of `v`.
std::string AppendData(const Json::Value& v);

// Reads member `key` of `obj` into `out`.
// - `obj` not an object: throws 120 "Not an object, data=...", whatever
//   `required` says.
// - not required: a missing member or one of the wrong type leaves `out`
//   unchanged.
// - required: a missing member throws 120 "Missing property: <key>, data=...";
//   one of the wrong type throws 120 "Not a string, data=..." (that wording
//   for every T). The data is always the whole containing object.
template <typename T>
void GetJsonValue(T& out, const Json::Value& obj, const std::string& key, bool required) {
  if (!obj.isObject()) throw Error(kErrInvalidParam, "Not an object" + AppendData(obj));
  const bool present = obj.isMember(key);
  if (!required) {
    if (present && isJsonType<T>(obj[key])) out = asJsonType<T>(obj[key]);
    return;
  }
  if (!present) throw Error(kErrInvalidParam, "Missing property: " + key + AppendData(obj));
  if (!isJsonType<T>(obj[key])) throw Error(kErrInvalidParam, "Not a string" + AppendData(obj));
  out = asJsonType<T>(obj[key]);
}

// The same without a type test: a present member is copied whatever it holds.
template <>
void GetJsonValue<Json::Value>(Json::Value& out, const Json::Value& obj, const std::string& key,
                               bool required);

// Merges `changes` into `target`: a null member removes the key, an object
// member merges recursively (creating missing levels), anything else
// (arrays included) replaces the member whole.
void JsonApplyChanges(Json::Value& target, const Json::Value& changes);

template <typename T>
Json::Value Vec2JsonArr(const std::vector<T>& v);
template <>
Json::Value Vec2JsonArr<std::string>(const std::vector<std::string>& v);

// The string-convertible elements of `arr`, in order; others are skipped.
template <typename T>
std::vector<T> JsonArr2Vec(const Json::Value& arr);
template <>
std::vector<std::string> JsonArr2Vec<std::string>(const Json::Value& arr);

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_JSON_HELPERS_H_
