// The product end to end: kestelasticd, kest-indexer and the web API server
// with the real module, running in the sandbox, driven over HTTP as the
// sandbox's users log in. What one service alone decides is tested with that
// service; here, what only the three together do.
#include <gtest/gtest.h>
#include <sys/stat.h>
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
#include "kest/json.h"
#include "support/indexer_process.h"

namespace kesttest {
namespace {

// Polls `done` for up to 30 s; the bound is a safety net, not a target.
bool WaitFor(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return done();
}

// A logged-in user of the web API.
class Client {
 public:
  explicit Client(const std::string& user) : user_(user) { Relogin(); }
  void Relogin() { sid_ = Login(user_, UserByName(user_).password).sid; }

  // POSTs `params` (JSON text or value) to KEST.Ondri.FileIndexing.api/method.
  Json::Value Call(const std::string& api, const std::string& method,
                   Json::Value params = Json::Value(Json::objectValue)) {
    params["api"] = "KEST.Ondri.FileIndexing." + api;
    params["method"] = method;
    params["version"] = 1;
    params["_sid"] = sid_;
    HttpRequest request;
    request.method = "POST";
    request.content_type = "application/json";
    request.body = Json::toString(params);
    const HttpReply reply = SendHttp(request);
    // Every answer is UTF-8, whatever bytes the names of files hold.
    EXPECT_TRUE(Json::isValidUtf8(reply.body)) << reply.body;
    return reply.json;
  }
  Json::Value Search(const std::string& keyword, const char* indice = R"(["docs"])") {
    Json::Value p = ParseJson(R"({"from": 0, "size": 50, "query_serial": 1, "file_type": "",
        "fields": ["KESTMDPath", "KESTMDFSName"], "search_weight_list": []})");
    p["keyword"] = p["orig_keyword"] = keyword;
    p["indice"] = ParseJson(indice);
    return Call("Search", "search", p);
  }
  // The names of the hits, sorted and joined by ", "; the answer when it failed.
  std::string Names(const std::string& keyword) {
    const Json::Value reply = Search(keyword);
    if (!reply["success"].asBool()) return Json::toString(reply);
    std::vector<std::string> names;
    for (const auto& hit : reply["data"]["hits"]) names.push_back(hit["KESTMDFSName"].asString());
    std::sort(names.begin(), names.end());
    std::string out;
    for (const auto& n : names) out += (out.empty() ? "" : ", ") + n;
    return out;
  }
  bool Indexed() {
    return Call("Status", "get")["data"]["status"]["index"].asString() == "finished";
  }
  // Adds the folders and waits until nothing is pending.
  void Add(const char* folders) {
    Json::Value p;
    p["folder"] = ParseJson(folders);
    const Json::Value reply = Call("Folder", "add", p);
    EXPECT_TRUE(reply["success"].asBool()) << Json::toString(reply);
    EXPECT_TRUE(WaitFor([this] { return Indexed(); }));
  }

 private:
  std::string user_;
  std::string sid_;
};

TEST(ProductTest, ThreeServicesServeTheUsers) {
  ASSERT_EQ(0, system("rm -rf /volume1/* /var/packages/KestOndri /tmp/webapi-test && "
                      "mkdir -p /tmp/webapi-test /volume1/docs/team /volume1/other/misc && "
                      "chmod 0777 /volume1/docs/team /volume1/other/misc"));
  WriteFile("/etc/pam.d/kestondri",
            ReadFile(std::string(KEST_SOURCE_DIR) + "/host/dist/kestondri.pam"));
  WriteFile("/etc/kest/shares.conf",
            "[global]\nadmin group = administrators\n[docs]\npath = /volume1/docs\n"
            "[other]\npath = /volume1/other\n");
  const std::string team = "/volume1/docs/team/";
  WriteFile(team + "notes.txt", "The quarterly figures of the aardvark project.\n");
  WriteFile(team + "report.pdf",
            ReadFile(KEST_SOURCE_DIR "/tests/indexer/samples/documents/annual-report.pdf"));
  WriteFile(team + "memo.docx",
            ReadFile(KEST_SOURCE_DIR "/tests/indexer/samples/documents/meeting-minutes.docx"));
  WriteFile(team + "photo.jpg", std::string("\xff\xd8\xff\xe0", 4));
  WriteFile(team + "ann-private.txt", "Ann's private aardvark diary.\n", 0600);
  ASSERT_EQ(0, chown((team + "ann-private.txt").c_str(), kAnnUid, kAnnUid));
  // A name that is not UTF-8.
  WriteFile(team + "bad\xff\xfe.txt", "a tapir hides here\n");
  WriteFile("/volume1/other/misc/far.txt", "aardvark far away\n");
  DaemonProcess daemon;
  IndexerProcess indexer;
  ServerProcess server;
  ASSERT_TRUE(daemon.Start());
  indexer.Start();
  server.Start(TestConfig());

  Client ann("ann"), bob("bob"), carol("carol");
  ann.Add(R"([{"path": "/volume1/docs/team"}])");
  const struct {
    Client& client;
    const char* keyword;
    const char* names;
  } cases[] = {
      {ann, "aardvark", "ann-private.txt, notes.txt"},
      {bob, "aardvark", "notes.txt"},                     // ann's private file stays hers
      {carol, "aardvark", "ann-private.txt, notes.txt"},  // an administrator
      {bob, "okapi", "report.pdf"},                       // by its text
      {bob, "ibis", "memo.docx"},                         // by its text
      {bob, "name:memo", "memo.docx"},                    // by its name
      {bob, "ext:jpg", "photo.jpg"},                      // by its extension
      {bob, "tapir", "bad\xef\xbf\xbd\xef\xbf\xbd.txt"},  // shown as valid UTF-8
      {bob, "diary", ""},
  };
  for (const auto& c : cases) EXPECT_EQ(c.names, c.client.Names(c.keyword)) << c.keyword;

  // Highlight by the hit's reference, which names the file whatever its
  // bytes; counts per type of what bob may see.
  for (const char* word : {"okapi", "tapir"}) {
    const Json::Value hits = bob.Search(word)["data"]["hits"];
    ASSERT_EQ(1u, hits.size()) << word;
    Json::Value p = ParseJson(R"({"highlight": {"field": "KESTMDTextContent"}})");
    p["doc_id"] = hits[0]["doc_id"];
    p["full_path"] = hits[0]["additional"].get("path_ref", hits[0]["KESTMDPath"]);
    p["keyword"] = word;
    const Json::Value reply = bob.Call("Highlight", "highlight", p);
    EXPECT_NE(std::string::npos, Json::toString(reply["data"]).find(word)) << Json::toString(reply);
  }
  Json::Value q = ParseJson(R"({"criteria_list": [], "search_weight_list": [],
      "file_type": ["document", "photo"], "indice": ["docs"], "keyword": "aardvark OR photo"})");
  EXPECT_EQ(R"({"document":1,"photo":1})",
            Json::toString(bob.Call("Indicate", "indicate", q)["data"]));

  // A folder of another share shows only when asked for.
  carol.Add(R"([{"path": "/volume1/other/misc"}])");
  EXPECT_EQ("notes.txt", bob.Names("aardvark"));
  EXPECT_EQ(2, bob.Search("aardvark", R"(["docs", "other"])")["data"]["total"].asInt());
  // Each service restarted: nothing is lost, what changed meanwhile follows.
  // The daemon restarts on a damaged index, which it names while the others
  // answer.
  indexer.Stop();
  ASSERT_EQ(0, system("for f in /volume1/@kestondri/index/other/*.glass; do "
                      "head -c 8192 /dev/urandom > \"$f\"; done"));
  WriteFile(team + "while-down.txt", "a numbat appears\n");
  daemon.Stop();
  ASSERT_TRUE(daemon.Start());
  Json::Value reply = carol.Search("aardvark", R"(["docs", "other"])");
  EXPECT_EQ("[\"fileindex_other\"]", Json::toString(reply["data"]["unavail"]))
      << Json::toString(reply);
  EXPECT_EQ(2, reply["data"]["total"].asInt());  // ann's private file and notes.txt
  EXPECT_EQ("notes.txt", bob.Names("aardvark"));
  indexer.Start();
  EXPECT_TRUE(WaitFor([&] { return bob.Names("numbat") == "while-down.txt"; }));
  server.Stop();
  server.Start(TestConfig());
  bob.Relogin();  // sessions live in the server's memory
  carol.Relogin();
  EXPECT_EQ("while-down.txt", bob.Names("numbat"));
  EXPECT_TRUE(
      WaitFor([&] { return carol.Search("aardvark", R"(["other"])")["data"]["unavail"].empty(); }));
  const Json::Value folders = bob.Call("Folder", "list", ParseJson(R"({"offset": 0, "limit": 10,
      "sort_by": "path", "direction": "asc", "group": "all", "pattern": "", "additional": []})"));
  EXPECT_EQ(2, folders["data"]["total"].asInt()) << Json::toString(folders);
  server.Stop();
  indexer.Stop();
}

}  // namespace
}  // namespace kesttest
