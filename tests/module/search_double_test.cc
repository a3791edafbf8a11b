// What only the platform double can show about the search method: how many
// user lookups a page of hits costs, and a login user the platform cannot
// find.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "double/platform_double.h"
#include "kest/json.h"
#include "kest/klib.h"
#include "module/api_runner.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "webapi/search.h"

namespace kesttest {
namespace {

using kestondri::webapi::SearchAPI;

class SearchDoubleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    BecomeRoot();
    WriteFile("/etc/kest/shares.conf", "[docs]\npath = /volume1/docs\nread list = @staff\n");
    mkdir("/volume1/docs", 0755);
    WriteFile("/volume1/docs/a.txt", "x");
    daemon_.On("search", Page());
    daemon_.On("list_db_status", DaemonReply::Success(Json::Value(Json::objectValue)));
    Json::fromString(params_, R"({"indice": ["docs"], "from": 0, "size": 10, "fields": [],
                                  "file_type": ""})");
    PlatformDouble::Reset();
  }
  void TearDown() override { PlatformDouble::Reset(); }

  static DaemonReply Page() {
    DaemonReply reply;
    for (const char* owner : {"2002", "77777", "2002", "77777", "2001", "0"}) {
      Json::Value hit;
      hit["KESTMDPath"] = "/volume1/docs/a.txt";
      hit["KESTMDOwnerUserID"] = owner;
      reply.Message(hit);
    }
    return reply.Text(R"({"success": true})");
  }

  FakeDaemon daemon_;
  Json::Value params_;
};

TEST_F(SearchDoubleTest, EachOwnerIsLookedUpOncePerRequest) {
  const auto response = RunAPI<SearchAPI>(kAnn, params_);
  ASSERT_TRUE(response.IsSuccess()) << response.GetErrorCode();
  // The login user once by name; bob, the unknown 77777 and root once each
  // by uid; ann's own uid from the seed of the cache.
  EXPECT_EQ(1, PlatformDouble::Calls("KESTUserGet"));
  EXPECT_EQ(3, PlatformDouble::Calls("KESTUserGetByUID"));
  Json::Value names(Json::arrayValue);
  for (const auto& hit : response.GetData()["hits"]) names.append(hit["KESTMDOwnerUserName"]);
  Json::Value expected;
  Json::fromString(expected, R"(["bob", "", "bob", "", "ann", "root"])");
  EXPECT_EQ(expected, names);
}

TEST_F(SearchDoubleTest, LoginUserThePlatformCannotFindIs801) {
  PlatformDouble::FailNext("KESTUserGet", KLIB_ERR_USER_NOT_FOUND);
  EXPECT_EQ(801, RunAPI<SearchAPI>(kAnn, params_).GetErrorCode());
}

TEST_F(SearchDoubleTest, OwnerLookupFailureLeavesTheNameBlank) {
  PlatformDouble::FailNext("KESTUserGetByUID", KLIB_ERR_SYSTEM);
  const auto response = RunAPI<SearchAPI>(kAnn, params_);
  ASSERT_TRUE(response.IsSuccess());
  // The failed uid is remembered as blank: bob stays blank on the third hit.
  EXPECT_EQ("", response.GetData()["hits"][0]["KESTMDOwnerUserName"].asString());
  EXPECT_EQ("", response.GetData()["hits"][2]["KESTMDOwnerUserName"].asString());
}

}  // namespace
}  // namespace kesttest
