// The web API framework: typed getters, parameter states, validators and the
// response's states and wire form.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kest/json.h"
#include "kest/webapi.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

using KEST::APIRequest;
using KEST::APIResponse;

APIRequest RequestWith(const Json::Value& value) {
  Json::Value params(Json::objectValue);
  params["p"] = value;
  return APIRequest(params, 2001, "ann", "sid", false);
}

// Which getter accepts a value: s(tring) i(nt) l(int64) d(ouble) b(ool)
// o(bject) a(rray). No text: the parameter is not given at all.
struct TypeCase {
  const char* json;
  const char* accepted_by;
};

const TypeCase kTypeCases[] = {
    {R"("abc")", "s"},
    {R"("")", "s"},
    {R"("1")", "s"},
    {"0", "ild"},
    {"-1", "ild"},
    {"1.0", "d"},
    {"1.5", "d"},
    {"-0.0", "d"},
    {"2147483647", "ild"},
    {"-2147483648", "ild"},
    {"2147483648", "ld"},
    {"-2147483649", "ld"},
    {"9223372036854775807", "ld"},
    {"-9223372036854775808", "ld"},
    {"9223372036854775808", "d"},
    {"18446744073709551615", "d"},
    {"123456789012345678901234567890", "d"},
    {"1e300", "d"},
    {"true", "b"},
    {"false", "b"},
    {"null", ""},
    {"{}", "o"},
    {R"({"a":{"b":[1]}})", "o"},
    {"[]", "a"},
    {R"([1,"x"])", "a"},
    {nullptr, ""},
};

// The states of one parameter: given or not, of an accepted type or not.
template <typename T>
void ExpectRead(const KEST::APIParameter<T>& p, bool given, bool required, bool accepted,
                const T& value, const T& fallback, const std::string& what) {
  EXPECT_EQ(given, p.IsSet()) << what;
  EXPECT_EQ(!given, p.IsReset()) << what;
  EXPECT_EQ(given ? !accepted : required, p.IsInvalid()) << what;
  EXPECT_EQ(accepted ? value : T{}, p.Get()) << what;
  EXPECT_EQ(accepted ? value : fallback, p.Get(fallback)) << what;
}

TEST(WebAPIGetterTest, EachGetterAcceptsExactlyItsTypesWhetherRequiredOrNot) {
  for (const auto R : {APIRequest::PARAM_REQUIRED, APIRequest::PARAM_OPTIONAL})
    for (const auto& c : kTypeCases) {
      const bool given = c.json, required = R == APIRequest::PARAM_REQUIRED;
      const Json::Value v = given ? ParseJson(c.json) : Json::Value();
      const APIRequest request =
          given ? RequestWith(v) : APIRequest(Json::Value(Json::objectValue), 0, "root", "", true);
      const std::string what = std::string("value ") + (given ? c.json : "(none)");
      auto accepts = [&](char kind) { return std::strchr(c.accepted_by, kind) != nullptr; };
      auto read = [&](auto p, char kind, auto value, auto fallback, const char* type) {
        ExpectRead<decltype(value)>(p, given, required, accepts(kind), value, fallback,
                                    what + " " + type);
      };
      read(request.GetAndCheckString("p", R), 's', accepts('s') ? v.asString() : "",
           std::string("fallback"), "string");
      read(request.GetAndCheckInt("p", R), 'i', accepts('i') ? v.asInt() : 0, -7, "int");
      read(request.GetAndCheckInt64("p", R), 'l', accepts('l') ? v.asInt64() : int64_t{0},
           int64_t{-7}, "int64");
      read(request.GetAndCheckDouble("p", R), 'd', accepts('d') ? v.asDouble() : 0.0, -7.5,
           "double");
      read(request.GetAndCheckBool("p", R), 'b', accepts('b') && v.asBool(), true, "bool");
      const Json::Value fallback("fallback");
      read(request.GetAndCheckObject("p", R), 'o', v, fallback, "object");
      read(request.GetAndCheckArray("p", R), 'a', v, fallback, "array");
      read(request.GetAndCheckUnitArray("p", R), 'a', v, fallback, "unit array");
    }
}

TEST(WebAPIGetterTest, StringsKeepEveryByte) {
  for (const std::string& s :
       {std::string("a\0b", 3), std::string("\xff\xfe\xc3("), std::string(1 << 16, 'x')}) {
    EXPECT_EQ(s,
              RequestWith(Json::Value(s)).GetAndCheckString("p", APIRequest::PARAM_REQUIRED).Get());
  }
}

TEST(WebAPIGetterTest, ValidatorsSeeOnlyValuesOfTheRightType) {
  struct Case {
    const char* json;
    bool validator_answer;
    int expected_calls;
    bool invalid;
  };
  const Case cases[] = {
      {"5", true, 1, false},
      {"5", false, 1, true},
      {R"("5")", true, 0, true},
      {"5.5", true, 0, true},
  };
  for (const auto& c : cases) {
    int calls = 0;
    int seen = -1;
    auto p = RequestWith(ParseJson(c.json))
                 .GetAndCheckInt("p", APIRequest::PARAM_OPTIONAL, [&](const int& v) {
                   ++calls;
                   seen = v;
                   return c.validator_answer;
                 });
    EXPECT_EQ(c.expected_calls, calls) << c.json;
    EXPECT_EQ(calls ? 5 : -1, seen) << c.json;
    EXPECT_TRUE(p.IsSet());
    EXPECT_EQ(c.invalid, p.IsInvalid()) << c.json;
    EXPECT_EQ(c.invalid ? 9 : 5, p.Get(9)) << c.json;
  }
  int calls = 0;
  const APIRequest empty(Json::Value(Json::objectValue), 0, "", "", false);
  auto absent = empty.GetAndCheckString("p", APIRequest::PARAM_OPTIONAL, [&](const std::string&) {
    ++calls;
    return false;
  });
  EXPECT_EQ(0, calls);
  EXPECT_FALSE(absent.IsInvalid());

  auto rejected = RequestWith(ParseJson(R"({"k":1})"))
                      .GetAndCheckObject("p", APIRequest::PARAM_REQUIRED,
                                         [](const Json::Value& v) { return v.isMember("x"); });
  EXPECT_TRUE(rejected.IsInvalid());
  EXPECT_TRUE(rejected.Get().isNull());
}

// The getters above read through the factories; what only the factories
// meet is a value that is no object at all, where every member is absent.
TEST(WebAPIGetterTest, FactoriesReadMembersOfAnyValue) {
  using KEST::APIParameterFactoryBasicImpl;
  const auto O = KEST::PARAM_OPTIONAL;
  const Json::Value element = ParseJson(R"({"a":[],"o":{}})");
  EXPECT_FALSE(APIParameterFactoryBasicImpl<Json::Value>::FromJson(element, "a", O).IsInvalid());
  EXPECT_FALSE(APIParameterFactoryBasicImpl<Json::Value>::FromJson(element, "o", O).IsInvalid());
  for (const char* text : {"null", "[1]", "7", R"("s")"}) {
    auto p = APIParameterFactoryBasicImpl<int>::FromJson(ParseJson(text), "n", O);
    EXPECT_FALSE(p.IsSet()) << text;
    EXPECT_FALSE(p.IsInvalid()) << text;
  }
}

TEST(WebAPIRequestTest, ParamsThatAreNoObjectReadAsEmpty) {
  const APIRequest request(ParseJson("[1,2]"), 2003, "carol", "session-1", true);
  EXPECT_TRUE(request.GetParams().isObject());
  EXPECT_EQ(0u, request.GetParams().size());
  EXPECT_FALSE(APIRequest(Json::Value(), 0, "", "", false).HasParam("x"));
  EXPECT_TRUE(RequestWith(Json::Value()).HasParam("p"));
}

TEST(WebAPIResponseTest, StatesAndWireForm) {
  const Json::Value data = ParseJson(R"({"hits":[1]})");
  const Json::Value errors = ParseJson(R"({"name":"path","reason":"required"})");
  // Calls in order: a code of 0 is SetSuccess(data), any other SetError(code, data).
  using Calls = std::vector<std::pair<int, Json::Value>>;
  const std::string kErrors = R"("errors":{"name":"path","reason":"required"})";
  const struct {
    const char* name;
    Calls calls;
    std::string wire;
  } cases[] = {
      {"unset", {}, R"({"error":{"code":117},"success":false})"},
      {"success", {{0, data}}, R"({"data":{"hits":[1]},"success":true})"},
      {"success with null", {{0, Json::Value()}}, R"({"data":null,"success":true})"},
      {"error without data", {{503, Json::Value()}}, R"({"error":{"code":503},"success":false})"},
      {"error with data",
       {{120, errors}},
       R"({"error":{"code":120,)" + kErrors + "},\"success\":false}"},
      {"error wins over a later success",
       {{120, errors}, {0, data}},
       R"({"error":{"code":120,)" + kErrors + "},\"success\":false}"},
      {"error replaces a success",
       {{0, data}, {800, Json::Value()}},
       R"({"error":{"code":800},"success":false})"},
      {"later error replaces an earlier one",
       {{120, errors}, {117, Json::Value()}},
       R"({"error":{"code":117},"success":false})"},
  };
  for (const auto& c : cases) {
    APIResponse response;
    for (const auto& call : c.calls) {
      if (call.first == 0) {
        response.SetSuccess(call.second);
      } else {
        response.SetError(call.first, call.second);
      }
    }
    EXPECT_EQ(c.wire, Json::toString(response.ToJson())) << c.name;
    const bool success = c.wire.find("\"success\":true") != std::string::npos;
    EXPECT_EQ(!c.calls.empty() && !success, response.IsError()) << c.name;
    EXPECT_EQ(success, response.IsSuccess()) << c.name;
    if (response.IsError()) {
      EXPECT_TRUE(response.GetData().isNull()) << c.name;
    }
  }
  APIResponse unset;
  EXPECT_EQ(APIResponse::State::kUnset, unset.GetState());
  EXPECT_EQ(R"({"error":{"code":999},"success":false})", Json::toString(unset.ToJson(999)));
  APIResponse answered;
  answered.SetError(120, errors);
  EXPECT_EQ(120, answered.GetErrorCode());
  EXPECT_EQ(errors, answered.GetErrorData());
}

}  // namespace
}  // namespace kesttest
