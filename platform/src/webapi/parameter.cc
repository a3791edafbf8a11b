#include <limits>

#include "kest/webapi.h"

namespace KEST {
namespace {

// Type rules of the framework (see webapi.h).
bool Accepts(const Json::Value& v, std::string*) { return v.isString(); }
bool Accepts(const Json::Value& v, int*) {
  // jsoncpp calls an integral real an int too; the framework does not.
  return (v.type() == Json::intValue || v.type() == Json::uintValue) && v.isInt();
}
bool Accepts(const Json::Value& v, int64_t*) {
  return (v.type() == Json::intValue || v.type() == Json::uintValue) && v.isInt64();
}
bool Accepts(const Json::Value& v, double*) {
  return v.type() == Json::intValue || v.type() == Json::uintValue || v.type() == Json::realValue;
}
bool Accepts(const Json::Value& v, bool*) { return v.isBool(); }

std::string Convert(const Json::Value& v, std::string*) { return v.asString(); }
int Convert(const Json::Value& v, int*) { return v.asInt(); }
int64_t Convert(const Json::Value& v, int64_t*) { return v.asInt64(); }
double Convert(const Json::Value& v, double*) { return v.asDouble(); }
bool Convert(const Json::Value& v, bool*) { return v.asBool(); }

template <typename T, typename Test, typename Get>
APIParameter<T> Read(const Json::Value& from, const std::string& name, bool required, Test test,
                     Get get, const APIValidator<T>& validator) {
  if (!from.isObject() || !from.isMember(name)) return APIParameter<T>(false, required, T{});
  const Json::Value& member = from[name];
  if (!test(member)) return APIParameter<T>(true, true, T{});
  T value = get(member);
  const bool rejected = validator && !validator(value);
  return APIParameter<T>(true, rejected, rejected ? T{} : std::move(value));
}

template <typename T>
APIParameter<T> ReadBasic(const Json::Value& from, const std::string& name, bool required,
                          const APIValidator<T>& validator) {
  return Read<T>(
      from, name, required,
      [](const Json::Value& v) { return Accepts(v, static_cast<T*>(nullptr)); },
      [](const Json::Value& v) { return Convert(v, static_cast<T*>(nullptr)); }, validator);
}

APIParameter<Json::Value> ReadObject(const Json::Value& from, const std::string& name,
                                     bool required, const APIValidator<Json::Value>& validator) {
  return Read<Json::Value>(
      from, name, required, [](const Json::Value& v) { return v.isObject(); },
      [](const Json::Value& v) { return v; }, validator);
}

APIParameter<Json::Value> ReadArray(const Json::Value& from, const std::string& name, bool required,
                                    const APIValidator<Json::Value>& validator) {
  return Read<Json::Value>(
      from, name, required, [](const Json::Value& v) { return v.isArray(); },
      [](const Json::Value& v) { return v; }, validator);
}

}  // namespace

template <typename T>
APIParameter<T> APIParameterFactoryBasicImpl<T>::FromJson(const Json::Value& from,
                                                          const std::string& name,
                                                          PARAM_NECESSITY necessity,
                                                          const APIValidator<T>& validator) {
  return ReadBasic<T>(from, name, necessity == PARAM_REQUIRED, validator);
}

template class APIParameterFactoryBasicImpl<std::string>;
template class APIParameterFactoryBasicImpl<int>;
template class APIParameterFactoryBasicImpl<int64_t>;
template class APIParameterFactoryBasicImpl<double>;
template class APIParameterFactoryBasicImpl<bool>;

template <>
APIParameter<Json::Value> APIParameterFactoryBasicImpl<Json::Value>::FromJson(
    const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) {
  return Read<Json::Value>(
      from, name, necessity == PARAM_REQUIRED, [](const Json::Value&) { return true; },
      [](const Json::Value& v) { return v; }, validator);
}

APIParameter<Json::Value> APIParameterFactory::ObjectFromJson(
    const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) {
  return ReadObject(from, name, necessity == PARAM_REQUIRED, validator);
}

APIParameter<Json::Value> APIParameterFactory::ArrayFromJson(
    const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) {
  return ReadArray(from, name, necessity == PARAM_REQUIRED, validator);
}

}  // namespace KEST
