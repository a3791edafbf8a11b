// Keystroke to paint of the web page: headless Chromium (bench/web_keystroke.mjs)
// types the fixed queries letter by letter into the page served by the web
// API server with the real module and kestelasticd, on the index that
// kest-indexer built of VOLUME_DIR/src (bench/indexer_bench.sh), as an
// administrator and as an ordinary user.
//   build/bench/web_keystroke_bench VOLUME_DIR QUERIES_TSV   (as root)
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

#include "host/server_harness.h"
#include "kest/json.h"
#include "kestondri/fileindex.h"
#include "support/sandbox.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: web_keystroke_bench VOLUME_DIR QUERIES_TSV\n");
    return 2;
  }
  // The sandbox keeps the working folder as it is: the volume stays on disk.
  if (chdir(argv[1]) != 0) {
    perror(argv[1]);
    return 1;
  }
  kesttest::EnterSandbox();
  if (mount(argv[1], "/volume1", nullptr, MS_BIND, nullptr) != 0) {
    perror("bind mount");
    return 1;
  }
  kesttest::WriteFile("/etc/kest/shares.conf",
                      "[global]\nadmin group = administrators\n[src]\npath = /volume1/src\n");
  kesttest::WriteFile("/etc/pam.d/kestondri", kesttest::ReadFile(std::string(KEST_SOURCE_DIR) +
                                                                 "/host/dist/kestondri.pam"));
  Json::Value folders;
  Json::Reader().parse(R"([{"path": "/volume1/src"}])", folders);
  kestondri::fileindex::FolderAdd(folders, false);
  unlink("/volume1/@kestondri/queue/src.queue");  // no indexer here

  const pid_t daemon = fork();
  if (daemon == 0) {
    const std::string program = std::string(KEST_BINARY_DIR) + "/daemon/kestelasticd";
    execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  kesttest::WriteFile("/tmp/webapi-test/.keep", "");
  kesttest::ServerProcess server;
  server.Start(kesttest::TestConfig(std::string("[server]\nstatic_root = ") + KEST_WWW_DIR + "\n"));

  Json::Value users(Json::objectValue);
  for (const char* user : {"carol", "ann"}) users[user] = kesttest::UserByName(user).password;
  int status = 1;
  const pid_t node = fork();
  if (node == 0) {
    setenv("KEST_URL", ("http://127.0.0.1:" + std::to_string(kesttest::kServerPort) + "/").c_str(),
           1);
    setenv("KEST_USERS", Json::toString(users).c_str(), 1);
    setenv("KEST_QUERIES", argv[2], 1);
    const std::string script = std::string(KEST_SOURCE_DIR) + "/bench/web_keystroke.mjs";
    execl("/usr/bin/node", "node", script.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  waitpid(node, &status, 0);
  server.Stop();
  kill(daemon, SIGTERM);
  waitpid(daemon, nullptr, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
