// Figures for the search path: one search request end to end (module,
// scripted daemon on the real socket, owner and share-path lookups) and the
// daemon transport alone. Not a test: run by hand, figures go to RESULTS.md.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <vector>

#include "kest/json.h"
#include "kestdaemon/sock_connection.h"
#include "module/api_runner.h"
#include "support/fake_daemon.h"
#include "support/sandbox.h"
#include "webapi/search.h"

namespace kesttest {
namespace {

using Clock = std::chrono::steady_clock;

void Report(const char* what, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  double sum = 0;
  for (double v : ms) sum += v;
  printf("%-48s n=%zu mean=%.3f ms p50=%.3f ms p95=%.3f ms max=%.3f ms\n", what, ms.size(),
         sum / ms.size(), ms[ms.size() / 2], ms[ms.size() * 95 / 100], ms.back());
}

DaemonReply PageOf(int hits) {
  DaemonReply reply;
  reply.Text(R"({"total": 12345})");
  for (int i = 0; i < hits; ++i) {
    Json::Value hit;
    hit["KESTMDPath"] = "/volume1/docs/file" + std::to_string(i % 10) + ".txt";
    hit["KESTMDFSName"] = "file" + std::to_string(i) + ".txt";
    hit["KESTMDOwnerUserID"] = std::to_string(i % 2 ? kAnnUid : kBobUid);
    hit["KESTMDTextContent"] = std::string(2000, 'x');
    reply.Message(hit);
  }
  return reply.Text(R"({"success": true})");
}

TEST(SearchBench, SearchRequestOfFiftyHits) {
  WriteFile("/etc/kest/shares.conf", "[docs]\npath = /volume1/docs\nread list = @staff\n");
  mkdir("/volume1/docs", 0755);
  for (int i = 0; i < 10; ++i) WriteFile("/volume1/docs/file" + std::to_string(i) + ".txt", "x");
  FakeDaemon daemon;
  constexpr int kRounds = 300;
  Json::Value params;
  Json::fromString(params, R"({"indice": ["docs"], "from": 0, "size": 50, "fields": [],
                               "file_type": "", "keyword": "x"})");
  std::vector<double> ms;
  for (int i = 0; i < kRounds; ++i) {
    daemon.On("search", PageOf(50));
    daemon.On("list_db_status", DaemonReply::Success(Json::Value(Json::objectValue)));
    const auto start = Clock::now();
    const auto response = RunAPIUnguarded<kestondri::webapi::SearchAPI>(kAnn, params);
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    ASSERT_TRUE(response.IsSuccess());
    ASSERT_EQ(50u, response.GetData()["hits"].size());
    ReapChildren(0);
  }
  Report("search request, 50 hits of 2 KB, as ann", ms);
}

TEST(SearchBench, TransportRoundTrip) {
  FakeDaemon daemon;
  for (size_t size : {size_t(100), size_t(1) << 20, size_t(16) << 20}) {
    std::vector<double> ms;
    const int rounds = size > (1u << 20) ? 20 : 300;
    for (int i = 0; i < rounds; ++i) {
      daemon.On("probe", DaemonReply().Text(std::string(size, 'y')));
      const auto start = Clock::now();
      kestdaemon::DomainSockConnection conn(FakeDaemon::kSocketPath);
      ASSERT_TRUE(conn.Connect(10));
      ASSERT_TRUE(conn.Send(R"({"command":"probe","data":{}})"));
      std::string reply;
      ASSERT_TRUE(conn.Recv(reply));
      ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
      ASSERT_EQ(size, reply.size());
    }
    const std::string what = "connect + request + reply of " + std::to_string(size) + " bytes";
    Report(what.c_str(), ms);
  }
}

}  // namespace
}  // namespace kesttest
