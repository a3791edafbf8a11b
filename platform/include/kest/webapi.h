// The web API framework: the request and response objects that the web API
// server hands to a module's checkers and handlers, and the typed parameter
// getters they read parameters with.
//
// Ownership: the server owns every APIRequest and APIResponse; modules only
// borrow them for the duration of one call. Neither class is thread-safe.
#ifndef KEST_WEBAPI_H_
#define KEST_WEBAPI_H_

#include <json/json.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace KEST {

// Necessity of a member read from inside a JSON object (list elements).
// Item checks read every member as PARAM_OPTIONAL: a member is checked for its
// type where present and may be left out.
enum PARAM_NECESSITY { PARAM_REQUIRED = 0, PARAM_OPTIONAL = 1 };

// One typed parameter as read by a getter.
//
// States: absent (not in the request), present with the right type (valid),
// present with the wrong type, or rejected by its validator.
//   IsSet()     present, whatever its type.
//   IsReset()   not supplied at all (the opposite of IsSet()).
//   IsInvalid() present with the wrong type, rejected by the validator, or
//               required and absent.
//   Get()       the value when valid and present; otherwise the type's empty
//               value (0, false, 0.0, "", null). It never throws, so a method
//               without a checker that reads a parameter of the wrong type
//               simply sees the empty value.
//   Get(d)      the value when valid and present; otherwise d.
template <typename T>
class APIParameter {
 public:
  APIParameter() = default;
  APIParameter(bool is_set, bool is_invalid, T value)
      : is_set_(is_set), is_invalid_(is_invalid), value_(std::move(value)) {}

  bool IsSet() const { return is_set_; }
  bool IsReset() const { return !is_set_; }
  bool IsInvalid() const { return is_invalid_; }
  const T& Get() const { return (is_set_ && !is_invalid_) ? value_ : Empty(); }
  T Get(const T& default_value) const { return (is_set_ && !is_invalid_) ? value_ : default_value; }

 private:
  static const T& Empty() {
    static const T kEmpty{};
    return kEmpty;
  }

  bool is_set_ = false;
  bool is_invalid_ = false;
  T value_{};
};

// A validator sees a value of the right type and answers whether it is
// acceptable; an empty std::function (or nullptr) accepts everything.
template <typename T>
using APIValidator = std::function<bool(const T&)>;

// Reads one member of a JSON object as a T. Type rules, shared with the
// request getters:
//   std::string  a JSON string (may hold any bytes, NULs included)
//   int          a JSON integer within the 32-bit signed range (reals,
//                booleans and numeric strings are the wrong type)
//   int64_t      a JSON integer within the 64-bit signed range
//   double       any JSON number
//   bool         a JSON boolean
//   Json::Value  any value (see APIParameterFactory for objects and arrays)
// A member holding JSON null counts as present with the wrong type. A `from`
// that is not an object yields an absent parameter.
template <typename T>
class APIParameterFactoryBasicImpl {
 public:
  static APIParameter<T> FromJson(const Json::Value& from, const std::string& name,
                                  PARAM_NECESSITY necessity,
                                  const APIValidator<T>& validator = nullptr);
};

// Json::Value: any value, no type test.
template <>
APIParameter<Json::Value> APIParameterFactoryBasicImpl<Json::Value>::FromJson(
    const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
    const APIValidator<Json::Value>& validator);

class APIParameterFactory {
 public:
  // A member that must be a JSON object.
  static APIParameter<Json::Value> ObjectFromJson(
      const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<Json::Value>& validator = nullptr);
  // A member that must be a JSON array.
  static APIParameter<Json::Value> ArrayFromJson(
      const Json::Value& from, const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<Json::Value>& validator = nullptr);
};

// One request: the method's parameters as one JSON object plus who asked.
class APIRequest {
 public:
  enum PARAM_NECESSITY { PARAM_REQUIRED = 0, PARAM_OPTIONAL = 1 };

  APIRequest() = default;
  // `params` is the method's parameters; anything that is not a JSON object is
  // taken as an empty object.
  APIRequest(Json::Value params, uid_t login_uid, std::string login_user_name,
             std::string session_id, bool is_admin);

  uid_t GetLoginUID() const { return login_uid_; }
  std::string GetLoginUserName() const { return login_user_name_; }
  std::string GetSessionID() const { return session_id_; }
  // Whether the login user belongs to the administrators group.
  bool IsAdmin() const { return is_admin_; }

  const Json::Value& GetParams() const { return params_; }
  bool HasParam(const std::string& name) const { return params_.isMember(name); }

  // Typed, checked getters; see APIParameterFactoryBasicImpl for the rules.
  APIParameter<std::string> GetAndCheckString(
      const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<std::string>& validator = nullptr) const;
  APIParameter<int> GetAndCheckInt(const std::string& name, PARAM_NECESSITY necessity,
                                   const APIValidator<int>& validator = nullptr) const;
  APIParameter<int64_t> GetAndCheckInt64(const std::string& name, PARAM_NECESSITY necessity,
                                         const APIValidator<int64_t>& validator = nullptr) const;
  APIParameter<bool> GetAndCheckBool(const std::string& name, PARAM_NECESSITY necessity,
                                     const APIValidator<bool>& validator = nullptr) const;
  APIParameter<double> GetAndCheckDouble(const std::string& name, PARAM_NECESSITY necessity,
                                         const APIValidator<double>& validator = nullptr) const;
  // A JSON object.
  APIParameter<Json::Value> GetAndCheckObject(
      const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<Json::Value>& validator = nullptr) const;
  // A JSON array. GetAndCheckUnitArray is the same getter under the name the
  // parameter checkers use.
  APIParameter<Json::Value> GetAndCheckArray(
      const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<Json::Value>& validator = nullptr) const;
  APIParameter<Json::Value> GetAndCheckUnitArray(
      const std::string& name, PARAM_NECESSITY necessity,
      const APIValidator<Json::Value>& validator = nullptr) const;

 private:
  Json::Value params_{Json::objectValue};
  uid_t login_uid_ = static_cast<uid_t>(-1);
  std::string login_user_name_;
  std::string session_id_;
  bool is_admin_ = false;
};

// The answer to one request, read back by whoever serves the request.
//
// An error wins over a success: once SetError was called, a later SetSuccess
// does not turn the answer into a success (a handler that fails after a
// checker or a subclass has answered must never leak a success). A later
// SetError replaces an earlier error.
class APIResponse {
 public:
  enum class State { kUnset, kSuccess, kError };

  void SetSuccess(const Json::Value& data = Json::Value());
  void SetError(int code, const Json::Value& data = Json::Value());

  State GetState() const { return state_; }
  bool IsSuccess() const { return state_ == State::kSuccess; }
  bool IsError() const { return state_ == State::kError; }
  const Json::Value& GetData() const { return data_; }
  int GetErrorCode() const { return error_code_; }
  const Json::Value& GetErrorData() const { return error_data_; }

  // The wire form: {"success": true, "data": <data>} or
  // {"success": false, "error": {"code": N}} with "errors": <data> inside
  // "error" when the error data is not null. An unset response is reported as
  // error `unset_code`.
  Json::Value ToJson(int unset_code = 117) const;

 private:
  State state_ = State::kUnset;
  Json::Value data_;
  int error_code_ = 0;
  Json::Value error_data_;
};

}  // namespace KEST

#endif  // KEST_WEBAPI_H_
