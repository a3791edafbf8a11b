#include "common/json_helpers.h"

#include "kest/json.h"

namespace kestondri {

std::string AppendData(const Json::Value& v) { return ", data=" + Json::toString(v); }

template <>
void GetJsonValue<Json::Value>(Json::Value& out, const Json::Value& obj, const std::string& key,
                               bool required) {
  if (!obj.isObject()) throw Error(kErrInvalidParam, "Not an object" + AppendData(obj));
  if (!obj.isMember(key)) {
    if (required) throw Error(kErrInvalidParam, "Missing property: " + key + AppendData(obj));
    return;
  }
  out = obj[key];
}

void JsonApplyChanges(Json::Value& target, const Json::Value& changes) {
  if (!changes.isObject()) return;
  for (auto it = changes.begin(); it != changes.end(); ++it) {
    const std::string name = it.name();
    const Json::Value& value = *it;
    if (value.isNull()) {
      if (target.isObject()) target.removeMember(name);
    } else if (value.isObject()) {
      // A nested change set creates the levels it names; a level that holds
      // something else than an object is replaced by one.
      if (!target.isObject()) target = Json::Value(Json::objectValue);
      Json::Value& level = target[name];
      if (!level.isObject()) level = Json::Value(Json::objectValue);
      JsonApplyChanges(level, value);
    } else {
      if (!target.isObject()) target = Json::Value(Json::objectValue);
      target[name] = value;
    }
  }
}

template <>
Json::Value Vec2JsonArr<std::string>(const std::vector<std::string>& v) {
  Json::Value arr(Json::arrayValue);
  for (const auto& s : v) arr.append(Json::Value(s));
  return arr;
}

template <>
std::vector<std::string> JsonArr2Vec<std::string>(const Json::Value& arr) {
  std::vector<std::string> out;
  if (!arr.isArray()) return out;
  for (const auto& element : arr) {
    if (isJsonType<std::string>(element)) out.push_back(asJsonType<std::string>(element));
  }
  return out;
}

}  // namespace kestondri
