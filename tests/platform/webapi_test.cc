// The web API framework: typed getters, parameter states, validators and the
// response's states and wire form.
#include <gtest/gtest.h>

#include <string>

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
// o(bject) a(rray).
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
};

bool Accepts(const TypeCase& c, char kind) {
  return std::string(c.accepted_by).find(kind) != std::string::npos;
}

// Checks the states of one parameter read from a present member.
template <typename T>
void ExpectPresent(const KEST::APIParameter<T>& p, bool accepted, const T& value, const T& fallback,
                   const std::string& what) {
  EXPECT_TRUE(p.IsSet()) << what;
  EXPECT_FALSE(p.IsReset()) << what;
  EXPECT_EQ(!accepted, p.IsInvalid()) << what;
  if (accepted) {
    EXPECT_EQ(value, p.Get()) << what;
    EXPECT_EQ(value, p.Get(fallback)) << what;
  } else {
    EXPECT_EQ(T{}, p.Get()) << what;
    EXPECT_EQ(fallback, p.Get(fallback)) << what;
  }
}

TEST(WebAPIGetterTest, EachGetterAcceptsExactlyItsTypesWhetherRequiredOrNot) {
  for (const auto R : {APIRequest::PARAM_REQUIRED, APIRequest::PARAM_OPTIONAL})
    for (const auto& c : kTypeCases) {
      const Json::Value v = ParseJson(c.json);
      const APIRequest request = RequestWith(v);
      const std::string what = std::string("value ") + c.json;
      ExpectPresent<std::string>(request.GetAndCheckString("p", R), Accepts(c, 's'),
                                 Accepts(c, 's') ? v.asString() : "", "fallback", what + " string");
      ExpectPresent<int>(request.GetAndCheckInt("p", R), Accepts(c, 'i'),
                         Accepts(c, 'i') ? v.asInt() : 0, -7, what + " int");
      ExpectPresent<int64_t>(request.GetAndCheckInt64("p", R), Accepts(c, 'l'),
                             Accepts(c, 'l') ? v.asInt64() : 0, -7, what + " int64");
      ExpectPresent<double>(request.GetAndCheckDouble("p", R), Accepts(c, 'd'),
                            Accepts(c, 'd') ? v.asDouble() : 0.0, -7.5, what + " double");
      ExpectPresent<bool>(request.GetAndCheckBool("p", R), Accepts(c, 'b'),
                          Accepts(c, 'b') ? v.asBool() : false, true, what + " bool");
      const Json::Value fallback("fallback");
      ExpectPresent<Json::Value>(request.GetAndCheckObject("p", R), Accepts(c, 'o'), v, fallback,
                                 what + " object");
      ExpectPresent<Json::Value>(request.GetAndCheckArray("p", R), Accepts(c, 'a'), v, fallback,
                                 what + " array");
      ExpectPresent<Json::Value>(request.GetAndCheckUnitArray("p", R), Accepts(c, 'a'), v, fallback,
                                 what + " unit array");
    }
}

TEST(WebAPIGetterTest, StringsKeepEveryByte) {
  const std::string with_nul("a\0b", 3);
  const std::string invalid_utf8 = "\xff\xfe\xc3(";
  for (const std::string& s : {with_nul, invalid_utf8, std::string(1 << 16, 'x')}) {
    const APIRequest request = RequestWith(Json::Value(s));
    auto p = request.GetAndCheckString("p", APIRequest::PARAM_REQUIRED);
    ASSERT_FALSE(p.IsInvalid());
    EXPECT_EQ(s, p.Get());
  }
}

TEST(WebAPIGetterTest, AbsentParameter) {
  const APIRequest request(Json::Value(Json::objectValue), 0, "root", "", true);
  for (auto necessity : {APIRequest::PARAM_REQUIRED, APIRequest::PARAM_OPTIONAL}) {
    const bool required = necessity == APIRequest::PARAM_REQUIRED;
    auto s = request.GetAndCheckString("missing", necessity);
    EXPECT_FALSE(s.IsSet());
    EXPECT_TRUE(s.IsReset());
    EXPECT_EQ(required, s.IsInvalid());
    EXPECT_EQ("", s.Get());
    EXPECT_EQ("d", s.Get("d"));
    auto i = request.GetAndCheckInt("missing", necessity);
    EXPECT_EQ(required, i.IsInvalid());
    EXPECT_EQ(0, i.Get());
    EXPECT_EQ(5, i.Get(5));
    auto o = request.GetAndCheckObject("missing", necessity);
    EXPECT_EQ(required, o.IsInvalid());
    EXPECT_TRUE(o.Get().isNull());
    auto a = request.GetAndCheckUnitArray("missing", necessity);
    EXPECT_EQ(required, a.IsInvalid());
    EXPECT_FALSE(a.IsSet());
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
    const APIRequest request = RequestWith(ParseJson(c.json));
    auto p = request.GetAndCheckInt("p", APIRequest::PARAM_OPTIONAL, [&](const int& v) {
      ++calls;
      seen = v;
      return c.validator_answer;
    });
    EXPECT_EQ(c.expected_calls, calls) << c.json;
    if (calls) {
      EXPECT_EQ(5, seen);
    }
    EXPECT_EQ(c.invalid, p.IsInvalid()) << c.json;
    EXPECT_TRUE(p.IsSet());
    EXPECT_EQ(c.invalid ? 0 : 5, p.Get()) << c.json;
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

  const APIRequest object = RequestWith(ParseJson(R"({"k":1})"));
  auto rejected = object.GetAndCheckObject("p", APIRequest::PARAM_REQUIRED,
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
  struct Step {
    enum { kSuccess, kError } kind;
    int code;
    Json::Value data;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
    const char* wire;
  };
  const Case cases[] = {
      {"unset", {}, R"({"error":{"code":117},"success":false})"},
      {"success", {{Step::kSuccess, 0, data}}, R"({"data":{"hits":[1]},"success":true})"},
      {"success with null",
       {{Step::kSuccess, 0, Json::Value()}},
       R"({"data":null,"success":true})"},
      {"error without data",
       {{Step::kError, 503, Json::Value()}},
       R"({"error":{"code":503},"success":false})"},
      {"error with data",
       {{Step::kError, 120, errors}},
       R"({"error":{"code":120,"errors":{"name":"path","reason":"required"}},"success":false})"},
      {"error wins over a later success",
       {{Step::kError, 120, errors}, {Step::kSuccess, 0, data}},
       R"({"error":{"code":120,"errors":{"name":"path","reason":"required"}},"success":false})"},
      {"error replaces a success",
       {{Step::kSuccess, 0, data}, {Step::kError, 800, Json::Value()}},
       R"({"error":{"code":800},"success":false})"},
      {"later error replaces an earlier one",
       {{Step::kError, 120, errors}, {Step::kError, 117, Json::Value()}},
       R"({"error":{"code":117},"success":false})"},
  };
  for (const auto& c : cases) {
    APIResponse response;
    for (const auto& step : c.steps) {
      if (step.kind == Step::kSuccess) {
        response.SetSuccess(step.data);
      } else {
        response.SetError(step.code, step.data);
      }
    }
    EXPECT_EQ(c.wire, Json::toString(response.ToJson())) << c.name;
    const bool is_error =
        Json::toString(response.ToJson()).find("\"success\":false") != std::string::npos;
    EXPECT_EQ(!c.steps.empty() && is_error, response.IsError()) << c.name;
    EXPECT_EQ(!is_error, response.IsSuccess()) << c.name;
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
