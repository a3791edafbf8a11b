// The server's file download endpoint and its static files: a real server
// with the real module, the sandbox's users, real files, links and modes.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/server_harness.h"
#include "kest/json.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

constexpr char kTeam[] = "/volume1/docs/team/";

class FileEndpointTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(0, system("rm -rf /volume1/* /var/packages/KestOndri /tmp/www && "
                        "mkdir -p /tmp/webapi-test /volume1/docs/team/sub /volume1/other "
                        "/volume1/homes/ann /volume1/homes/bob /tmp/www/js"));
    WriteFile("/etc/pam.d/kestondri",
              ReadFile(std::string(KEST_SOURCE_DIR) + "/host/dist/kestondri.pam"));
    WriteFile("/etc/kest/shares.conf",
              "[global]\nadmin group = administrators\nuser home = yes\n"
              "[docs]\npath = /volume1/docs\ninvalid users = dave\n"
              "[other]\npath = /volume1/other\n"
              "[homes]\npath = /volume1/homes\n");
    const std::string team = kTeam;
    WriteFile(team + "hello.txt", "hello");
    WriteFile(team + "page.html", "<script>alert(1)</script>");
    WriteFile(team + "logo.svg", "<svg onload=alert(1)/>");
    WriteFile(team + "empty.txt", "");
    WriteFile(team + "sub/q\"uo\\te;\r\nX-Evil: 1 \xc3\xa9\xff.pdf", "%PDF");
    WriteFile(team + "ann-only.txt", "ann", 0600);
    ASSERT_EQ(0, chown((team + "ann-only.txt").c_str(), kAnnUid, kAnnUid));
    WriteFile("/volume1/docs/unindexed.txt", "outside the indexed folder");
    WriteFile("/volume1/other/far.txt", "another share");
    ASSERT_EQ(0, symlink("/volume1/other/far.txt", (team + "link.txt").c_str()));
    ASSERT_EQ(0, symlink("/volume1/other", (team + "linkdir").c_str()));
    ASSERT_EQ(0, mkfifo((team + "fifo.txt").c_str(), 0666));
    WriteFile("/volume1/homes/ann/mine.txt", "ann's home");
    WriteFile("/volume1/homes/bob/open.txt", "bob's home, readable by all");

    WriteFile("/tmp/www/index.html", "<html>page</html>");
    WriteFile("/tmp/www/js/app.js", "let a = 1;");
    ASSERT_EQ(0, system("gzip -9 -n -k /tmp/www/js/app.js"));
    server_.Start(TestConfig("[server]\nstatic_root = /tmp/www\n"));

    carol_ = Login("carol", UserByName("carol").password);
    ann_ = Login("ann", UserByName("ann").password);
    bob_ = Login("bob", UserByName("bob").password);
    dave_ = Login("dave", UserByName("dave").password);
    ASSERT_FALSE(carol_.sid.empty() || ann_.sid.empty() || bob_.sid.empty() || dave_.sid.empty());
    const HttpReply added =
        CallApi({{"api", "KEST.Ondri.FileIndexing.Folder"},
                 {"method", "add"},
                 {"version", "1"},
                 {"folder", R"([{"path": "/volume1/docs/team"}, {"path": "/volume1/homes"}])"}},
                carol_.sid);
    ASSERT_TRUE(added.json["success"].asBool()) << added.body;
  }

  void TearDown() override { server_.Stop(); }

  static HttpReply Fetch(const std::string& path, const std::string& sid, Fields headers = {},
                         const std::string& extra = "") {
    HttpRequest request;
    request.target = "/webapi/file?" + FormEncode({{"path", path}}) + extra;
    if (!sid.empty()) request.target += "&_sid=" + sid;
    request.headers = std::move(headers);
    return SendHttp(request);
  }

  ServerProcess server_;
  LoginSession carol_, ann_, bob_, dave_;
};

int Code(const HttpReply& reply) { return reply.json["error"]["code"].asInt(); }

TEST_F(FileEndpointTest, ServesOnlyWhatTheUserMayReadInsideIndexedFolders) {
  const std::string team = kTeam;
  struct Case {
    const LoginSession* who;
    std::string path;
    int status;
    int code;  // for refusals
  } cases[] = {
      {&bob_, team + "hello.txt", 200, 0},
      {&bob_, team + "ann-only.txt", 403, 118},       // the kernel says no
      {&ann_, team + "ann-only.txt", 200, 0},         // her own
      {&carol_, team + "ann-only.txt", 200, 0},       // an administrator acts as root
      {&dave_, team + "hello.txt", 404, 116},         // no privilege on the share
      {&bob_, team + "link.txt", 404, 116},           // a link, even to a readable file
      {&carol_, team + "linkdir/far.txt", 404, 116},  // a linked folder on the way
      {&carol_, team + "fifo.txt", 404, 116},         // not a regular file
      {&bob_, team + "sub", 404, 116},
      {&bob_, team + "missing.txt", 404, 116},
      {&carol_, "/volume1/docs/unindexed.txt", 404, 116},  // in a share, not indexed
      {&carol_, "/volume1/other/far.txt", 404, 116},
      {&carol_, "/etc/shadow", 404, 116},
      {&ann_, "/volume1/homes/ann/mine.txt", 200, 0},
      {&ann_, "/volume1/homes/bob/open.txt", 404, 116},  // in homes, only one's own
      {&bob_, team + "../team/hello.txt", 400, 115},
      {&bob_, "hello.txt", 400, 115},
      {&bob_, team + "/hello.txt", 400, 115},
      {nullptr, team + "hello.txt", 403, 106},
  };
  for (const auto& c : cases) {
    const HttpReply reply = Fetch(c.path, c.who ? c.who->sid : "");
    EXPECT_EQ(reply.status, c.status) << c.path << " " << reply.body;
    if (c.status == 200) {
      EXPECT_EQ(reply.body, ReadFile(c.path)) << c.path;
    } else {
      EXPECT_EQ(Code(reply), c.code) << c.path << " " << reply.body;
    }
  }
  // A name that is not UTF-8 is asked for by its bytes in hexadecimal.
  const std::string odd = team + "sub/q\"uo\\te;\r\nX-Evil: 1 \xc3\xa9\xff.pdf";
  std::string hex = "hex:";
  for (unsigned char c : odd) {
    static const char kDigits[] = "0123456789abcdef";
    hex += kDigits[c >> 4];
    hex += kDigits[c & 15];
  }
  const HttpReply reply = Fetch(hex, bob_.sid);
  EXPECT_EQ(reply.status, 200);
  EXPECT_EQ(reply.body, "%PDF");
  EXPECT_EQ(reply.headers.count("x-evil"), 0u);
  EXPECT_EQ(reply.header("content-disposition"),
            "inline; filename=\"q_uo_te;__X-Evil: 1 __.pdf\"; "
            "filename*=UTF-8''q%22uo%5Cte%3B%0D%0AX-Evil%3A%201%20%C3%A9%EF%BF%BD.pdf");
}

TEST_F(FileEndpointTest, AnswersAreNeitherCachedNorRunAsThePage) {
  const std::string team = kTeam;
  struct Case {
    std::string name;
    std::string extra;
    const char* type;
    const char* disposition;
  } cases[] = {
      {"hello.txt", "", "text/plain", "inline"},
      {"page.html", "", "text/plain", "inline"},  // its source, never the page
      {"logo.svg", "", "application/octet-stream", "attachment"},
      {"hello.txt", "&download=1", "text/plain", "attachment"},
  };
  for (const auto& c : cases) {
    HttpReply reply = Fetch(team + c.name, bob_.sid, {}, c.extra);
    EXPECT_EQ(reply.status, 200) << c.name;
    EXPECT_EQ(reply.content_type, c.type) << c.name;
    EXPECT_EQ(reply.header("content-disposition")
                  .substr(0, reply.header("content-disposition").find(';')),
              c.disposition)
        << c.name;
    EXPECT_EQ(reply.header("x-content-type-options"), "nosniff");
    EXPECT_EQ(reply.header("cache-control"), "private, no-store");
    EXPECT_EQ(reply.header("content-security-policy").rfind("sandbox;", 0), 0u);
    EXPECT_EQ(reply.header("cross-origin-resource-policy"), "same-origin");
  }
  // Links carry the cookie alone; another site's page never gets a file.
  const Fields cookie = {{"Cookie", "kest_sid=" + bob_.sid}};
  EXPECT_EQ(Fetch(team + "hello.txt", "", cookie).status, 200);
  Fields cross = cookie;
  cross.emplace_back("Sec-Fetch-Site", "cross-site");
  const HttpReply refused = Fetch(team + "hello.txt", "", cross);
  EXPECT_EQ(refused.status, 403);
  EXPECT_EQ(Code(refused), 108);
}

TEST_F(FileEndpointTest, RangesOfAFile) {
  const std::string file = std::string(kTeam) + "hello.txt";
  struct Case {
    std::string range;
    int status;
    std::string body;
    std::string content_range;
  } cases[] = {
      {"bytes=1-3", 206, "ell", "bytes 1-3/5"},
      {"bytes=3-", 206, "lo", "bytes 3-4/5"},
      {"bytes=-2", 206, "lo", "bytes 3-4/5"},
      {"bytes=2-99", 206, "llo", "bytes 2-4/5"},
      {"bytes=5-", 416, "", "bytes */5"},
      {"bytes=0-0,2-3", 200, "hello", ""},  // several ranges: the whole file
      {"bytes=x-y", 200, "hello", ""},
      {"bytes=3-1", 200, "hello", ""},
  };
  for (const auto& c : cases) {
    const HttpReply reply = Fetch(file, bob_.sid, {{"Range", c.range}});
    EXPECT_EQ(reply.status, c.status) << c.range;
    if (c.status != 416) {
      EXPECT_EQ(reply.body, c.body) << c.range;
    }
    EXPECT_EQ(reply.header("content-range"), c.content_range) << c.range;
  }
  // A range of a file that changed since the client's first piece: the
  // whole file, not a splice of two versions.
  const HttpReply first = Fetch(file, bob_.sid, {{"Range", "bytes=0-1"}});
  const std::string etag = first.header("etag");
  EXPECT_EQ(Fetch(file, bob_.sid, {{"Range", "bytes=2-"}, {"If-Range", etag}}).status, 206);
  WriteFile(file, "HELLO!");
  const HttpReply changed = Fetch(file, bob_.sid, {{"Range", "bytes=2-"}, {"If-Range", etag}});
  EXPECT_EQ(changed.status, 200);
  EXPECT_EQ(changed.body, "HELLO!");
  EXPECT_EQ(Fetch(std::string(kTeam) + "empty.txt", bob_.sid).status, 200);
}

TEST_F(FileEndpointTest, StaticFilesAreCompressedRevalidatedAndLockedDown) {
  HttpRequest request;
  request.target = "/js/app.js";
  request.headers = {{"Accept-Encoding", "br, gzip;q=0.8"}};
  const HttpReply zipped = SendHttp(request);
  EXPECT_EQ(zipped.status, 200);
  EXPECT_EQ(zipped.header("content-encoding"), "gzip");
  EXPECT_EQ(zipped.body, ReadFile("/tmp/www/js/app.js.gz"));
  EXPECT_EQ(zipped.content_type, "text/javascript; charset=utf-8");
  EXPECT_EQ(zipped.header("vary"), "Accept-Encoding");

  request.headers = {{"Accept-Encoding", "gzip;q=0"}};
  const HttpReply plain = SendHttp(request);
  EXPECT_EQ(plain.body, "let a = 1;");
  EXPECT_EQ(plain.headers.count("content-encoding"), 0u);

  request.headers = {{"If-None-Match", plain.header("etag")}};
  const HttpReply unchanged = SendHttp(request);
  EXPECT_EQ(unchanged.status, 304);
  EXPECT_EQ(unchanged.body, "");

  request.target = "/";
  request.headers = {};
  const HttpReply page = SendHttp(request);
  EXPECT_EQ(page.header("cache-control"), "no-cache");
  const std::string policy = page.header("content-security-policy");
  EXPECT_NE(policy.find("script-src 'self';"), std::string::npos) << policy;
  EXPECT_EQ(policy.find("unsafe-inline"), std::string::npos) << policy;
  EXPECT_NE(policy.find("require-trusted-types-for 'script'"), std::string::npos) << policy;
  EXPECT_EQ(page.header("x-frame-options"), "DENY");
}

}  // namespace
}  // namespace kesttest
