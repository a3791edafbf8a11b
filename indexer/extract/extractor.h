// The indexer's entry to text extraction: Extract(path, limits) gives the
// text of one file, cut at the limits, and a status. Plain text is read in
// the calling process with a bounded read; HTML, PDF and office documents
// go to a long-lived worker process (ExtractWorker) that a hostile file may
// crash or stall without harm: the file is then reported with a failure
// status and no text, the failure is logged, and the next file gets a fresh
// worker.
//
// Owns one worker. Not thread-safe: use one Extractor per indexing thread.
// Throws nothing but std::bad_alloc.
#ifndef KESTONDRI_INDEXER_EXTRACT_EXTRACTOR_H_
#define KESTONDRI_INDEXER_EXTRACT_EXTRACTOR_H_

#include <string>

#include "extract/extract_types.h"
#include "extract/extract_worker.h"

namespace kestondri {
namespace indexer {

struct ExtractorOptions {
  WorkerOptions worker;
  // Failures worth an administrator's look (unreadable, malformed, too
  // large, time-outs, crashes) go to syslog at LOG_WARNING.
  bool log_failures = true;
};

class Extractor {
 public:
  explicit Extractor(ExtractorOptions options = ExtractorOptions());
  Extractor(const Extractor&) = delete;
  Extractor& operator=(const Extractor&) = delete;

  // The text of the file at `path`, chosen by its name (FormatForPath).
  // Symbolic links are not followed and only regular files are read:
  // anything else is kUnsupported. The file's access time is left alone
  // when the caller may do so.
  ExtractResult Extract(const std::string& path, const ExtractLimits& limits = ExtractLimits());

  const ExtractWorker& worker() const { return worker_; }
  ExtractWorker& worker() { return worker_; }

 private:
  ExtractorOptions options_;
  ExtractWorker worker_;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_EXTRACTOR_H_
