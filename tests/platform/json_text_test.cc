// JSON text: strict parsing, compact writing, files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "kest/json.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

std::string Nested(int depth) { return std::string(depth, '[') + std::string(depth, ']'); }

TEST(JsonTextTest, FromStringAcceptsExactlyOneValue) {
  struct Case {
    std::string text;
    bool ok;
  };
  const Case cases[] = {
      {"{}", true},
      {" \n\t{\"a\" : [1, 2.5, \"x\", true, null]} \n", true},
      {"[]", true},
      {"1", true},
      {"\"s\"", true},
      {"null", true},
      {"", false},
      {"{} x", false},
      {"[1] [2]", false},
      {"// c\n{}", false},
      {"{} // c", false},
      {"[1, /* c */ 2]", false},
      {"{\"a\":1 // c\n}", false},
      {"[\"a // b /* c */\"]", true},
      {"[\"\\\"/\"]", true},
      {"[\"tab\there\"]", false},
      {"[1,]", false},
      {"{\"a\":1,}", false},
      {"{'a':1}", false},
      {"{a:1}", false},
      {"{\"a\"}", false},
      {"[1 2]", false},
      {"NaN", false},
      {"[\"unterminated]", false},
      {"{\"1\":1}", true},
      {std::string("[\"a\0b\"]", 7), false},
      {Nested(500), true},
      {Nested(2000), false},
      {std::string(100000, '{'), false},
  };
  for (const auto& c : cases) {
    Json::Value value("untouched");
    EXPECT_EQ(c.ok, Json::fromString(value, c.text)) << c.text.substr(0, 60);
    if (!c.ok) {
      EXPECT_EQ(Json::Value("untouched"), value) << c.text.substr(0, 60);
    }
  }
}

TEST(JsonTextTest, Numbers) {
  struct Case {
    const char* text;
    Json::ValueType type;
  };
  const Case cases[] = {
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
    Json::Value value;
    ASSERT_TRUE(Json::fromString(value, c.text)) << c.text;
    EXPECT_EQ(c.type, value.type()) << c.text;
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
  Json::Value v(Json::objectValue);
  v["b"] = "é \"q\" \\ /";
  v["a"] = Json::Value(Json::arrayValue);
  v["a"].append(1);
  v["a"].append(-2.5);
  v["a"].append(Json::Value());
  v["a"].append(true);
  v["c"] = Json::Value(Json::objectValue);
  EXPECT_EQ(R"({"a":[1,-2.5,null,true],"b":"é \"q\" \\ /","c":{}})", Json::toString(v));
  EXPECT_EQ(std::string::npos, Json::toString(v).find('\n'));
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

TEST(JsonTextTest, Files) {
  Json::Value v;
  ASSERT_TRUE(Json::fromString(v, R"({"k":[1,"two"]})"));
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
  WriteFile(path, "{\"k\":1} trailing");
  EXPECT_FALSE(Json::fromFile(untouched, path));
  WriteFile(path, "");
  EXPECT_FALSE(Json::fromFile(untouched, path));
  EXPECT_EQ(Json::Value("x"), untouched);
  EXPECT_FALSE(Json::toFile(v, "/tmp/json_text_test/no/such/dir/file.json"));
  EXPECT_FALSE(Json::toFile(v, "/tmp/json_text_test"));
}

}  // namespace
}  // namespace kesttest
