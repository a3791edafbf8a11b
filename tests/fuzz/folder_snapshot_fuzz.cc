// The folder store's snapshot file (JSON beside the database) as readers
// load it.
#include <cstddef>
#include <cstdint>
#include <string>

#include "snapshot.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  kestondri::fileindex::StoreContents contents;
  std::string why;
  kestondri::fileindex::ParseSnapshot(text, "1/2/3/4", &contents, &why);
  return 0;
}
