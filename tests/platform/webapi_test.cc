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

// Which getter accepts a value: s(tring) i(nt) l(int64) d(ouble) b(ool)
// o(bject) a(rray), at the bounds of each number type; no text: not given.
// (Validators: no caller. Parameters that are no object: the module's
// checker tests.)
TEST(WebAPITest, EachGetterAcceptsExactlyItsTypesWhetherRequiredOrNot) {
  const struct {
    const char* json;
    const char* accepted_by;
  } cases[] = {
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
  for (const auto R : {APIRequest::PARAM_REQUIRED, APIRequest::PARAM_OPTIONAL})
    for (const auto& c : cases) {
      const bool given = c.json, required = R == APIRequest::PARAM_REQUIRED;
      const Json::Value v = given ? ParseJson(c.json) : Json::Value();
      Json::Value params(Json::objectValue);
      if (given) params["p"] = v;
      const APIRequest request(params, 2001, "ann", "sid", false);
      SCOPED_TRACE(std::string("value ") + (given ? c.json : "(none)"));
      auto read = [&](const auto& p, char kind, const auto& value, const auto& fallback) {
        const bool accepted = std::strchr(c.accepted_by, kind) != nullptr;
        EXPECT_EQ(given, p.IsSet()) << kind;
        EXPECT_EQ(given ? !accepted : required, p.IsInvalid()) << kind;
        EXPECT_EQ(accepted ? value : std::decay_t<decltype(value)>{}, p.Get()) << kind;
        EXPECT_EQ(accepted ? value : fallback, p.Get(fallback)) << kind;
      };
      read(request.GetAndCheckString("p", R), 's', v.isString() ? v.asString() : "",
           std::string("fallback"));
      read(request.GetAndCheckInt("p", R), 'i', v.isInt() ? v.asInt() : 0, -7);
      read(request.GetAndCheckInt64("p", R), 'l', v.isInt64() ? v.asInt64() : 0, int64_t{-7});
      read(request.GetAndCheckDouble("p", R), 'd', v.isDouble() ? v.asDouble() : 0.0, -7.5);
      read(request.GetAndCheckBool("p", R), 'b', v.isBool() && v.asBool(), true);
      const Json::Value fallback("fallback");
      read(request.GetAndCheckObject("p", R), 'o', v, fallback);
      read(request.GetAndCheckArray("p", R), 'a', v, fallback);
      read(request.GetAndCheckUnitArray("p", R), 'a', v, fallback);
    }
  const APIRequest request(ParseJson(R"({"p": 5})"), 2001, "ann", "sid", false);
  const auto p =
      request.GetAndCheckInt("p", APIRequest::PARAM_OPTIONAL, [](const int& v) { return v != 5; });
  EXPECT_TRUE(p.IsInvalid());
  EXPECT_EQ(9, p.Get(9));
  // Parameters that are no object have no members at all.
  EXPECT_EQ(Json::Value(Json::objectValue),
            APIRequest(ParseJson("[1,2]"), 2003, "carol", "session-1", true).GetParams());
}

// Calls in order (a code of 0 is SetSuccess(data), any other SetError(code,
// data)) and the wire form they give; an error wins over a later success.
TEST(WebAPITest, ResponseStatesAndWireForm) {
  const Json::Value data = ParseJson(R"({"hits":[1]})");
  const Json::Value errors = ParseJson(R"({"name":"path","reason":"required"})");
  const struct {
    std::vector<std::pair<int, Json::Value>> calls;
    std::string wire;
  } cases[] = {
      {{}, R"({"error":{"code":999},"success":false})"},
      {{{0, data}}, R"({"data":{"hits":[1]},"success":true})"},
      {{{503, Json::Value()}}, R"({"error":{"code":503},"success":false})"},
      {{{120, errors}, {0, data}},
       R"({"error":{"code":120,"errors":{"name":"path","reason":"required"}},"success":false})"},
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
    EXPECT_EQ(c.wire, Json::toString(response.ToJson(999))) << c.wire;
    const bool success = c.wire.find("\"success\":true") != std::string::npos;
    EXPECT_EQ(!c.calls.empty() && !success, response.IsError()) << c.wire;
    EXPECT_EQ(success, response.IsSuccess()) << c.wire;
    EXPECT_EQ(c.calls.empty(), response.GetState() == APIResponse::State::kUnset) << c.wire;
    if (response.IsError()) {
      EXPECT_TRUE(response.GetData().isNull()) << c.wire;
    }
  }
}

}  // namespace
}  // namespace kesttest
