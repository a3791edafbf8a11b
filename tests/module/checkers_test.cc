// The check table's checkers, read through dlopen as the server does: the first fault is 120
// with {"name", "reason"}; good sets pass untouched.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "kest/json.h"
#include "kest/webapi.h"
#include "kest/webapi_module.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

#define API "KEST.Ondri.FileIndexing."

class TablesTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { module_ = dlopen(KEST_MODULE_PATH, RTLD_NOW | RTLD_LOCAL); }
  static void TearDownTestSuite() { dlclose(module_); }
  void SetUp() override { ASSERT_NE(nullptr, module_) << dlerror(); }

  static const KEST::APICheckRow* CheckTable() {
    return reinterpret_cast<KEST::GetAPICheckTableFunc>(
        dlsym(module_, KEST::kGetAPICheckTableSymbol))();
  }
  // Runs the checker of the check table's row for `method` ("Folder get")
  // on `params` and checks its answer: "<name> <reason>", or "" to pass.
  static void Expect(const std::string& method, const Json::Value& params, const std::string& fault,
                     const std::string& what) {
    const KEST::APICheckRow* row = CheckTable();
    while (row->api && std::string(row->api) + " " + row->method != API + method) ++row;
    ASSERT_NE(nullptr, row->checker) << method;
    KEST::APIRequest request(params, 2001, "ann", "sid", false);
    KEST::APIResponse response;
    const bool passed = row->checker(&request, &response);
    EXPECT_EQ(fault.empty(), passed) << what << " -> " << Json::toString(response.ToJson());
    if (fault.empty()) {
      EXPECT_EQ(KEST::APIResponse::State::kUnset, response.GetState()) << what;
      return;
    }
    EXPECT_EQ(120, response.GetErrorCode()) << what;
    const size_t space = fault.find(' ');
    EXPECT_EQ(R"({"name":")" + fault.substr(0, space) + R"(","reason":")" +
                  fault.substr(space + 1) + R"("})",
              Json::toString(response.GetErrorData()))
        << what;
  }

  static void* module_;
};
void* TablesTest::module_ = nullptr;

// Each row's parameters: "[!]<name> <taken value>|<refused value>|...", "!" when required. A
// row without parameters checks nothing, not even wrong types that other rows know.
const char kFolders[] =
    R"(folder [{"path":"/a","name":"a","paused":false,"video":true,"audio":false,"photo":true,)"
    R"("document":true,"additional":{"status":"normal"}}, {"additional":{}}]|{}|["/a"]|)"
    R"([{"path":1}]|[{"name":null}]|[{"paused":"false"}]|[{"video":1}]|[{"audio":0}]|)"
    R"([{"photo":null}]|[{"document":[]}]|[{"additional":[]}]|[{"additional":{"status":1}}]|)"
    R"([{"path":"/a"},{"path":"/b","paused":"x"}])";
const std::vector<std::pair<const char*, std::vector<std::string>>> kRows = {
    {"Status get", {}},
    {"Status resume", {}},
    {"Folder list_group", {}},
    {"Folder summary", {}},
    {"Status pause", {R"(!length 0|"10"|1.5)"}},
    {"Folder get", {R"(!path ""|5|{})"}},
    {"Folder reindex", {R"(!path []|"/a"|["/a",1])"}},
    {"Term update", {R"(!indice ["i1"]|{}|["i1",{}])"}},
    {"Folder add", {std::string("!") + kFolders}},
    {"Folder set", {std::string("!") + kFolders}},
    {"Folder delete", {R"(path ["/a"]|"/a"|[1])", R"(owner "ann"|1)"}},
    {"Folder list",
     {R"(additional ["status"]|"status"|[1])", R"(direction "asc"|1)", R"(group "g"|[])",
      R"(pattern "p"|null)", R"(sort_by "name"|{})", R"(limit 10|"10")", R"(offset 0|0.5)"}},
    {"Search search",
     {R"(!search_weight_list [{"weight":1,"field":"f"},{"weight":2.5},{}]|{}|[1]|[{"weight":"1"}]|)"
      R"([{"field":1}])",
      R"(criteria_list [{"value":"v","field":"f"}]|[{"value":1}]|[{"field":{}}])",
      R"(highlight [{"frag_length":100,"num_fragments":3,"field":"f"}]|{}|[{"frag_length":1.5}]|)"
      R"([{"num_fragments":"3"}])",
      R"(keyword "k"|2)", R"(file_type "pdf"|[])", R"(fields ["a"]|[1])", R"(size 10|"10")",
      R"(from 0|-1.5)", R"(indice ["i"]|[null])"}},
    {"Highlight highlight",
     {R"(!full_path "/a"|1)", R"(!doc_id 1|"1")",
      R"(!highlight {"frag_length":10,"num_fragments":2,"field":"f"}|[]|{"field":2})",
      R"(!keyword "k"|null)"}},
};

// From all of a row's parameters given well, each one taken away and each
// one given wrongly.
TEST_F(TablesTest, Checkers) {
  for (const auto& row : kRows) {
    Json::Value all = ParseJson(R"({"path":1,"length":"x","limit":"x","folder":{}})");
    std::vector<std::vector<std::string>> params;  // name, good value, refused values
    for (std::string text : row.second) {
      const bool required = text[0] == '!';
      text.erase(0, required);
      params.push_back({(required ? "!" : "") + text.substr(0, text.find(' '))});
      for (size_t at = text.find(' ') + 1, end = 0; end != std::string::npos; at = end + 1) {
        end = text.find('|', at);
        params.back().push_back(text.substr(at, end - at));
      }
    }
    if (!params.empty()) all = ParseJson(R"({"unrelated":{}})");
    for (auto& p : params) all[p[0].substr(p[0][0] == '!')] = ParseJson(p[1]);
    const std::string method = row.first;
    Expect(method, all, "", method + " " + Json::toString(all));
    for (const auto& p : params) {
      const std::string name = p[0].substr(p[0][0] == '!');
      Json::Value given = all;
      given.removeMember(name);
      Expect(method, given, p[0][0] == '!' ? name + " required" : "", method + " no " + name);
      for (size_t bad = 2; bad < p.size(); ++bad) {
        given[name] = ParseJson(p[bad]);
        Expect(method, given, name + " type", method + " " + name + " " + p[bad]);
      }
    }
  }
  // Faults of the parameters themselves come first, in the row's order
  // whatever the order given, then faults of list elements in the same order.
  const std::vector<std::vector<const char*>> faults = {
      {"Search search", R"({"keyword":1})", "search_weight_list required"},
      {"Search search", R"({"search_weight_list":[],"criteria_list":[1],"keyword":2})",
       "keyword type"},
      {"Search search", R"({"search_weight_list":[1],"criteria_list":[1]})",
       "search_weight_list type"},
      {"Search search", R"({"search_weight_list":[],"indice":[1],"fields":[1],"highlight":[1]})",
       "highlight type"},
      {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"highlight":{"field":2}})",
       "keyword required"},
      {"Folder list", R"({"offset":"x","limit":"x"})", "limit type"},
      {"Folder delete", R"({"path":[1],"owner":1})", "owner type"},
  };
  for (const auto& f : faults) Expect(f[0], ParseJson(f[1]), f[2], f[0] + std::string(" ") + f[1]);
}

// Parameters that are no object count as none; values no parser would produce but a framework
// may hand over are answered, never crashed on.
TEST_F(TablesTest, HostileValues) {
  for (const char* text : {"null", "[{\"path\":\"/a\"}]"}) {
    Json::Value params;
    ASSERT_TRUE(Json::fromString(params, text));
    Expect("Folder get", params, "path required", text);
    Expect("Folder list", params, "", text);
  }
  Json::Value deep_array(Json::arrayValue), deep_object(Json::objectValue);
  Json::Value* array_level = &deep_array;
  Json::Value* object_level = &deep_object;
  for (int i = 0; i < 5000; ++i) {
    array_level = &array_level->append(Json::Value(Json::arrayValue));
    object_level = &((*object_level)["status"] = Json::Value(Json::objectValue));
  }
  const auto with = [](const char* key, const Json::Value& value) {
    Json::Value params(Json::objectValue);
    params[key] = value;
    return params;
  };
  Json::Value paths(Json::arrayValue);
  paths.append(std::string("/volume1/a\0b", 12));
  paths.append("/volume1/\xff\xfe\xc0\xaf");  // not UTF-8
  Expect("Folder reindex", with("path", paths), "", "a NUL, bytes that are not UTF-8");
  Expect("Folder reindex", with("path", deep_array), "path type", "deep array");
  Expect("Folder get", with("path", deep_object), "path type", "deep object");
  Json::Value nested(Json::arrayValue);
  nested.append(Json::Value())["field"] = deep_array;
  Expect("Search search", with("search_weight_list", nested), "search_weight_list type", "deep");
  Expect("Status pause", with("length", std::nan("")), "length type", "NaN");
}

}  // namespace
}  // namespace kesttest
