// kest-extract-bench TREE: extracts every file of a tree with one Extractor,
// as the indexer does, and prints throughput, statuses and peak memory.
#include <ftw.h>
#include <sys/resource.h>
#include <time.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "extract/extractor.h"

namespace {

struct Entry {
  std::string path;
  long long size;
};
std::vector<Entry>* g_files = nullptr;

int Collect(const char* path, const struct stat* st, int type, struct FTW*) {
  if (type == FTW_F && S_ISREG(st->st_mode)) g_files->push_back({path, st->st_size});
  return 0;
}

double Now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: kest-extract-bench TREE\n");
    return 2;
  }
  std::vector<Entry> files;
  g_files = &files;
  if (nftw(argv[1], Collect, 64, FTW_PHYS) != 0) {
    std::perror("nftw");
    return 1;
  }
  using kestondri::indexer::ExtractResult;
  std::map<std::string, long> statuses;
  std::map<std::string, long> formats;
  long long input_bytes = 0, text_bytes = 0, truncated = 0;
  double slowest = 0;
  std::string slowest_path;
  const double start = Now();
  {
    kestondri::indexer::ExtractorOptions options;
    options.log_failures = false;
    kestondri::indexer::Extractor extractor(options);
    for (const Entry& f : files) {
      const double t0 = Now();
      const ExtractResult r = extractor.Extract(f.path);
      const double dt = Now() - t0;
      if (dt > slowest) {
        slowest = dt;
        slowest_path = f.path;
      }
      ++statuses[kestondri::indexer::ExtractStatusName(r.status)];
      ++formats[r.format];
      input_bytes += f.size;
      text_bytes += static_cast<long long>(r.text.size());
      truncated += r.truncated ? 1 : 0;
    }
  }
  const double elapsed = Now() - start;
  struct rusage self, children;
  getrusage(RUSAGE_SELF, &self);
  getrusage(RUSAGE_CHILDREN, &children);
  std::printf("files %zu, %.1f MB in %.2f s: %.0f files/s, %.1f MB/s\n", files.size(),
              input_bytes / 1e6, elapsed, files.size() / elapsed, input_bytes / 1e6 / elapsed);
  std::printf("text %.1f MB, truncated %lld\n", text_bytes / 1e6, truncated);
  std::printf("peak RSS: extractor %.1f MiB, worker %.1f MiB\n", self.ru_maxrss / 1024.0,
              children.ru_maxrss / 1024.0);
  std::printf("slowest file %.3f s: %s\n", slowest, slowest_path.c_str());
  for (const auto& s : statuses) std::printf("status %s: %ld\n", s.first.c_str(), s.second);
  for (const auto& s : formats) std::printf("format %s: %ld\n", s.first.c_str(), s.second);
  return 0;
}
