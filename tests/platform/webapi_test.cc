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
// o(bject) a(rray); the bounds of each number type. No text: the parameter
// is not given at all.
const struct {
  const char* json;
  const char* accepted_by;
} kTypeCases[] = {
    {R"("1")", "s"},
    {"-2147483648", "ild"},
    {"2147483648", "ld"},
    {"1.0", "d"},  // jsoncpp calls an integral real an int; the framework does not
    {"-9223372036854775808", "ld"},
    {"9223372036854775808", "d"},
    {"false", "b"},
    {"null", ""},
    {"{}", "o"},
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

// A validator sees only a value of the right type; its refusal makes the
// parameter invalid and hides the value. (Every getter takes one the same
// way; the module's checkers pass none.)
TEST(WebAPIGetterTest, Validators) {
  const struct {
    const char* json;  // null: not given
    bool answer;
    int calls;
    bool invalid;
  } cases[] = {{"5", true, 1, false},
               {"5", false, 1, true},
               {R"("5")", true, 0, true},
               {"5.5", true, 0, true},
               {nullptr, false, 0, false}};
  for (const auto& c : cases) {
    int calls = 0;
    const APIRequest request =
        c.json ? RequestWith(ParseJson(c.json)) : APIRequest(Json::Value(), 0, "", "", false);
    auto p = request.GetAndCheckInt("p", APIRequest::PARAM_OPTIONAL, [&](const int& v) {
      ++calls;
      return v == 5 && c.answer;
    });
    EXPECT_EQ(c.calls, calls) << c.json;
    EXPECT_EQ(c.invalid, p.IsInvalid()) << c.json;
    EXPECT_EQ(c.calls && !c.invalid ? 5 : 9, p.Get(9)) << c.json;
  }
}

// Parameters, or list elements, that are no object have no members at all.
TEST(WebAPIGetterTest, ValuesThatAreNoObjectHaveNoMembers) {
  const APIRequest request(ParseJson("[1,2]"), 2003, "carol", "session-1", true);
  EXPECT_EQ(Json::Value(Json::objectValue), request.GetParams());
  EXPECT_TRUE(RequestWith(Json::Value()).HasParam("p"));
  const auto O = KEST::PARAM_OPTIONAL;
  EXPECT_EQ(ParseJson("[]"), KEST::APIParameterFactoryBasicImpl<Json::Value>::FromJson(
                                 ParseJson(R"({"a":[]})"), "a", O)
                                 .Get());
  for (const char* text : {"null", "[1]", "7", R"("s")"}) {
    auto p = KEST::APIParameterFactoryBasicImpl<int>::FromJson(ParseJson(text), "n", O);
    EXPECT_FALSE(p.IsSet() || p.IsInvalid()) << text;
  }
}

TEST(WebAPIResponseTest, StatesAndWireForm) {
  const Json::Value data = ParseJson(R"({"hits":[1]})");
  const Json::Value errors = ParseJson(R"({"name":"path","reason":"required"})");
  // Calls in order: a code of 0 is SetSuccess(data), any other SetError(code, data).
  using Calls = std::vector<std::pair<int, Json::Value>>;
  const std::string kErrors =
      R"({"error":{"code":120,"errors":{"name":"path","reason":"required"}},"success":false})";
  const struct {
    Calls calls;
    std::string wire;
  } cases[] = {
      {{}, R"({"error":{"code":117},"success":false})"},
      {{{0, data}}, R"({"data":{"hits":[1]},"success":true})"},
      {{{0, Json::Value()}}, R"({"data":null,"success":true})"},
      {{{503, Json::Value()}}, R"({"error":{"code":503},"success":false})"},
      {{{120, errors}, {0, data}}, kErrors},  // an error wins over a later success
      {{{0, data}, {800, Json::Value()}}, R"({"error":{"code":800},"success":false})"},
      {{{120, errors}, {117, Json::Value()}}, R"({"error":{"code":117},"success":false})"},
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
    EXPECT_EQ(c.wire, Json::toString(response.ToJson())) << c.wire;
    const bool success = c.wire.find("\"success\":true") != std::string::npos;
    EXPECT_EQ(!c.calls.empty() && !success, response.IsError()) << c.wire;
    EXPECT_EQ(success, response.IsSuccess()) << c.wire;
    if (response.IsError()) {
      EXPECT_TRUE(response.GetData().isNull()) << c.wire;
    }
  }
  APIResponse unset;
  EXPECT_EQ(APIResponse::State::kUnset, unset.GetState());
  EXPECT_EQ(R"({"error":{"code":999},"success":false})", Json::toString(unset.ToJson(999)));
  unset.SetError(120, errors);
  EXPECT_EQ(120, unset.GetErrorCode());
  EXPECT_EQ(errors, unset.GetErrorData());
}

}  // namespace
}  // namespace kesttest
