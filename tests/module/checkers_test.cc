// The module's two tables as the server reads them, through dlopen of the
// built module library, and the checkers of the check table over a table of
// parameter sets: the first fault is answered with 120 and {"name",
// "reason"}; good sets pass untouched.
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
    // Exactly these two members.
    const size_t space = fault.find(' ');
    EXPECT_EQ(R"({"name":")" + fault.substr(0, space) + R"(","reason":")" +
                  fault.substr(space + 1) + R"("})",
              Json::toString(response.GetErrorData()))
        << what;
  }

  static void* module_;
};
void* TablesTest::module_ = nullptr;

// Only the two tables are exported; each ends with a zero row, and their
// rows and orders differ on purpose (Term.update is guarded for another
// module, Indicate is served without a checker row).
TEST_F(TablesTest, RowsInOrder) {
  for (const char* hidden :
       {"_ZN9kestondri3sdk8SDKMutexEv",
        "_ZN9kestondri6webapi11CheckSearchEPN4KEST10APIRequestEPNS1_11APIResponseE"}) {
    EXPECT_EQ(nullptr, dlsym(module_, hidden)) << hidden;
  }
  const KEST::APICheckRow* checks = CheckTable();
  EXPECT_EQ(checks, CheckTable()) << "one static table";
  std::vector<std::string> found;
  size_t i = 0;
  for (; checks[i].api && i < 20; ++i) {
    found.push_back(std::string(checks[i].api) + " " + checks[i].method);
    EXPECT_TRUE(checks[i].version == 1 && checks[i].checker && !checks[i].reserved1 &&
                !checks[i].reserved2)
        << found.back();
  }
  EXPECT_TRUE(checks[i].version == 0 && !checks[i].method && !checks[i].checker &&
              !checks[i].reserved1 && !checks[i].reserved2);
  EXPECT_EQ((std::vector<std::string>{API "Term update", API "Status get", API "Status pause",
                                      API "Status resume", API "Folder reindex", API "Folder set",
                                      API "Folder get", API "Folder list", API "Folder list_group",
                                      API "Folder summary", API "Folder add", API "Folder delete",
                                      API "Search search", API "Highlight highlight"}),
            found);

  const KEST::APIHandlerRow* handlers =
      reinterpret_cast<KEST::GetAPITableFunc>(dlsym(module_, KEST::kGetAPITableSymbol))();
  found.clear();
  for (i = 0; handlers[i].api && i < 20; ++i) {
    found.push_back(std::string(handlers[i].api) + " " + handlers[i].method);
    EXPECT_TRUE(handlers[i].version == 1 && handlers[i].handler) << found.back();
  }
  EXPECT_TRUE(handlers[i].version == 0 && !handlers[i].method && !handlers[i].handler);
  EXPECT_EQ((std::vector<std::string>{
                API "Folder add", API "Folder set", API "Folder get", API "Folder delete",
                API "Folder list", API "Folder list_group", API "Folder summary",
                API "Folder reindex", API "Status get", API "Status resume", API "Status pause",
                API "Search search", API "Highlight highlight", API "Indicate indicate"}),
            found);
}

// What a checker that checks nothing is given.
constexpr char kAnything[] = R"({"path":1,"length":"x","limit":"x","folder":{}})";

const struct {
  const char* method;
  const char* params;
  const char* fault;  // "<name> <reason>" answered; "": passes
} kCases[] = {
    // Rows that check nothing.
    {"Status get", kAnything, ""},
    {"Status resume", kAnything, ""},
    {"Folder list_group", kAnything, ""},
    {"Folder summary", kAnything, ""},

    // Status.pause: "length" integer, required.
    {"Status pause", "{}", "length required"},
    {"Status pause", R"({"length":0})", ""},
    {"Status pause", R"({"length":"10"})", "length type"},

    // Folder.get: "path" string, required.
    {"Folder get", "{}", "path required"},
    {"Folder get", R"({"path":5})", "path type"},
    {"Folder get", R"({"path":""})", ""},

    // Folder.reindex: "path" array of strings, required.
    {"Folder reindex", "{}", "path required"},
    {"Folder reindex", R"({"path":"/volume1/a"})", "path type"},
    {"Folder reindex", R"({"path":[]})", ""},
    {"Folder reindex", R"({"path":["/a",1]})", "path type"},

    // Term.update: "indice" array of strings, required.
    {"Term update", "{}", "indice required"},
    {"Term update", R"({"indice":{}})", "indice type"},
    {"Term update", R"({"indice":["i1",{}]})", "indice type"},
    {"Term update", R"({"indice":["i1"]})", ""},

    // Folder.add (and Folder.set): "folder" array of folder items, required.
    {"Folder add", "{}", "folder required"},
    {"Folder set", "{}", "folder required"},
    {"Folder add", R"({"folder":{}})", "folder type"},
    {"Folder add", R"({"folder":[]})", ""},
    {"Folder add",
     R"({"folder":[{"path":"/volume1/a","name":"a","paused":false,"video":true,"audio":false,
         "photo":true,"document":true,"additional":{"status":"normal"}}]})",
     ""},
    {"Folder add", R"({"folder":[{"additional":{}}]})", ""},
    {"Folder add", R"({"folder":["/volume1/a"]})", "folder type"},
    {"Folder add", R"({"folder":[{"path":1}]})", "folder type"},
    {"Folder add", R"({"folder":[{"name":null}]})", "folder type"},
    {"Folder add", R"({"folder":[{"paused":"false"}]})", "folder type"},
    {"Folder add", R"({"folder":[{"video":1}]})", "folder type"},
    {"Folder add", R"({"folder":[{"audio":0}]})", "folder type"},
    {"Folder add", R"({"folder":[{"photo":null}]})", "folder type"},
    {"Folder add", R"({"folder":[{"document":[]}]})", "folder type"},
    {"Folder add", R"({"folder":[{"additional":[]}]})", "folder type"},
    {"Folder add", R"({"folder":[{"additional":{"status":1}}]})", "folder type"},
    {"Folder add", R"({"folder":[{"path":"/a"},{"path":"/b","paused":"x"}]})", "folder type"},

    // Folder.delete: "path" array (optional), "owner" string (optional).
    {"Folder delete", "{}", ""},
    {"Folder delete", R"({"path":["/a"],"owner":"ann"})", ""},
    {"Folder delete", R"({"path":"/a","owner":1})", "path type"},
    {"Folder delete", R"({"path":[1],"owner":1})", "owner type"},
    {"Folder delete", R"({"path":[1],"owner":"ann"})", "path type"},

    // Folder.list: seven optional parameters.
    {"Folder list", "{}", ""},
    {"Folder list",
     R"({"additional":["status"],"direction":"asc","group":"g","pattern":"p","sort_by":"name",
         "limit":10,"offset":0})",
     ""},
    {"Folder list", R"({"additional":"status"})", "additional type"},
    {"Folder list", R"({"additional":[1]})", "additional type"},
    {"Folder list", R"({"direction":1})", "direction type"},
    {"Folder list", R"({"group":[]})", "group type"},
    {"Folder list", R"({"pattern":null})", "pattern type"},
    {"Folder list", R"({"sort_by":{}})", "sort_by type"},
    {"Folder list", R"({"limit":"10"})", "limit type"},
    {"Folder list", R"({"offset":0.5})", "offset type"},
    {"Folder list", R"({"offset":"x","limit":"x"})", "limit type"},
    {"Folder list", R"({"additional":[1],"offset":"x"})", "offset type"},

    // Search.search.
    {"Search search", "{}", "search_weight_list required"},
    {"Search search", R"({"keyword":1})", "search_weight_list required"},
    {"Search search", R"({"search_weight_list":[]})", ""},
    {"Search search", R"({"search_weight_list":[{}]})", ""},
    {"Search search",
     R"({"search_weight_list":[{"weight":1,"field":"f"},{"weight":2.5,"field":"g"}],
         "criteria_list":[{"value":"v","field":"f"}],
         "highlight":[{"frag_length":100,"num_fragments":3,"field":"f"}],
         "keyword":"k","file_type":"pdf","fields":["a"],"size":10,"from":0,"indice":["i"]})",
     ""},
    {"Search search", R"({"search_weight_list":[{"weight":"1","field":"f"}]})",
     "search_weight_list type"},
    {"Search search", R"({"search_weight_list":[{"field":1}]})", "search_weight_list type"},
    {"Search search", R"({"search_weight_list":{}})", "search_weight_list type"},
    {"Search search", R"({"search_weight_list":[],"criteria_list":[{"value":1}]})",
     "criteria_list type"},
    {"Search search", R"({"search_weight_list":[],"criteria_list":[{"field":{}}]})",
     "criteria_list type"},
    {"Search search", R"({"search_weight_list":[],"highlight":[{"frag_length":1.5}]})",
     "highlight type"},
    {"Search search", R"({"search_weight_list":[],"highlight":[{"num_fragments":"3"}]})",
     "highlight type"},
    {"Search search", R"({"search_weight_list":[],"highlight":{}})", "highlight type"},
    {"Search search", R"({"search_weight_list":[],"fields":[1]})", "fields type"},
    {"Search search", R"({"search_weight_list":[],"indice":[null]})", "indice type"},
    {"Search search", R"({"search_weight_list":[],"size":"10"})", "size type"},
    {"Search search", R"({"search_weight_list":[],"from":-1.5})", "from type"},
    {"Search search", R"({"search_weight_list":[],"file_type":[]})", "file_type type"},
    // Type faults of parameters come before any element fault, whatever the
    // order of the parameters.
    {"Search search", R"({"search_weight_list":[1],"indice":"i"})", "indice type"},
    {"Search search", R"({"search_weight_list":[],"criteria_list":[1],"keyword":2})",
     "keyword type"},
    {"Search search", R"({"search_weight_list":[],"size":"x","from":"x"})", "size type"},
    // Element faults in the order of the lists.
    {"Search search", R"({"search_weight_list":[1],"criteria_list":[1]})",
     "search_weight_list type"},
    {"Search search", R"({"search_weight_list":[],"indice":[1],"fields":[1],"highlight":[1]})",
     "highlight type"},
    {"Search search", R"({"search_weight_list":[],"indice":[1],"fields":[1]})", "fields type"},

    // Highlight.highlight.
    {"Highlight highlight", "{}", "full_path required"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"highlight":{},"keyword":"k"})", ""},
    {"Highlight highlight",
     R"({"full_path":"/a","doc_id":1,"highlight":{"frag_length":10,"num_fragments":2,"field":"f"},
         "keyword":"k"})",
     ""},
    {"Highlight highlight", R"({"full_path":1,"highlight":{}})", "full_path type"},
    {"Highlight highlight", R"({"full_path":"/a","highlight":{},"keyword":"k"})",
     "doc_id required"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":"1","highlight":{},"keyword":"k"})",
     "doc_id type"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"keyword":"k"})", "highlight required"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"highlight":[],"keyword":"k"})",
     "highlight type"},
    {"Highlight highlight",
     R"({"full_path":"/a","doc_id":1,"highlight":{"field":2},"keyword":"k"})", "highlight type"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"highlight":{"field":2}})",
     "keyword required"},
    {"Highlight highlight", R"({"full_path":"/a","doc_id":1,"highlight":{},"keyword":null})",
     "keyword type"},
};

TEST_F(TablesTest, Checkers) {
  for (const auto& c : kCases)
    Expect(c.method, ParseJson(c.params), c.fault, c.method + std::string(" ") + c.params);
}

// Parameters that are no object at all count as no parameters; values no
// parser would produce but a framework may hand over are answered, never
// crashed on.
TEST_F(TablesTest, HostileValues) {
  for (const char* text : {"null", "[{\"path\":\"/a\"}]"}) {
    Json::Value params;
    ASSERT_TRUE(Json::fromString(params, text));
    Expect("Folder get", params, "path required", text);
    Expect("Folder list", params, "", text);
  }
  const std::string with_nul("/volume1/a\0b", 12);
  const std::string invalid_utf8 = "/volume1/\xff\xfe\xc0\xaf";
  Json::Value deep_array(Json::arrayValue);
  Json::Value* level = &deep_array;
  for (int i = 0; i < 5000; ++i) level = &level->append(Json::Value(Json::arrayValue));
  Json::Value deep_object(Json::objectValue);
  level = &deep_object;
  for (int i = 0; i < 5000; ++i) level = &((*level)["status"] = Json::Value(Json::objectValue));
  auto array_of = [](const char* key, const Json::Value& v) {
    Json::Value a(Json::arrayValue);
    (key ? a.append(Json::Value())[key] : a.append(Json::Value())) = v;
    return a;
  };
  const struct {
    const char* method;
    const char* key;
    Json::Value value;
    const char* name;
  } cases[] = {
      {"Folder reindex", "path", array_of(nullptr, Json::Value(with_nul)), nullptr},
      {"Folder reindex", "path", array_of(nullptr, Json::Value(invalid_utf8)), nullptr},
      {"Folder reindex", "path", deep_array, "path"},
      {"Folder get", "path", deep_object, "path"},
      {"Folder add", "folder", array_of("additional", deep_object), "folder"},
      {"Search search", "search_weight_list", array_of("field", deep_array), "search_weight_list"},
      {"Status pause", "length", Json::Value(std::nan("")), "length"},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    params[c.key] = c.value;
    if (c.key == std::string("search_weight_list")) params["keyword"] = invalid_utf8;
    Expect(c.method, params, c.name ? c.name + std::string(" type") : "", c.key);
  }
}

}  // namespace
}  // namespace kesttest
