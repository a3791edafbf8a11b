// What the text extractor is asked for and what it answers.
//
// Plain values, copyable, no thread-safety concerns of their own.
#ifndef KESTONDRI_INDEXER_EXTRACT_EXTRACT_TYPES_H_
#define KESTONDRI_INDEXER_EXTRACT_EXTRACT_TYPES_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace kestondri {
namespace indexer {

// Bounds on the work done for one file. The defaults are documented in
// docs/extraction.md; keep both in step.
struct ExtractLimits {
  // Text kept per file, in bytes of UTF-8; the rest is cut at a character
  // boundary and the result is marked truncated.
  size_t max_text_bytes = 10u << 20;
  // Bytes read from the file, or decompressed from an archive's members,
  // before the extractor stops: a 5 GB log or a zip bomb costs at most this.
  uint64_t max_input_bytes = 256ull << 20;
  // Address space of the worker process (RLIMIT_AS); 0 leaves it unbounded.
  uint64_t max_memory_bytes = 1ull << 30;
  // CPU seconds one file may cost the worker (RLIMIT_CPU, raised per file);
  // 0 leaves it unbounded.
  unsigned cpu_seconds = 30;
  // Wall-clock deadline for one file, enforced by the caller with SIGKILL;
  // 0 leaves it unbounded.
  unsigned wall_ms = 60000;
  // Members of an office archive looked at before giving up.
  unsigned max_archive_entries = 10000;
};

enum class ExtractStatus : uint8_t {
  kOk = 0,        // text (possibly empty or truncated) extracted
  kUnsupported,   // no extractor for this kind of file: metadata only
  kUnreadable,    // the file could not be opened or read
  kBinary,        // a text-like name but binary content
  kEncrypted,     // password-protected document
  kMalformed,     // the parser gave up; text holds what was found before
  kTooLarge,      // the whole file would have to be read past max_input_bytes
  kTimeout,       // the wall-clock deadline passed; the worker was killed
  kCpuLimit,      // the worker used up its CPU seconds
  kMemoryLimit,   // the worker ran out of its address space
  kCrashed,       // the worker died for another reason
  kWorkerFailed,  // no worker could be started or talked to
};

// A stable lower-case name for logs and the command-line tool ("ok", ...).
const char* ExtractStatusName(ExtractStatus status);

struct ExtractResult {
  ExtractStatus status = ExtractStatus::kUnsupported;
  std::string text;        // always valid UTF-8, at most max_text_bytes
  bool truncated = false;  // text was cut at max_text_bytes or max_input_bytes
  std::string format;      // the extractor used: "text", "html", "pdf", ...
  std::string charset;     // the detected source charset of text and HTML files
  std::string title;       // the document's own title, when it has one
  std::string detail;      // why the status is not kOk, for logs

  bool ok() const { return status == ExtractStatus::kOk; }
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_EXTRACT_TYPES_H_
