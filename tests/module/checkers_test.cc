// Parameter checkers over a table of parameter sets: the first fault is
// answered with 120 and {"name", "reason"}; good sets pass untouched.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "kest/json.h"
#include "kest/webapi.h"
#include "webapi/checkers.h"

namespace kestondri {
namespace webapi {
namespace {

using Checker = bool (*)(KEST::APIRequest*, KEST::APIResponse*);

struct Case {
  const char* checker_name;
  Checker checker;
  std::string params;  // JSON text
  const char* name;    // null: passes
  const char* reason;
};

// Runs one checker on `params` and checks its answer.
void Expect(Checker checker, const Json::Value& params, const char* name, const char* reason,
            const std::string& what) {
  KEST::APIRequest request(params, 2001, "ann", "sid", false);
  KEST::APIResponse response;
  const bool passed = checker(&request, &response);
  if (!name) {
    EXPECT_TRUE(passed) << what << " -> " << Json::toString(response.ToJson());
    EXPECT_EQ(KEST::APIResponse::State::kUnset, response.GetState()) << what;
    return;
  }
  EXPECT_FALSE(passed) << what;
  ASSERT_TRUE(response.IsError()) << what;
  EXPECT_EQ(120, response.GetErrorCode()) << what;
  // Exactly two members, "name" first.
  EXPECT_EQ(std::string(R"({"name":")") + name + R"(","reason":")" + reason + R"("})",
            Json::toString(response.GetErrorData()))
      << what;
  EXPECT_EQ(std::vector<std::string>({"name", "reason"}), response.GetErrorData().getMemberNames());
}

#define C(fn) #fn, fn

const Case kCases[] = {
    // Always passes.
    {C(CheckPass), "{}", nullptr, nullptr},

    // Status.pause: "length" integer, required.
    {C(CheckLength), "{}", "length", "required"},
    {C(CheckLength), R"({"length":0})", nullptr, nullptr},
    {C(CheckLength), R"({"length":-2147483648})", nullptr, nullptr},
    {C(CheckLength), R"({"length":"10"})", "length", "type"},
    {C(CheckLength), R"({"length":1.0})", "length", "type"},
    {C(CheckLength), R"({"length":null})", "length", "type"},
    {C(CheckLength), R"({"length":2147483648})", "length", "type"},
    {C(CheckLength), R"({"length":18446744073709551615})", "length", "type"},
    {C(CheckLength), R"({"Length":1})", "length", "required"},

    // Folder.get: "path" string, required.
    {C(CheckPathString), "{}", "path", "required"},
    {C(CheckPathString), R"({"path":5})", "path", "type"},
    {C(CheckPathString), R"({"path":null})", "path", "type"},
    {C(CheckPathString), R"({"path":""})", nullptr, nullptr},
    {C(CheckPathString), R"({"path":"a\u0000b"})", nullptr, nullptr},

    // Folder.reindex: "path" array of strings, required.
    {C(CheckPathList), "{}", "path", "required"},
    {C(CheckPathList), R"({"path":"/volume1/a"})", "path", "type"},
    {C(CheckPathList), R"({"path":[]})", nullptr, nullptr},
    {C(CheckPathList), R"({"path":["/a","/b"]})", nullptr, nullptr},
    {C(CheckPathList), R"({"path":["/a",1]})", "path", "type"},
    {C(CheckPathList), R"({"path":[null]})", "path", "type"},

    // Term.update: "indice" array of strings, required.
    {C(CheckIndice), "{}", "indice", "required"},
    {C(CheckIndice), R"({"indice":{}})", "indice", "type"},
    {C(CheckIndice), R"({"indice":["i1",{}]})", "indice", "type"},
    {C(CheckIndice), R"({"indice":["i1"]})", nullptr, nullptr},

    // Folder.add and Folder.set: "folder" array of folder items, required.
    {C(CheckFolder), "{}", "folder", "required"},
    {C(CheckFolder), R"({"folder":{}})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[]})", nullptr, nullptr},
    {C(CheckFolder), R"({"folder":[{}]})", nullptr, nullptr},
    {C(CheckFolder),
     R"({"folder":[{"path":"/volume1/a","name":"a","paused":false,"video":true,"audio":false,
         "photo":true,"document":true,"additional":{"status":"normal"}}]})",
     nullptr, nullptr},
    {C(CheckFolder), R"({"folder":[{"additional":{}}]})", nullptr, nullptr},
    {C(CheckFolder), R"({"folder":["/volume1/a"]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[null]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"path":1}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"name":null}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"paused":"false"}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"video":1}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"audio":0}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"photo":null}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"document":[]}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"additional":[]}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"additional":{"status":1}}]})", "folder", "type"},
    {C(CheckFolder), R"({"folder":[{"path":"/a"},{"path":"/b","paused":"x"}]})", "folder", "type"},

    // Folder.delete: "path" array (optional), "owner" string (optional).
    {C(CheckPathOwner), "{}", nullptr, nullptr},
    {C(CheckPathOwner), R"({"path":["/a"],"owner":"ann"})", nullptr, nullptr},
    {C(CheckPathOwner), R"({"path":"/a"})", "path", "type"},
    {C(CheckPathOwner), R"({"owner":1})", "owner", "type"},
    {C(CheckPathOwner), R"({"path":"/a","owner":1})", "path", "type"},
    {C(CheckPathOwner), R"({"path":[1],"owner":1})", "owner", "type"},
    {C(CheckPathOwner), R"({"path":[1],"owner":"ann"})", "path", "type"},

    // Folder.list: seven optional parameters.
    {C(CheckFolderList), "{}", nullptr, nullptr},
    {C(CheckFolderList),
     R"({"additional":["status"],"direction":"asc","group":"g","pattern":"p","sort_by":"name",
         "limit":10,"offset":0})",
     nullptr, nullptr},
    {C(CheckFolderList), R"({"additional":"status"})", "additional", "type"},
    {C(CheckFolderList), R"({"additional":[1]})", "additional", "type"},
    {C(CheckFolderList), R"({"direction":1})", "direction", "type"},
    {C(CheckFolderList), R"({"group":[]})", "group", "type"},
    {C(CheckFolderList), R"({"pattern":null})", "pattern", "type"},
    {C(CheckFolderList), R"({"sort_by":{}})", "sort_by", "type"},
    {C(CheckFolderList), R"({"limit":"10"})", "limit", "type"},
    {C(CheckFolderList), R"({"offset":0.5})", "offset", "type"},
    {C(CheckFolderList), R"({"offset":"x","limit":"x"})", "limit", "type"},
    {C(CheckFolderList), R"({"additional":[1],"offset":"x"})", "offset", "type"},

    // Search.search.
    {C(CheckSearch), "{}", "search_weight_list", "required"},
    {C(CheckSearch), R"({"keyword":1})", "search_weight_list", "required"},
    {C(CheckSearch), R"({"search_weight_list":[]})", nullptr, nullptr},
    {C(CheckSearch), R"({"search_weight_list":[{}]})", nullptr, nullptr},
    {C(CheckSearch),
     R"({"search_weight_list":[{"weight":1,"field":"f"},{"weight":2.5,"field":"g"}],
         "criteria_list":[{"value":"v","field":"f"}],
         "highlight":[{"frag_length":100,"num_fragments":3,"field":"f"}],
         "keyword":"k","file_type":"pdf","fields":["a"],"size":10,"from":0,"indice":["i"]})",
     nullptr, nullptr},
    {C(CheckSearch), R"({"search_weight_list":[{"weight":"1","field":"f"}]})", "search_weight_list",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[{"field":1}]})", "search_weight_list", "type"},
    {C(CheckSearch), R"({"search_weight_list":[[]]})", "search_weight_list", "type"},
    {C(CheckSearch), R"({"search_weight_list":{}})", "search_weight_list", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"criteria_list":[{"value":1}]})", "criteria_list",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"criteria_list":[{"field":{}}]})", "criteria_list",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"highlight":[{"frag_length":1.5}]})", "highlight",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"highlight":[{"num_fragments":"3"}]})",
     "highlight", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"highlight":{}})", "highlight", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"fields":[1]})", "fields", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"indice":[null]})", "indice", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"size":"10"})", "size", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"from":-1.5})", "from", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"file_type":[]})", "file_type", "type"},
    // Type faults of parameters come before any element fault, whatever the
    // order of the parameters.
    {C(CheckSearch), R"({"search_weight_list":[1],"indice":"i"})", "indice", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"criteria_list":[1],"keyword":2})", "keyword",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"size":"x","from":"x"})", "size", "type"},
    // Element faults in the order of the lists.
    {C(CheckSearch), R"({"search_weight_list":[1],"criteria_list":[1]})", "search_weight_list",
     "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"indice":[1],"fields":[1],"highlight":[1]})",
     "highlight", "type"},
    {C(CheckSearch), R"({"search_weight_list":[],"indice":[1],"fields":[1]})", "fields", "type"},

    // Highlight.highlight.
    {C(CheckHighlight), "{}", "full_path", "required"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"highlight":{},"keyword":"k"})", nullptr,
     nullptr},
    {C(CheckHighlight),
     R"({"full_path":"/a","doc_id":1,"highlight":{"frag_length":10,"num_fragments":2,"field":"f"},
         "keyword":"k"})",
     nullptr, nullptr},
    {C(CheckHighlight), R"({"full_path":1,"highlight":{}})", "full_path", "type"},
    {C(CheckHighlight), R"({"full_path":"/a","highlight":{},"keyword":"k"})", "doc_id", "required"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":"1","highlight":{},"keyword":"k"})", "doc_id",
     "type"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":9223372036854775807,"highlight":{},
         "keyword":"k"})",
     "doc_id", "type"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"keyword":"k"})", "highlight", "required"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"highlight":[],"keyword":"k"})",
     "highlight", "type"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"highlight":{"field":2},"keyword":"k"})",
     "highlight", "type"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"highlight":{"field":2}})", "keyword",
     "required"},
    {C(CheckHighlight), R"({"full_path":"/a","doc_id":1,"highlight":{},"keyword":null})", "keyword",
     "type"},
};

TEST(CheckersTest, Table) {
  for (const auto& c : kCases) {
    Json::Value params;
    ASSERT_TRUE(Json::fromString(params, c.params)) << c.params;
    Expect(c.checker, params, c.name, c.reason, std::string(c.checker_name) + " " + c.params);
  }
}

// Parameters that are no object at all count as no parameters.
TEST(CheckersTest, ParamsThatAreNoObject) {
  for (const char* text : {"null", "[]", "[{\"path\":\"/a\"}]", "\"path\"", "1"}) {
    Json::Value params;
    ASSERT_TRUE(Json::fromString(params, text));
    Expect(CheckPathString, params, "path", "required", text);
    Expect(CheckFolderList, params, nullptr, nullptr, text);
  }
}

// Values no parser would produce but a framework may hand over: every kind
// of bad value is answered, never crashed on.
TEST(CheckersTest, HostileValues) {
  const std::string with_nul("/volume1/a\0b", 12);
  const std::string invalid_utf8 = "/volume1/\xff\xfe\xc0\xaf";

  Json::Value deep_array(Json::arrayValue);
  Json::Value* level = &deep_array;
  for (int i = 0; i < 5000; ++i) level = &level->append(Json::Value(Json::arrayValue));
  Json::Value deep_object(Json::objectValue);
  level = &deep_object;
  for (int i = 0; i < 5000; ++i) level = &((*level)["status"] = Json::Value(Json::objectValue));

  struct Hostile {
    Checker checker;
    const char* key;
    Json::Value value;
    const char* name;
    const char* reason;
  };
  auto array_of = [](const Json::Value& v) {
    Json::Value a(Json::arrayValue);
    a.append(v);
    return a;
  };
  Json::Value folder_deep(Json::objectValue);
  folder_deep["additional"] = deep_object;
  Json::Value weight_deep(Json::objectValue);
  weight_deep["field"] = deep_array;
  const Hostile cases[] = {
      {CheckPathString, "path", Json::Value(with_nul), nullptr, nullptr},
      {CheckPathString, "path", Json::Value(invalid_utf8), nullptr, nullptr},
      {CheckPathList, "path", array_of(Json::Value(with_nul)), nullptr, nullptr},
      {CheckPathList, "path", array_of(Json::Value(invalid_utf8)), nullptr, nullptr},
      {CheckPathList, "path", deep_array, "path", "type"},
      {CheckPathString, "path", deep_object, "path", "type"},
      {CheckFolder, "folder", array_of(folder_deep), "folder", "type"},
      {CheckSearch, "search_weight_list", array_of(weight_deep), "search_weight_list", "type"},
      {CheckLength, "length", Json::Value(static_cast<Json::UInt64>(UINT64_MAX)), "length", "type"},
      {CheckLength, "length", Json::Value(1e308 * 10), "length", "type"},
      {CheckLength, "length", Json::Value(std::nan("")), "length", "type"},
  };
  for (const auto& c : cases) {
    Json::Value params(Json::objectValue);
    params[c.key] = c.value;
    if (c.checker == CheckSearch) params["keyword"] = invalid_utf8;
    Expect(c.checker, params, c.name, c.reason, c.key);
  }
}

}  // namespace
}  // namespace webapi
}  // namespace kestondri
