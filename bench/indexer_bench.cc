// Indexing throughput, memory and change-to-search delay of kest-indexer on
// a real tree, then the time of a folder's reindex, inside the test sandbox
// with VOLUME_DIR (on disk) bound over /volume1:
//   build/bench/indexer_bench VOLUME_DIR   (as root; VOLUME_DIR/src is the tree)
// bench/indexer_bench.sh prepares the tree of Debian's linux-source package.
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xapian.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "kestondri/fileindex.h"
#include "support/sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kQueue[] = "/volume1/@kestondri/queue/src.queue";
constexpr char kDb[] = "/volume1/@kestondri/index/src";

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Peak resident set (VmHWM) of a process in KiB; 0 when it is gone.
long PeakKiB(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, 6, "VmHWM:") == 0) return std::atol(line.c_str() + 6);
  }
  return 0;
}

std::vector<pid_t> Children(pid_t pid) {
  std::vector<pid_t> out;
  std::ifstream in("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children");
  pid_t child;
  while (in >> child) out.push_back(child);
  return out;
}

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: indexer_bench VOLUME_DIR\n");
    return 2;
  }
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
  if (system("rm -rf /volume1/@kestondri") != 0) return 1;
  kesttest::WriteFile("/etc/kest/shares.conf", "[src]\npath = /volume1/src\n");
  const std::string out = std::string(KEST_BINARY_DIR) + "/bench-indexer.log";
  if (system(("du -sb /volume1/src | cut -f1 > " + out).c_str()) != 0) return 1;
  const double tree_bytes = std::atof(kesttest::ReadFile(out).c_str());

  Json::Value folders;
  Json::Reader().parse(R"([{"path": "/volume1/src"}])", folders);
  kestondri::fileindex::FolderAdd(folders, false);

  const auto start = Clock::now();
  const pid_t indexer = fork();
  if (indexer == 0) {
    const std::string program = std::string(KEST_BINARY_DIR) + "/indexer/kest-indexer";
    execl(program.c_str(), program.c_str(), "--suggest-delay=100000", "--check-interval=100000",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  long peak_indexer = 0, peak_worker = 0;
  auto sample = [&] {
    peak_indexer = std::max(peak_indexer, PeakKiB(indexer));
    for (pid_t child : Children(indexer)) peak_worker = std::max(peak_worker, PeakKiB(child));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  };
  while (Exists(kQueue)) sample();
  const double crawl = Seconds(Clock::now() - start);
  // The first walk of a new index ends with its compaction: until the
  // compacted copy is in place the database says it is still filling.
  auto filling = [] {
    try {
      return Xapian::Database(kDb).get_metadata("kestondri:filling") == "1";
    } catch (const Xapian::Error&) {
      return true;  // met in the middle of the exchange
    }
  };
  while (filling()) sample();
  const double elapsed = Seconds(Clock::now() - start);
  peak_indexer = std::max(peak_indexer, PeakKiB(indexer));

  Xapian::doccount docs = Xapian::Database(kDb).get_doccount();
  if (system(("du -sb " + std::string(kDb) + " | cut -f1 > " + out).c_str()) != 0) return 1;
  const double index_bytes = std::atof(kesttest::ReadFile(out).c_str());

  // From a file written to its words being searchable.
  std::vector<double> delays;
  for (int i = 0; i < 20; ++i) {
    const std::string word = "benchword" + std::to_string(i) + "x" + std::to_string(getpid());
    const auto t0 = Clock::now();
    kesttest::WriteFile("/volume1/src/bench-change-" + std::to_string(i) + ".txt", word + "\n");
    for (;;) {
      try {
        if (Xapian::Database(kDb).term_exists("XC" + word)) break;
      } catch (const Xapian::Error&) {
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    delays.push_back(Seconds(Clock::now() - t0) * 1000);
  }
  std::sort(delays.begin(), delays.end());
  for (int i = 0; i < 20; ++i)
    unlink(("/volume1/src/bench-change-" + std::to_string(i) + ".txt").c_str());
  // The removals are gathered, queued and worked off before the reindex.
  std::this_thread::sleep_for(std::chrono::seconds(1));
  while (Exists(kQueue)) std::this_thread::sleep_for(std::chrono::milliseconds(100));

  // A folder's reindex: every file extracted and written again, while
  // searches go on over the documents as they were.
  const Xapian::doccount before_reindex = Xapian::Database(kDb).get_doccount();
  Xapian::doccount fewest = before_reindex;
  Json::Value paths;
  paths.append("/volume1/src");
  const auto reindex_start = Clock::now();
  kestondri::fileindex::FolderReindex(paths);
  while (Exists(kQueue)) {
    try {
      fewest = std::min(fewest, Xapian::Database(kDb).get_doccount());
    } catch (const Xapian::Error&) {
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  const double reindex_elapsed = Seconds(Clock::now() - reindex_start);
  const long peak_reindex = PeakKiB(indexer);

  kill(indexer, SIGTERM);
  waitpid(indexer, nullptr, 0);

  printf("documents indexed            %u\n", docs);
  printf("tree                         %.2f GB\n", tree_bytes / 1e9);
  printf("time                         %.1f s\n", elapsed);
  printf("of which compaction          %.1f s\n", elapsed - crawl);
  printf("files per second             %.0f\n", docs / elapsed);
  printf("MB per second                %.1f\n", tree_bytes / 1e6 / elapsed);
  printf("index size                   %.2f GB\n", index_bytes / 1e9);
  printf("peak RSS indexer             %.0f MiB\n", peak_indexer / 1024.0);
  printf("peak RSS extraction worker   %.0f MiB\n", peak_worker / 1024.0);
  printf("change to searchable (ms)    p50 %.0f  max %.0f  (n=20)\n", delays[delays.size() / 2],
         delays.back());
  printf("reindex of the folder        %.1f s, %.0f files per second\n", reindex_elapsed,
         before_reindex / reindex_elapsed);
  printf("documents during reindex     %u before, %u at fewest\n", before_reindex, fewest);
  printf("peak RSS indexer, both       %.0f MiB\n", peak_reindex / 1024.0);
  return 0;
}
