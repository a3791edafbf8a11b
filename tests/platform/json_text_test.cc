// JSON text: strict parsing, compact writing, files.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "kest/json.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

std::string Nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

constexpr int kRefused = -1;

TEST(JsonTextTest, FromStringAcceptsExactlyOneValueOfItsType) {
  struct Case {
    std::string text;
    int type;  // of the value read, or kRefused
  };
  const Case cases[] = {
      {"{}", Json::objectValue},
      {" \n\t{\"a\" : [1, 2.5, \"x\", true, null]} \n", Json::objectValue},
      {"[]", Json::arrayValue},
      {"\"s\"", Json::stringValue},
      {"null", Json::nullValue},
      {"", kRefused},
      {"{} x", kRefused},
      {"[1] [2]", kRefused},
      {"// c\n{}", kRefused},
      {"{} // c", kRefused},
      {"[1, /* c */ 2]", kRefused},
      {"{\"a\":1 // c\n}", kRefused},
      {"[\"a // b /* c */\"]", Json::arrayValue},
      {"[\"\\\"/\"]", Json::arrayValue},
      {"[\"tab\there\"]", kRefused},
      {"[1,]", kRefused},
      {"{\"a\":1,}", kRefused},
      {"{'a':1}", kRefused},
      {"{a:1}", kRefused},
      {"{\"a\"}", kRefused},
      {"[1 2]", kRefused},
      {"NaN", kRefused},
      {"[\"unterminated]", kRefused},
      {"{\"1\":1}", Json::objectValue},
      {std::string("[\"a\0b\"]", 7), kRefused},
      {Nested(500), Json::arrayValue},
      {Nested(2000), kRefused},
      {std::string(100000, '{'), kRefused},
      {"0", Json::intValue},
      {"-9223372036854775808", Json::intValue},
      {"9223372036854775807", Json::intValue},
      {"9223372036854775808", Json::uintValue},
      {"18446744073709551615", Json::uintValue},
      {"18446744073709551616", Json::realValue},
      {"-9223372036854775809", Json::realValue},
      {"123456789012345678901234567890123456789", Json::realValue},
      {"1.0", Json::realValue},
      {"1e2", Json::realValue},
  };
  for (const auto& c : cases) {
    Json::Value value("untouched");
    EXPECT_EQ(c.type != kRefused, Json::fromString(value, c.text)) << c.text.substr(0, 60);
    if (c.type == kRefused) {
      EXPECT_EQ(Json::Value("untouched"), value) << c.text.substr(0, 60);
    } else {
      EXPECT_EQ(c.type, value.type()) << c.text.substr(0, 60);
    }
  }
  Json::Value value;
  ASSERT_TRUE(Json::fromString(value, "18446744073709551615"));
  EXPECT_EQ(UINT64_MAX, value.asUInt64());
  // Out of the range of a double: refused or kept finite-or-infinite, never a
  // crash; written back it must still be text that parses.
  for (const char* text : {"1e400", "-1e400", "1e-400"}) {
    Json::Value v;
    if (Json::fromString(v, text)) {
      Json::Value again;
      EXPECT_TRUE(Json::fromString(again, Json::toString(v)))
          << text << " -> " << Json::toString(v);
    }
  }
}

TEST(JsonTextTest, RefusesTextOver64MiB) {
  std::string text = "[" + std::string((64u << 20), ' ') + "]";
  Json::Value value;
  EXPECT_FALSE(Json::fromString(value, text));
  text.resize((64u << 20) - 1);
  text.back() = ']';
  EXPECT_TRUE(Json::fromString(value, text));
}

TEST(JsonTextTest, ToStringIsCompactAndKeepsBytes) {
  const Json::Value v = ParseJson(R"({"b":"é \"q\" \\ /","a":[1,-2.5,null,true],"c":{}})");
  EXPECT_EQ(R"({"a":[1,-2.5,null,true],"b":"é \"q\" \\ /","c":{}})", Json::toString(v));
  EXPECT_EQ("null", Json::toString(Json::Value()));

  // Bytes that JSON must escape, and bytes that are no UTF-8, come back as
  // they went in.
  for (const std::string& s :
       {std::string("a\0b", 3), std::string("\x01\x1f\x7f"), std::string("tab\tnl\n")}) {
    Json::Value back;
    const std::string text = Json::toString(Json::Value(s));
    EXPECT_EQ(std::string::npos, text.find('\0'));
    ASSERT_TRUE(Json::fromString(back, text)) << text;
    EXPECT_EQ(s, back.asString());
  }
  Json::Value garbage(std::string("\xff\xfe\xc3"));
  Json::Value back;
  // Whatever the writer makes of bytes that are no UTF-8, it is valid JSON.
  EXPECT_TRUE(Json::fromString(back, Json::toString(garbage)));
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
    EXPECT_TRUE(Json::isValidUtf8(Json::toValidUtf8(s)));
  }
  // Each byte that starts no sequence becomes one U+FFFD; the rest stays.
  EXPECT_EQ("a\xef\xbf\xbd(\xef\xbf\xbd\xc2\xa9", Json::toValidUtf8("a\xe2(\xff\xc2\xa9"));
  Json::Value v = ParseJson(R"({"k": ["ok"]})");
  v["k"].append("\xfe");
  v["\xff"] = "\xc0";
  Json::makeValidUtf8(v);
  EXPECT_EQ(ParseJson(R"({"k": ["ok", "\ufffd"], "\ufffd": "\ufffd"})"), v);
}

TEST(JsonTextTest, Files) {
  const Json::Value v = ParseJson(R"({"k":[1,"two"]})");
  const std::string path = "/tmp/json_text_test/file.json";
  WriteFile(path, "old content that is longer than the new one");
  ASSERT_TRUE(Json::toFile(v, path));
  EXPECT_EQ(R"({"k":[1,"two"]})", ReadFile(path));
  Json::Value read;
  ASSERT_TRUE(Json::fromFile(read, path));
  EXPECT_EQ(v, read);

  Json::Value untouched("x");
  EXPECT_FALSE(Json::fromFile(untouched, "/tmp/json_text_test/missing.json"));
  EXPECT_FALSE(Json::fromFile(untouched, "/tmp/json_text_test"));
  for (const char* text : {"{\"k\":1} trailing", ""}) {
    WriteFile(path, text);
    EXPECT_FALSE(Json::fromFile(untouched, path)) << text;
  }
  EXPECT_EQ(Json::Value("x"), untouched);
  EXPECT_FALSE(Json::toFile(v, "/tmp/json_text_test/no/such/dir/file.json"));
  EXPECT_FALSE(Json::toFile(v, "/tmp/json_text_test"));
}

}  // namespace
}  // namespace kesttest
