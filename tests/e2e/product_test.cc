// The product end to end: kestelasticd, kest-indexer and the web API server
// with the real module, running in the sandbox, driven over HTTP as the
// sandbox's users log in.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "daemon/daemon_harness.h"
#include "host/server_harness.h"
#include "indexer/fixtures.h"
#include "kest/json.h"
#include "support/indexer_process.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

constexpr char kApi[] = "KEST.Ondri.FileIndexing.";

// Polls `done` for up to 30 s; the bound is a safety net, not a target.
bool WaitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return done();
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  EXPECT_TRUE(Json::Reader().parse(text, value)) << text;
  return value;
}

// A logged-in user of the web API.
class Client {
 public:
  explicit Client(const std::string& user) : user_(user) { Relogin(); }
  void Relogin() { sid_ = Login(user_, UserByName(user_).password).sid; }
  bool logged_in() const { return !sid_.empty(); }

  // POSTs `params` (a JSON object) to api/method, version 1.
  Json::Value Call(const std::string& api, const std::string& method,
                   Json::Value params = Json::Value(Json::objectValue)) {
    const HttpReply reply = CallRaw(api, method, std::move(params));
    // Every answer is UTF-8, whatever bytes the names of files hold.
    EXPECT_TRUE(Json::isValidUtf8(reply.body)) << reply.body;
    return reply.json;
  }
  HttpReply CallRaw(const std::string& api, const std::string& method, Json::Value params) {
    params["api"] = std::string(kApi) + api;
    params["method"] = method;
    params["version"] = 1;
    params["_sid"] = sid_;
    HttpRequest request;
    request.method = "POST";
    request.content_type = "application/json";
    request.body = Json::FastWriter().write(params);
    return SendHttp(request);
  }

  Json::Value Search(const std::string& keyword,
                     const std::vector<std::string>& shares = {"docs"}) {
    Json::Value p = Parse(R"({"from": 0, "size": 50, "query_serial": 1, "file_type": "",
        "fields": ["KESTMDPath", "KESTMDFSName"], "search_weight_list": []})");
    p["keyword"] = keyword;
    p["orig_keyword"] = keyword;
    for (const auto& s : shares) p["indice"].append(s);
    return Call("Search", "search", p);
  }
  // The names of the hits, sorted; {"!error"} when the search failed.
  std::vector<std::string> Names(const std::string& keyword) {
    const Json::Value reply = Search(keyword);
    if (!reply["success"].asBool()) return {"!error " + Json::FastWriter().write(reply)};
    std::vector<std::string> names;
    for (const auto& hit : reply["data"]["hits"]) names.push_back(hit["KESTMDFSName"].asString());
    std::sort(names.begin(), names.end());
    return names;
  }
  std::string IndexStatus() { return Call("Status", "get")["data"]["status"]["index"].asString(); }

 private:
  std::string user_;
  std::string sid_;
};

using Names = std::vector<std::string>;

class ProductTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("rm -rf /volume1/* /var/packages/KestOndri /tmp/webapi-test"));
    ASSERT_EQ(0, system("mkdir -p /tmp/webapi-test"));
    WriteFile("/etc/pam.d/kestondri",
              ReadFile(std::string(KEST_SOURCE_DIR) + "/host/dist/kestondri.pam"));
    WriteFile("/etc/kest/shares.conf",
              "[global]\nadmin group = administrators\n"
              "[docs]\npath = /volume1/docs\n"
              "[other]\npath = /volume1/other\n");
    ASSERT_EQ(0, system("mkdir -p /volume1/docs/team /volume1/other/misc && "
                        "chmod 0777 /volume1/docs/team /volume1/other/misc"));
    const std::string team = "/volume1/docs/team/";
    WriteFile(team + "notes.txt", "The quarterly figures of the aardvark project.\n");
    WriteFile(team + "report.pdf", MakePdf({"A pdf about the okapi migration."}));
    WriteZip(team + "memo.docx", DocxMembers({"Memo: the ibis count."}));
    WriteFile(team + "photo.jpg", std::string("\xff\xd8\xff\xe0", 4));
    WriteFile(team + "ann-private.txt", "Ann's private aardvark diary.\n", 0600);
    ASSERT_EQ(0, chown((team + "ann-private.txt").c_str(), kAnnUid, kAnnUid));
    WriteFile("/volume1/other/misc/far.txt", "aardvark far away\n");

    ASSERT_TRUE(daemon_.Start());
    indexer_.Start();
    server_.Start(TestConfig());
  }
  void TearDown() override {
    server_.Stop();
    indexer_.Stop();
    daemon_.Stop();
  }

  // Adds the folders as `client` and waits until nothing is pending.
  void AddAndWait(Client& client, const std::string& folders) {
    Json::Value p;
    p["folder"] = Parse(folders);
    const Json::Value reply = client.Call("Folder", "add", p);
    ASSERT_TRUE(reply["success"].asBool()) << Json::FastWriter().write(reply);
    ASSERT_TRUE(WaitFor([&] { return client.IndexStatus() == "finished"; }));
  }

  DaemonProcess daemon_;
  IndexerProcess indexer_;
  ServerProcess server_;
};

TEST_F(ProductTest, SearchByContentNameAndExtensionWithPermissions) {
  Client ann("ann"), bob("bob"), carol("carol");
  ASSERT_TRUE(ann.logged_in() && bob.logged_in() && carol.logged_in());
  AddAndWait(ann, R"([{"path": "/volume1/docs/team"}])");

  const struct {
    const char* user;
    const char* keyword;
    Names names;
  } cases[] = {
      {"ann", "aardvark", {"ann-private.txt", "notes.txt"}},
      {"bob", "aardvark", {"notes.txt"}},                       // ann's private file stays hers
      {"carol", "aardvark", {"ann-private.txt", "notes.txt"}},  // an administrator
      {"bob", "okapi", {"report.pdf"}},
      {"bob", "ibis", {"memo.docx"}},
      {"bob", "name:memo", {"memo.docx"}},
      {"bob", "ext:jpg", {"photo.jpg"}},
      {"bob", "photo", {"photo.jpg"}},
      {"bob", "diary", {}},
  };
  for (const auto& c : cases) {
    Client& client = std::string(c.user) == "ann"   ? ann
                     : std::string(c.user) == "bob" ? bob
                                                    : carol;
    EXPECT_EQ(c.names, client.Names(c.keyword)) << c.user << " " << c.keyword;
  }
  // A folder of another share, indexed by an administrator, shows only when
  // asked for.
  AddAndWait(carol, R"([{"path": "/volume1/other/misc"}])");
  EXPECT_EQ(Names({"notes.txt"}), bob.Names("aardvark"));
  const Json::Value both = bob.Search("aardvark", {"docs", "other"});
  EXPECT_EQ(2, both["data"]["total"].asInt()) << Json::FastWriter().write(both);
}

TEST_F(ProductTest, EditsMovesAndDeletesFollow) {
  Client bob("bob");
  AddAndWait(bob, R"([{"path": "/volume1/docs/team"}])");
  const std::string team = "/volume1/docs/team/";

  WriteFile(team + "notes.txt", "Now about the quokka.\n");
  EXPECT_TRUE(WaitFor([&] { return bob.Names("quokka") == Names{"notes.txt"}; }));
  EXPECT_EQ(Names{}, bob.Names("aardvark"));

  ASSERT_EQ(0, rename((team + "notes.txt").c_str(), (team + "renamed.txt").c_str()));
  EXPECT_TRUE(WaitFor([&] { return bob.Names("quokka") == Names{"renamed.txt"}; }));

  ASSERT_EQ(0, unlink((team + "renamed.txt").c_str()));
  EXPECT_TRUE(WaitFor([&] { return bob.Names("quokka").empty(); }));

  // A file becomes private: it leaves bob's results at once.
  ASSERT_EQ(0, chmod((team + "report.pdf").c_str(), 0600));
  EXPECT_EQ(Names{}, bob.Names("okapi"));
}

TEST_F(ProductTest, HighlightAndIndicate) {
  Client bob("bob");
  // A name that is not UTF-8 shows with replacement characters, and its
  // reference still names the file.
  WriteFile("/volume1/docs/team/bad\xff\xfe.txt", "a tapir hides here\n");
  AddAndWait(bob, R"([{"path": "/volume1/docs/team"}])");
  for (const char* word : {"okapi", "tapir"}) {
    const Json::Value found = bob.Search(word);
    ASSERT_EQ(1u, found["data"]["hits"].size()) << Json::FastWriter().write(found);
    const Json::Value& hit = found["data"]["hits"][0];

    Json::Value p;
    p["doc_id"] = hit["doc_id"];
    p["full_path"] = hit["additional"].get("path_ref", hit["KESTMDPath"]);
    p["keyword"] = word;
    p["highlight"] = Parse(R"({"field": "KESTMDTextContent", "frag_length": 100,
                               "num_fragments": 3})");
    const Json::Value highlighted = bob.Call("Highlight", "highlight", p);
    ASSERT_TRUE(highlighted["success"].asBool()) << Json::FastWriter().write(highlighted);
    const std::string fragments = Json::FastWriter().write(highlighted["data"]);
    EXPECT_NE(std::string::npos, fragments.find(word)) << fragments;
  }
  EXPECT_EQ(Names{"bad\xef\xbf\xbd\xef\xbf\xbd.txt"}, bob.Names("tapir"));

  // Counts per type of what bob may see.
  Json::Value q = Parse(R"({"criteria_list": [], "search_weight_list": [],
                            "file_type": ["document", "photo"], "indice": ["docs"]})");
  q["keyword"] = "aardvark OR photo";
  const Json::Value counts = bob.Call("Indicate", "indicate", q);
  ASSERT_TRUE(counts["success"].asBool()) << Json::FastWriter().write(counts);
  EXPECT_EQ(1, counts["data"]["document"].asInt()) << Json::FastWriter().write(counts);
  EXPECT_EQ(1, counts["data"]["photo"].asInt()) << Json::FastWriter().write(counts);
}

TEST_F(ProductTest, PauseResumeAndReindex) {
  Client carol("carol"), bob("bob");
  AddAndWait(bob, R"([{"path": "/volume1/docs/team"}])");
  Json::Value length;
  length["length"] = 0;
  ASSERT_TRUE(carol.Call("Status", "pause", length)["success"].asBool());
  std::this_thread::sleep_for(std::chrono::seconds(1));  // the indexer rereads the state
  WriteFile("/volume1/docs/team/late.txt", "a late wombat\n");
  EXPECT_TRUE(WaitFor([&] { return bob.IndexStatus() == "paused"; }));
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_EQ(Names{}, bob.Names("wombat"));

  ASSERT_TRUE(carol.Call("Status", "resume")["success"].asBool());
  EXPECT_TRUE(WaitFor([&] { return bob.Names("wombat") == Names{"late.txt"}; }));
  EXPECT_TRUE(WaitFor([&] { return bob.IndexStatus() == "finished"; }));

  Json::Value paths;
  paths["path"] = Parse(R"(["/volume1/docs/team"])");
  const Json::Value reindex = bob.Call("Folder", "reindex", paths);
  ASSERT_TRUE(reindex["success"].asBool()) << Json::FastWriter().write(reindex);
  EXPECT_TRUE(WaitFor([&] { return bob.IndexStatus() == "finished"; }));
  EXPECT_EQ(Names{"late.txt"}, bob.Names("wombat"));
  // The term-suggestion updater has run and let go of its pid file.
  EXPECT_TRUE(WaitFor([&] {
    return bob.Call("Status", "get")["data"]["status"]["term"].asString() == "finished";
  }));
}

TEST_F(ProductTest, ACorruptIndexShowsAsUnavailable) {
  Client carol("carol");
  AddAndWait(carol, R"([{"path": "/volume1/docs/team"}, {"path": "/volume1/other/misc"}])");
  indexer_.Stop();
  ASSERT_EQ(0, system("for f in /volume1/@kestondri/index/other/*.glass; do "
                      "head -c 8192 /dev/urandom > \"$f\"; done"));
  const Json::Value reply = carol.Search("aardvark", {"docs", "other"});
  ASSERT_TRUE(reply["success"].asBool()) << Json::FastWriter().write(reply);
  EXPECT_EQ(Parse(R"(["fileindex_other"])"), reply["data"]["unavail"])
      << Json::FastWriter().write(reply);
  EXPECT_EQ(2, reply["data"]["total"].asInt());  // ann's private file and notes.txt
}

TEST_F(ProductTest, RestartingEachServiceLosesNothing) {
  Client bob("bob");
  AddAndWait(bob, R"([{"path": "/volume1/docs/team"}])");

  daemon_.Stop();
  ASSERT_TRUE(daemon_.Start());
  EXPECT_EQ(Names{"notes.txt"}, bob.Names("aardvark"));

  indexer_.Stop();
  WriteFile("/volume1/docs/team/while-down.txt", "a numbat appears\n");
  indexer_.Start();
  EXPECT_TRUE(WaitFor([&] { return bob.Names("numbat") == Names{"while-down.txt"}; }));

  server_.Stop();
  server_.Start(TestConfig());
  bob.Relogin();  // sessions live in the server's memory
  EXPECT_EQ(Names{"while-down.txt"}, bob.Names("numbat"));
  Json::Value list = Parse(R"({"offset": 0, "limit": 10, "sort_by": "path", "direction": "asc",
                               "group": "all", "pattern": "", "additional": []})");
  const Json::Value folders = bob.Call("Folder", "list", list);
  EXPECT_EQ(1, folders["data"]["total"].asInt()) << Json::FastWriter().write(folders);
}

}  // namespace
}  // namespace kesttest
