// A share's queue file as the indexing library and the indexer read it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kestondri/fileindex.h"
#include "service/queue_file.h"

namespace {

std::string dir;

void RemoveDir() { std::filesystem::remove_all(dir); }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char templ[] = "/tmp/kest-queue-fuzz-XXXXXX";
  if (!mkdtemp(templ)) abort();
  dir = templ;
  atexit(RemoveDir);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string queue = dir + "/q/share";
  mkdir((dir + "/q").c_str(), 0755);
  std::ofstream(queue, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  std::vector<kestondri::fileindex::QueueEntry> entries;
  kestondri::fileindex::ReadQueueFile(queue, &entries);
  kestondri::indexer::QueueFile(queue).Take();
  return 0;
}
