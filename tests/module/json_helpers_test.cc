// JSON helpers: strict and lenient member reads, merging, list conversion.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "common/json_helpers.h"
#include "kest/json.h"
#include "support/sandbox.h"

namespace kestondri {
namespace {

using kesttest::ParseJson;

// Reads member "k" of `object` as a T with `required`; returns the reason of
// the error thrown ("" when none) and leaves the result in `out`.
template <typename T>
std::string Read(T& out, const Json::Value& object, bool required) {
  try {
    GetJsonValue<T>(out, object, "k", required);
    return "";
  } catch (const Error& e) {
    EXPECT_EQ(kErrInvalidParam, e.code());
    return e.what();
  }
}

// Which types accept a member: s(tring) b(ool) i(nt) u(nsigned) l(ong)
// d(ouble).
struct MemberCase {
  const char* member;
  const char* accepted_by;
};

const MemberCase kMemberCases[] = {
    {R"("x")", "s"},
    {R"("1")", "s"},
    {"null", "sbiud"},
    {"true", "sbiud"},
    {"0", "sbiuld"},
    {"1", "sbiuld"},
    {"-1", "sbild"},
    {"1.0", "sbiud"},
    {"1.5", "sbiud"},
    {"-1.5", "sbid"},
    {"4294967295", "sbuld"},
    {"9223372036854775807", "sbld"},
    {"18446744073709551615", "sbld"},
    {"1e30", "sbd"},
    {"[]", ""},
    {"[1]", ""},
    {"{}", ""},
    {R"({"a":1})", ""},
};

template <typename T>
void CheckType(char kind, const T& sentinel) {
  for (const auto& c : kMemberCases) {
    const std::string object_text = std::string(R"({"k":)") + c.member + "}";
    const Json::Value object = ParseJson(object_text);
    const bool accepted = std::string(c.accepted_by).find(kind) != std::string::npos;
    EXPECT_EQ(accepted, isJsonType<T>(object["k"])) << kind << " " << c.member;

    T lenient = sentinel;
    EXPECT_EQ("", Read(lenient, object, false)) << kind << " " << c.member;
    T strict = sentinel;
    const std::string reason = Read(strict, object, true);
    if (accepted) {
      EXPECT_EQ("", reason) << kind << " " << c.member;
      EXPECT_EQ(asJsonType<T>(object["k"]), strict);
      EXPECT_EQ(asJsonType<T>(object["k"]), lenient);
    } else {
      // The wording is the same for every type.
      EXPECT_EQ("Not a string, data=" + Json::toString(object), reason) << kind << " " << c.member;
      EXPECT_EQ(sentinel, strict) << kind << " " << c.member;
      EXPECT_EQ(sentinel, lenient) << kind << " " << c.member;
    }
  }
  const Json::Value other = ParseJson(R"({"other":1})");
  T out = sentinel;
  EXPECT_EQ("", Read(out, other, false));
  EXPECT_EQ(sentinel, out);
  EXPECT_EQ(R"(Missing property: k, data={"other":1})", Read(out, other, true));
  for (const char* text : {"null", "[1]", "3", R"("s")"}) {
    for (bool required : {false, true}) {
      EXPECT_EQ(std::string("Not an object, data=") + text, Read(out, ParseJson(text), required))
          << text;
    }
  }
  EXPECT_EQ(sentinel, out);
}

TEST(JsonHelpersTest, ScalarTypes) {
  CheckType<std::string>('s', std::string("sentinel"));
  CheckType<bool>('b', false);
  CheckType<int>('i', -42);
  CheckType<unsigned int>('u', 42u);
  CheckType<long>('l', -42L);
  CheckType<double>('d', -4.25);
}

TEST(JsonHelpersTest, LongTakesItsWholeRange) {
  long l = 7;
  EXPECT_EQ("", Read(l, ParseJson(R"({"k":-9223372036854775808})"), true));
  EXPECT_EQ(LONG_MIN, l);
}

TEST(JsonHelpersTest, ValueReadsAnyMember) {
  for (const char* member : {"null", "1", R"("s")", "[1]", R"({"a":null})"}) {
    const Json::Value object = ParseJson(std::string(R"({"k":)") + member + "}");
    for (bool required : {false, true}) {
      Json::Value out("sentinel");
      EXPECT_EQ("", Read(out, object, required));
      EXPECT_EQ(ParseJson(member), out) << member;
    }
  }
  Json::Value out("sentinel");
  EXPECT_EQ("", Read(out, ParseJson("{}"), false));
  EXPECT_EQ(Json::Value("sentinel"), out);
  EXPECT_EQ("Missing property: k, data={}", Read(out, ParseJson("{}"), true));
  EXPECT_EQ("Not an object, data=[]", Read(out, ParseJson("[]"), false));
}

TEST(JsonHelpersTest, ApplyChanges) {
  struct Case {
    const char* target;
    const char* changes;
    const char* result;
  };
  const Case cases[] = {
      {R"({"a":1,"b":{"d":2}})", R"({"a":null,"b":{"c":1}})", R"({"b":{"c":1,"d":2}})"},
      {R"({})", R"({"x":{"y":{"z":1}}})", R"({"x":{"y":{"z":1}}})"},
      {R"({"a":[1,2,3]})", R"({"a":[9]})", R"({"a":[9]})"},
      {R"({"a":{"b":1}})", R"({"a":5})", R"({"a":5})"},
      {R"({"a":1})", R"({"missing":null})", R"({"a":1})"},
      {R"({"a":{"b":1,"c":2}})", R"({"a":{"b":null}})", R"({"a":{"c":2}})"},
      {R"({"a":1})", R"({})", R"({"a":1})"},
      {R"({"a":{"b":1}})", R"({"a":{}})", R"({"a":{"b":1}})"},
      {R"({"a":"s"})", R"({"a":{"n":true}})", R"({"a":{"n":true}})"},
  };
  for (const auto& c : cases) {
    Json::Value target = ParseJson(c.target);
    JsonApplyChanges(target, ParseJson(c.changes));
    EXPECT_EQ(c.result, Json::toString(target)) << c.target << " + " << c.changes;
  }
}

TEST(JsonHelpersTest, ListConversions) {
  EXPECT_EQ("[]", Json::toString(Vec2JsonArr<std::string>({})));
  EXPECT_TRUE(Vec2JsonArr<std::string>({}).isArray());
  const std::vector<std::string> strings = {"b", "", "a", std::string("n\0l", 3)};
  const Json::Value arr = Vec2JsonArr(strings);
  ASSERT_EQ(4u, arr.size());
  EXPECT_EQ(strings, JsonArr2Vec<std::string>(arr));

  struct Case {
    const char* arr;
    std::vector<std::string> strings;
  };
  const Case cases[] = {
      {R"(["x",[1],"y",{"a":1},"z"])", {"x", "y", "z"}},
      {R"([1,true,null,2.5])", {"1", "true", "", "2.5"}},
      {"[]", {}},
      {R"("not an array")", {}},
      {"null", {}},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.strings, JsonArr2Vec<std::string>(ParseJson(c.arr))) << c.arr;
}

}  // namespace
}  // namespace kestondri
