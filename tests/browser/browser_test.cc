// The web page in a real browser. This test builds the world (shares, files
// of every kind, markup in names and contents among them, the sandbox's PAM
// users, kestelasticd, kest-indexer and the web API server with the real
// module and the built page); page.test.mjs then drives Debian's headless
// Chromium through Playwright and asserts what each user sees.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "daemon/daemon_harness.h"
#include "host/server_harness.h"
#include "kest/json.h"
#include "support/indexer_process.h"
#include "support/sandbox.h"

namespace kesttest {
namespace {

TEST(BrowserTest, EveryUserInChromium) {
  for (const char* needed : {"/usr/bin/node", "/usr/bin/chromium",
                             KEST_SOURCE_DIR "/tests/browser/node_modules/playwright-core"}) {
    ASSERT_EQ(0, access(needed, R_OK)) << needed << " is missing: run scripts/install-deps.sh";
  }
  WriteFile("/etc/pam.d/kestondri", ReadFile(KEST_SOURCE_DIR "/host/dist/kestondri.pam"));
  WriteFile("/etc/kest/shares.conf",
            "[global]\nadmin group = administrators\n[docs]\npath = /volume1/docs\n"
            "invalid users = dave\n[staff]\npath = /volume1/staff\nread list = @staff\n");
  const std::string team = "/volume1/docs/team/";
  WriteFile(team + "notes.txt", "The quarterly figures of the aardvark project.\n");
  WriteFile(team + "aardvark-report.pdf",
            ReadFile(KEST_SOURCE_DIR "/tests/indexer/samples/documents/annual-report.pdf"));
  WriteFile(team + "memo.docx",
            ReadFile(KEST_SOURCE_DIR "/tests/indexer/samples/documents/memo.docx"));
  WriteFile(team + "aardvark.jpg", std::string("\xff\xd8\xff\xe0", 4));
  WriteFile(team + "ann-private.txt", "Ann's private aardvark diary.\n", 0600);
  // Markup, quotes and control characters in names, script in a content,
  // bytes that are not UTF-8.
  WriteFile(team + "<img src=x onerror=alert(1)>.txt",
            "<script>alert('aardvark')</script> the aardvark's \"quoted\" & <b>bold</b> line\n");
  WriteFile(team + "tab\there & \"quote\".txt", "another aardvark\x01 with a control byte\n");
  WriteFile(team + "latin\xe9-aardvark.txt", "caf\xe9 aardvark cr\xe8me\n");
  for (int i = 0; i < 120; ++i) {  // enough hits for several pages
    WriteFile(team + "bulk/zebu-" + std::to_string(i) + ".txt", "zebu " + std::to_string(i));
  }
  WriteFile("/volume1/staff/plans/plan.md", "# Plan\nThe wombat budget for staff only.\n", 0640);
  ASSERT_EQ(
      0,
      system("chmod 0777 /volume1/docs/team && chown ann: /volume1/docs/team/ann-private.txt"
             " && chown -R carol:staff /volume1/staff/plans && chmod 0750 /volume1/staff/plans"));

  DaemonProcess daemon;
  IndexerProcess indexer;
  ServerProcess server;
  ASSERT_TRUE(daemon.Start());
  indexer.Start();
  server.Start(TestConfig(std::string("[server]\nstatic_root = ") + KEST_WWW_DIR + "\n"));
  // The docs folder is indexed before the browser comes; the administrator
  // adds the staff folder in the browser.
  const std::string carol = Login("carol", UserByName("carol").password).sid;
  const Fields add = {{"api", "KEST.Ondri.FileIndexing.Folder"},
                      {"method", "add"},
                      {"version", "1"},
                      {"folder", R"([{"path": "/volume1/docs/team"}])"}};
  ASSERT_TRUE(CallApi(add, carol).json["success"].asBool());
  const Fields status = {
      {"api", "KEST.Ondri.FileIndexing.Status"}, {"method", "get"}, {"version", "1"}};
  ASSERT_TRUE(WaitUntil(
      [&] { return CallApi(status, carol).json["data"]["status"]["index"] == "finished"; }, 60000));

  Json::Value users(Json::objectValue);
  for (const auto& user : TestUsers()) {
    if (user.password) users[user.name] = user.password;
  }
  setenv("KEST_URL", ("http://127.0.0.1:" + std::to_string(kServerPort) + "/").c_str(), 1);
  setenv("KEST_USERS", Json::toString(users).c_str(), 1);
  setenv("KEST_DAEMON_PID", std::to_string(daemon.pid()).c_str(), 1);
  setenv("KEST_CHROMIUM", "/usr/bin/chromium", 1);
  setenv("KEST_SCREENS", KEST_SCREENS_DIR, 1);
  EXPECT_EQ(system("/usr/bin/node --test --test-reporter=tap --test-concurrency=1 " KEST_SOURCE_DIR
                   "/tests/browser/page.test.mjs"),
            0)
      << "page.test.mjs failed; server output: " << server.Output();
}

}  // namespace
}  // namespace kesttest
