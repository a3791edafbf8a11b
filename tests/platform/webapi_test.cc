// The web API framework: JSON text (what our reader refuses beyond the
// library's own grammar, the compact writer, well-formed UTF-8), typed
// getters and parameter states, the response's states and wire form.
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

// One row per rule this reader adds or sets; a refused text leaves the value
// untouched.
TEST(JsonTextTest, FromStringAcceptsExactlyOneValue) {
  const std::pair<std::string, bool> cases[] = {
      {" \n{\"a\" : [\"a // b /* c */\", \"\\\"/\"]} ", true},  // '/' inside strings
      {"{} x", false},
      {"{\"a\":1 // c\n}", false},  // the library skips this one itself
      {"[\"tab\there\"]", false},
      {std::string("[\"a\0b\"]", 7), false},
      {"[1,]", false},
      {"{'a':1}", false},
      {"NaN", false},
      {std::string(1000, '[') + std::string(1000, ']'), true},
      {std::string(1001, '[') + std::string(1001, ']'), false},
      {std::string(100000, '{'), false},  // the library throws on it
      {"[" + std::string((64u << 20) - 2, ' ') + "]", true},
      {"[" + std::string((64u << 20) - 1, ' ') + "]", false},  // over 64 MiB
  };
  for (const auto& c : cases) {
    Json::Value value("untouched");
    EXPECT_EQ(c.second, Json::fromString(value, c.first)) << c.first.substr(0, 60);
    EXPECT_EQ(c.second, value != Json::Value("untouched")) << c.first.substr(0, 60);
  }
  const Json::Value v = ParseJson(R"({"b":"é \"q\"","a":[1,-2.5,null,{}]})");
  EXPECT_EQ(R"({"a":[1,-2.5,null,{}],"b":"é \"q\""})", Json::toString(v));  // compact
}

// Well-formed UTF-8 decides which paths the module sends as bytes and what
// the daemon's snippets may cut: the shortest forms only, no surrogates,
// nothing past U+10FFFF, no sequence cut short.
TEST(JsonTextTest, Utf8) {
  for (const char* s : {"", "a\x7f", "\xc2\xa9", "\xe0\xa0\x80", "\xed\x9f\xbf", "\xef\xbf\xbd",
                        "\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_TRUE(Json::isValidUtf8(s)) << testing::PrintToString(std::string(s));
    EXPECT_EQ(s, Json::toValidUtf8(s));
  }
  for (const char* s : {"\x80", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
                        "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xe2\x82", "\xe2\x28\xa1"}) {
    EXPECT_FALSE(Json::isValidUtf8(s)) << testing::PrintToString(std::string(s));
  }
  // Each byte that starts no sequence becomes one U+FFFD; the rest stays.
  EXPECT_EQ("a\xef\xbf\xbd(\xef\xbf\xbd\xc2\xa9", Json::toValidUtf8("a\xe2(\xff\xc2\xa9"));
  Json::Value v = ParseJson(R"({"k": ["ok"]})");
  v["k"].append("\xfe");
  v["\xff"] = "\xc0";
  Json::makeValidUtf8(v);
  EXPECT_EQ(ParseJson(R"({"k": ["ok", "\ufffd"], "\ufffd": "\ufffd"})"), v);
}

// Which getter accepts a value: s(tring) i(nt) d(ouble) b(ool) o(bject)
// a(rray), at the bounds of an int; no text: not given. (Validators, int64:
// no caller; parameters that are no object: the module's checker tests.)
TEST(WebAPITest, EachGetterAcceptsExactlyItsTypesWhetherRequiredOrNot) {
  const struct {
    const char* json;
    const char* accepted_by;
  } cases[] = {
      {R"("1")", "s"},     {"-2147483648", "id"}, {"2147483648", "d"},
      {"1.0", "d"},  // jsoncpp calls an integral real an int; the framework does not
      {"false", "b"},      {"null", ""},          {"{}", "o"},
      {R"([1,"x"])", "a"}, {nullptr, ""},
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
      read(request.GetAndCheckDouble("p", R), 'd', v.isDouble() ? v.asDouble() : 0.0, -7.5);
      read(request.GetAndCheckBool("p", R), 'b', v.isBool() && v.asBool(), true);
      const Json::Value fallback("fallback");
      read(request.GetAndCheckObject("p", R), 'o', v, fallback);
      read(request.GetAndCheckUnitArray("p", R), 'a', v, fallback);
    }
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
    for (const auto& [code, value] : c.calls) {
      code ? response.SetError(code, value) : response.SetSuccess(value);
    }
    EXPECT_EQ(c.wire, Json::toString(response.ToJson(999))) << c.wire;
    const bool success = c.wire.find("\"success\":true") != std::string::npos;
    EXPECT_EQ(!c.calls.empty() && !success, response.IsError()) << c.wire;
    EXPECT_EQ(success, response.IsSuccess()) << c.wire;
    EXPECT_EQ(c.calls.empty(), response.GetState() == APIResponse::State::kUnset) << c.wire;
    EXPECT_TRUE(!response.IsError() || response.GetData().isNull()) << c.wire;
  }
}

}  // namespace
}  // namespace kesttest
