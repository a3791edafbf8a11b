// JSON text: what our reader refuses beyond the library's own grammar, the
// compact writer and well-formed UTF-8. (Files of JSON: no caller yet.)
#include <gtest/gtest.h>

#include <string>

#include "kest/json.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

// One row per rule this reader adds or sets; a refused text leaves the value
// untouched.
TEST(JsonTextTest, FromStringAcceptsExactlyOneValue) {
  const std::pair<std::string, bool> cases[] = {
      {" \n{\"a\" : [\"a // b /* c */\", \"\\\"/\"]} ", true},  // '/' inside strings
      {"{} x", false},
      {"// c\n{}", false},
      {"{\"a\":1 // c\n}", false},  // the library skips this one itself
      {"[\"tab\there\"]", false},
      {std::string("[\"a\0b\"]", 7), false},
      {"[1,]", false},
      {"{'a':1}", false},
      {"NaN", false},
      {std::string(1000, '[') + std::string(1000, ']'), true},
      {std::string(1001, '[') + std::string(1001, ']'), false},
      {std::string(100000, '{'), false},  // the library throws on it
  };
  for (const auto& c : cases) {
    Json::Value value("untouched");
    EXPECT_EQ(c.second, Json::fromString(value, c.first)) << c.first.substr(0, 60);
    EXPECT_EQ(c.second, value != Json::Value("untouched")) << c.first.substr(0, 60);
  }
  std::string text = "[" + std::string((64u << 20) - 2, ' ') + "]";
  Json::Value value;
  EXPECT_TRUE(Json::fromString(value, text));
  EXPECT_FALSE(Json::fromString(value, text + " ")) << "over 64 MiB";
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

}  // namespace
}  // namespace kesttest
