#include "extract/extract_types.h"

namespace kestondri {
namespace indexer {

const char* ExtractStatusName(ExtractStatus status) {
  switch (status) {
    case ExtractStatus::kOk:
      return "ok";
    case ExtractStatus::kUnsupported:
      return "unsupported";
    case ExtractStatus::kUnreadable:
      return "unreadable";
    case ExtractStatus::kBinary:
      return "binary";
    case ExtractStatus::kEncrypted:
      return "encrypted";
    case ExtractStatus::kMalformed:
      return "malformed";
    case ExtractStatus::kTooLarge:
      return "too-large";
    case ExtractStatus::kTimeout:
      return "timeout";
    case ExtractStatus::kCpuLimit:
      return "cpu-limit";
    case ExtractStatus::kMemoryLimit:
      return "memory-limit";
    case ExtractStatus::kCrashed:
      return "crashed";
    case ExtractStatus::kWorkerFailed:
      return "worker-failed";
  }
  return "unknown";
}

}  // namespace indexer
}  // namespace kestondri
