// kest-extract: prints what the indexer would extract from files, with the
// status and metadata, for debugging and benchmarks.
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "extract/extractor.h"

namespace {

void Usage(FILE* out) {
  std::fprintf(
      out,
      "Usage: kest-extract [options] FILE...\n"
      "Prints the text extracted from each FILE after a header of metadata.\n\n"
      "  -t, --text-only          print only the text\n"
      "  -m, --meta-only          print only the metadata\n"
      "      --max-text=BYTES     text kept per file (default %zu)\n"
      "      --max-input=BYTES    bytes read or decompressed per file (default %llu)\n"
      "      --max-memory=BYTES   address space of the worker, 0: unbounded (default %llu)\n"
      "      --cpu=SECONDS        CPU time per file (default %u)\n"
      "      --timeout=MS         wall-clock time per file (default %u)\n"
      "      --worker=PATH        the worker executable\n"
      "  -h, --help               this text\n"
      "Exit status: 0 when every file gave its text (or has none to give), 1 otherwise.\n",
      kestondri::indexer::ExtractLimits().max_text_bytes,
      static_cast<unsigned long long>(kestondri::indexer::ExtractLimits().max_input_bytes),
      static_cast<unsigned long long>(kestondri::indexer::ExtractLimits().max_memory_bytes),
      kestondri::indexer::ExtractLimits().cpu_seconds, kestondri::indexer::ExtractLimits().wall_ms);
}

bool ParseNumber(const char* text, unsigned long long* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtoull(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && text[0] != '-';
}

}  // namespace

int main(int argc, char** argv) {
  using kestondri::indexer::ExtractLimits;
  using kestondri::indexer::ExtractResult;
  using kestondri::indexer::ExtractStatus;
  enum { kMaxText = 256, kMaxInput, kMaxMemory, kCpu, kTimeout, kWorker };
  static const struct option kOptions[] = {
      {"text-only", no_argument, nullptr, 't'},
      {"meta-only", no_argument, nullptr, 'm'},
      {"max-text", required_argument, nullptr, kMaxText},
      {"max-input", required_argument, nullptr, kMaxInput},
      {"max-memory", required_argument, nullptr, kMaxMemory},
      {"cpu", required_argument, nullptr, kCpu},
      {"timeout", required_argument, nullptr, kTimeout},
      {"worker", required_argument, nullptr, kWorker},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0},
  };
  ExtractLimits limits;
  kestondri::indexer::ExtractorOptions options;
  options.log_failures = false;
  bool text_only = false, meta_only = false;
  int opt;
  while ((opt = getopt_long(argc, argv, "tmh", kOptions, nullptr)) != -1) {
    unsigned long long v = 0;
    if (opt >= kMaxText && opt <= kTimeout && !ParseNumber(optarg, &v)) {
      std::fprintf(stderr, "kest-extract: not a number: %s\n", optarg);
      return 2;
    }
    switch (opt) {
      case 't':
        text_only = true;
        break;
      case 'm':
        meta_only = true;
        break;
      case kMaxText:
        limits.max_text_bytes = static_cast<size_t>(v);
        break;
      case kMaxInput:
        limits.max_input_bytes = v;
        break;
      case kMaxMemory:
        limits.max_memory_bytes = v;
        break;
      case kCpu:
        limits.cpu_seconds = static_cast<unsigned>(v);
        break;
      case kTimeout:
        limits.wall_ms = static_cast<unsigned>(v);
        break;
      case kWorker:
        options.worker.worker_path = optarg;
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  if (optind >= argc || (text_only && meta_only)) {
    Usage(stderr);
    return 2;
  }
  kestondri::indexer::Extractor extractor(options);
  int exit_code = 0;
  for (int i = optind; i < argc; ++i) {
    const ExtractResult r = extractor.Extract(argv[i], limits);
    if (r.status != ExtractStatus::kOk && r.status != ExtractStatus::kUnsupported &&
        r.status != ExtractStatus::kBinary) {
      exit_code = 1;
    }
    if (!text_only) {
      std::printf("file: %s\nformat: %s\nstatus: %s\n", argv[i], r.format.c_str(),
                  kestondri::indexer::ExtractStatusName(r.status));
      if (!r.detail.empty()) std::printf("detail: %s\n", r.detail.c_str());
      if (!r.charset.empty()) std::printf("charset: %s\n", r.charset.c_str());
      if (!r.title.empty()) std::printf("title: %s\n", r.title.c_str());
      std::printf("truncated: %s\nbytes: %zu\n", r.truncated ? "yes" : "no", r.text.size());
      if (!meta_only) std::printf("\n");
    }
    if (!meta_only) {
      std::fwrite(r.text.data(), 1, r.text.size(), stdout);
      if (!r.text.empty() && r.text.back() != '\n') std::fputc('\n', stdout);
    }
    if (!text_only && i + 1 < argc) std::printf("\n");
  }
  return exit_code;
}
