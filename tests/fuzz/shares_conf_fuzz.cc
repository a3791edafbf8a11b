// /etc/kest/shares.conf as the C library parses it, whole and [global] alone,
// and the same text read as a Samba configuration.
#include <cstddef>
#include <cstdint>
#include <string>

#include "klib/config.h"
#include "klib/samba_conf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string error;
  for (bool global_only : {false, true}) {
    const auto config = kest::klib::ParseConfig(text, "shares.conf", global_only, &error);
    if (config) config->HomeShare();
  }
  kest::klib::ParseSambaText(text, "smb.conf", {});
  return 0;
}
