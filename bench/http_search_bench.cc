// Search over HTTP end to end: the web API server with the real module,
// kestelasticd, and the index kest-indexer built of VOLUME_DIR/src (run
// bench/indexer_bench.sh first), for the fixed query list, 50-hit pages, as
// an administrator and as an ordinary user (whose hits are filtered by
// permission).
//   build/bench/http_search_bench VOLUME_DIR QUERIES_TSV   (as root)
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/server_harness.h"
#include "kestondri/fileindex.h"
#include "support/sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> ReadQueries(const std::string& path) {
  std::vector<std::string> out;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> cols;
    std::stringstream s(line);
    std::string col;
    while (std::getline(s, col, '\t')) cols.push_back(col);
    if (cols.size() >= 3) out.push_back(cols[2]);
  }
  return out;
}

double Percentile(std::vector<double> v, double p) {
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<size_t>(p * v.size()))];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: http_search_bench VOLUME_DIR QUERIES_TSV\n");
    return 2;
  }
  const std::vector<std::string> queries = ReadQueries(argv[2]);
  // The sandbox keeps the working folder as it is (everything else of the
  // host is an overlay): the volume stays on disk, and survives the run.
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
  server.Start(kesttest::TestConfig());

  printf("%zu queries x 10 rounds, 50-hit pages, over HTTP\n", queries.size());
  for (const char* user : {"carol", "ann"}) {
    const auto session = kesttest::Login(user, kesttest::UserByName(user).password);
    if (session.sid.empty()) {
      fprintf(stderr, "login of %s failed\n", user);
      return 1;
    }
    std::vector<double> ms;
    for (int round = 0; round < 11; ++round) {
      for (const auto& q : queries) {
        Json::Value p;
        p["api"] = "KEST.Ondri.FileIndexing.Search";
        p["method"] = "search";
        p["version"] = 1;
        p["_sid"] = session.sid;
        p["indice"].append("src");
        p["keyword"] = q;
        p["from"] = 0;
        p["size"] = 50;
        p["query_serial"] = round;
        p["file_type"] = "";
        p["fields"].append("KESTMDPath");
        p["fields"].append("KESTMDFSName");
        p["search_weight_list"] = Json::Value(Json::arrayValue);
        kesttest::HttpRequest request;
        request.method = "POST";
        request.content_type = "application/json";
        request.body = Json::FastWriter().write(p);
        const auto t0 = Clock::now();
        const auto reply = kesttest::SendHttp(request);
        const double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        if (!reply.json["success"].asBool()) {
          fprintf(stderr, "%s: %s\n", q.c_str(), reply.body.c_str());
          return 1;
        }
        if (round == 0 && q == queries.front()) {
          printf("%s: \"%s\" total %d, %u hits, unavailable %s\n", user, q.c_str(),
                 reply.json["data"]["total"].asInt(), reply.json["data"]["hits"].size(),
                 Json::FastWriter().write(reply.json["data"]["unavail"]).c_str());
        }
        if (round > 0) ms.push_back(elapsed);  // the first round warms the caches
      }
    }
    printf("%-6s %s  p50 %.1f ms  p99 %.1f ms  (n=%zu)\n", user,
           std::string(user) == "carol" ? "administrator, unfiltered" : "user, filtered",
           Percentile(ms, 0.5), Percentile(ms, 0.99), ms.size());
  }
  server.Stop();
  kill(daemon, SIGTERM);
  waitpid(daemon, nullptr, 0);
  return 0;
}
