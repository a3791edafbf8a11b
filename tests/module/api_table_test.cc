// The two tables as the server sees them: read through dlopen of the built
// module library, row by row until the zero row.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kest/json.h"
#include "kest/webapi.h"
#include "kest/webapi_module.h"

namespace kesttest {
namespace {

class ApiTableTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    module_ = dlopen(KEST_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(nullptr, module_) << dlerror();
  }
  static void TearDownTestSuite() {
    if (module_) dlclose(module_);
    module_ = nullptr;
  }
  template <typename Fn>
  static Fn Symbol(const char* name) {
    return reinterpret_cast<Fn>(dlsym(module_, name));
  }
  static void* module_;
};
void* ApiTableTest::module_ = nullptr;

#define API "KEST.Ondri.FileIndexing."

TEST_F(ApiTableTest, ExportsOnlyTheTwoTables) {
  ASSERT_NE(nullptr, module_);
  EXPECT_NE(nullptr, Symbol<void*>(KEST::kGetAPITableSymbol));
  EXPECT_NE(nullptr, Symbol<void*>(KEST::kGetAPICheckTableSymbol));
  for (const char* hidden :
       {"_ZN9kestondri3sdk8SDKMutexEv",
        "_ZN9kestondri6webapi11CheckSearchEPN4KEST10APIRequestEPNS1_11APIResponseE"}) {
    EXPECT_EQ(nullptr, Symbol<void*>(hidden)) << hidden;
  }
}

// Each row's checker is told apart by how it answers two parameter sets: no
// parameters at all, and "path" given as a string.
TEST_F(ApiTableTest, CheckTableRowsInOrder) {
  ASSERT_NE(nullptr, module_);
  auto get = Symbol<KEST::GetAPICheckTableFunc>(KEST::kGetAPICheckTableSymbol);
  ASSERT_NE(nullptr, get);
  struct Row {
    const char* api;
    const char* method;
    const char* empty_fault;        // "name" reported without parameters; "" passes
    const char* path_string_fault;  // with {"path":"/a"}
  };
  const Row expected[] = {
      {API "Term", "update", "indice", "indice"},
      {API "Status", "get", "", ""},
      {API "Status", "pause", "length", "length"},
      {API "Status", "resume", "", ""},
      {API "Folder", "reindex", "path", "path"},
      {API "Folder", "set", "folder", "folder"},
      {API "Folder", "get", "path", ""},
      {API "Folder", "list", "", ""},
      {API "Folder", "list_group", "", ""},
      {API "Folder", "summary", "", ""},
      {API "Folder", "add", "folder", "folder"},
      {API "Folder", "delete", "", "path"},
      {API "Search", "search", "search_weight_list", "search_weight_list"},
      {API "Highlight", "highlight", "full_path", "full_path"},
  };
  const KEST::APICheckRow* rows = get();
  ASSERT_EQ(rows, get()) << "one static table";
  size_t count = 0;
  while (rows[count].api) ++count;
  ASSERT_EQ(14u, count);
  const KEST::APICheckRow& end = rows[count];
  EXPECT_EQ(0, end.version);
  EXPECT_EQ(nullptr, end.method);
  EXPECT_EQ(nullptr, end.checker);
  EXPECT_EQ(nullptr, end.reserved1);
  EXPECT_EQ(nullptr, end.reserved2);

  Json::Value path_string;
  ASSERT_TRUE(Json::fromString(path_string, R"({"path":"/a"})"));
  for (size_t i = 0; i < count; ++i) {
    const KEST::APICheckRow& row = rows[i];
    const std::string what = std::string(row.api) + " " + row.method;
    EXPECT_STREQ(expected[i].api, row.api) << i;
    EXPECT_STREQ(expected[i].method, row.method) << i;
    EXPECT_EQ(1, row.version) << what;
    EXPECT_EQ(nullptr, row.reserved1) << what;
    EXPECT_EQ(nullptr, row.reserved2) << what;
    ASSERT_NE(nullptr, row.checker) << what;
    const std::pair<Json::Value, const char*> probes[] = {
        {Json::Value(Json::objectValue), expected[i].empty_fault},
        {path_string, expected[i].path_string_fault}};
    for (const auto& probe : probes) {
      KEST::APIRequest request(probe.first, 2001, "ann", "sid", false);
      KEST::APIResponse response;
      const bool passed = row.checker(&request, &response);
      EXPECT_EQ(std::string(probe.second).empty(), passed)
          << what << " " << Json::toString(probe.first);
      if (!passed) {
        EXPECT_EQ(120, response.GetErrorCode()) << what;
        EXPECT_EQ(probe.second, response.GetErrorData()["name"].asString()) << what;
      }
    }
  }
}

// The handler table grows as the API classes arrive; whatever rows exist
// keep this order, and Indicate is served without a checker row.
TEST_F(ApiTableTest, HandlerTableRows) {
  ASSERT_NE(nullptr, module_);
  auto get = Symbol<KEST::GetAPITableFunc>(KEST::kGetAPITableSymbol);
  ASSERT_NE(nullptr, get);
  const std::vector<std::pair<std::string, std::string>> order = {
      {API "Folder", "add"},          {API "Folder", "set"},        {API "Folder", "get"},
      {API "Folder", "delete"},       {API "Folder", "list"},       {API "Folder", "list_group"},
      {API "Folder", "summary"},      {API "Folder", "reindex"},    {API "Status", "get"},
      {API "Status", "resume"},       {API "Status", "pause"},      {API "Search", "search"},
      {API "Highlight", "highlight"}, {API "Indicate", "indicate"},
  };
  const KEST::APIHandlerRow* rows = get();
  size_t next = 0;  // rows must follow `order`, possibly with gaps
  size_t count = 0;
  for (; rows[count].api; ++count) {
    ASSERT_LT(count, order.size()) << "more rows than API methods";
    const KEST::APIHandlerRow& row = rows[count];
    ASSERT_NE(nullptr, row.method);
    const std::pair<std::string, std::string> key(row.api, row.method);
    size_t at = next;
    while (at < order.size() && order[at] != key) ++at;
    ASSERT_LT(at, order.size()) << key.first << " " << key.second << " unknown or out of order";
    next = at + 1;
    EXPECT_EQ(1, row.version) << key.second;
    EXPECT_NE(nullptr, row.handler) << key.second;
  }
  EXPECT_EQ(0, rows[count].version);
  EXPECT_EQ(nullptr, rows[count].method);
  EXPECT_EQ(nullptr, rows[count].handler);
}

}  // namespace
}  // namespace kesttest
