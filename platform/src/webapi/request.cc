#include "kest/webapi.h"

namespace KEST {
namespace {

KEST::PARAM_NECESSITY ItemNecessity(APIRequest::PARAM_NECESSITY necessity) {
  return necessity == APIRequest::PARAM_REQUIRED ? KEST::PARAM_REQUIRED : KEST::PARAM_OPTIONAL;
}

}  // namespace

APIRequest::APIRequest(Json::Value params, uid_t login_uid, std::string login_user_name,
                       std::string session_id, bool is_admin)
    : params_(params.isObject() ? std::move(params) : Json::Value(Json::objectValue)),
      login_uid_(login_uid),
      login_user_name_(std::move(login_user_name)),
      session_id_(std::move(session_id)),
      is_admin_(is_admin) {}

APIParameter<std::string> APIRequest::GetAndCheckString(
    const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<std::string>& validator) const {
  return APIParameterFactoryBasicImpl<std::string>::FromJson(params_, name,
                                                             ItemNecessity(necessity), validator);
}

APIParameter<int> APIRequest::GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity,
                                             const APIValidator<int>& validator) const {
  return APIParameterFactoryBasicImpl<int>::FromJson(params_, name, ItemNecessity(necessity),
                                                     validator);
}

APIParameter<int64_t> APIRequest::GetAndCheckInt64(const std::string& name,
                                                   PARAM_NECESSITY necessity,
                                                   const APIValidator<int64_t>& validator) const {
  return APIParameterFactoryBasicImpl<int64_t>::FromJson(params_, name, ItemNecessity(necessity),
                                                         validator);
}

APIParameter<bool> APIRequest::GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                               const APIValidator<bool>& validator) const {
  return APIParameterFactoryBasicImpl<bool>::FromJson(params_, name, ItemNecessity(necessity),
                                                      validator);
}

APIParameter<double> APIRequest::GetAndCheckDouble(const std::string& name,
                                                   PARAM_NECESSITY necessity,
                                                   const APIValidator<double>& validator) const {
  return APIParameterFactoryBasicImpl<double>::FromJson(params_, name, ItemNecessity(necessity),
                                                        validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckObject(
    const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) const {
  return APIParameterFactory::ObjectFromJson(params_, name, ItemNecessity(necessity), validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckArray(
    const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) const {
  return APIParameterFactory::ArrayFromJson(params_, name, ItemNecessity(necessity), validator);
}

APIParameter<Json::Value> APIRequest::GetAndCheckUnitArray(
    const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator) const {
  return GetAndCheckArray(name, necessity, validator);
}

}  // namespace KEST
