// kest-indexer: keeps the indexed folders' share indices up to date.
// Runs as root in the foreground (systemd's simple service); logs to syslog.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "service/indexer_service.h"
#include "service/term_suggest.h"

namespace {

using kestondri::indexer::IndexerService;
using kestondri::indexer::ServiceOptions;

void Usage(FILE* out) {
  fprintf(out,
          "usage: kest-indexer [options]\n"
          "       kest-indexer --update-suggestions [--pid-file=PATH] DB...\n"
          "  --check-interval=S   walk every folder again every S seconds (600)\n"
          "  --commit-docs=N      commit after N changed documents (1000)\n"
          "  --commit-ms=MS       or when the oldest uncommitted change is MS old (1000)\n"
          "  --max-text=BYTES     text kept per file (10485760)\n"
          "  --max-memory=BYTES   address space of the extraction worker (1073741824)\n"
          "  --timeout=MS         extraction time per file (60000)\n"
          "  --cpu=S              extraction CPU seconds per file (30)\n"
          "  --suggest-delay=S    idle seconds before term suggestions are rebuilt (5)\n"
          "  --no-suggest         never rebuild term suggestions\n"
          "  --pid-file=PATH      the updater's pid file (%s)\n"
          "  --stderr             log to standard error too\n",
          kestondri::indexer::kTermSuggestPidFile);
}

bool Number(const char* text, unsigned long long max, unsigned long long* out) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = strtoull(text, &end, 10);
  if (errno || !end || *end || end == text || v > max || text[0] == '-') return false;
  *out = v;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  enum {
    kCheck = 256,
    kCommitDocs,
    kCommitMs,
    kMaxText,
    kMaxMemory,
    kTimeout,
    kCpu,
    kSuggestDelay,
    kNoSuggest,
    kPidFile,
    kStderr,
    kUpdate,
    kHelp
  };
  static const struct option kOptions[] = {
      {"check-interval", required_argument, nullptr, kCheck},
      {"commit-docs", required_argument, nullptr, kCommitDocs},
      {"commit-ms", required_argument, nullptr, kCommitMs},
      {"max-text", required_argument, nullptr, kMaxText},
      {"max-memory", required_argument, nullptr, kMaxMemory},
      {"timeout", required_argument, nullptr, kTimeout},
      {"cpu", required_argument, nullptr, kCpu},
      {"suggest-delay", required_argument, nullptr, kSuggestDelay},
      {"no-suggest", no_argument, nullptr, kNoSuggest},
      {"pid-file", required_argument, nullptr, kPidFile},
      {"stderr", no_argument, nullptr, kStderr},
      {"update-suggestions", no_argument, nullptr, kUpdate},
      {"help", no_argument, nullptr, kHelp},
      {nullptr, 0, nullptr, 0}};

  ServiceOptions options;
  options.suggest_pid_file = kestondri::indexer::kTermSuggestPidFile;
  bool suggest = true, update = false;
  int log_options = LOG_PID;
  for (;;) {
    const int c = getopt_long(argc, argv, "", kOptions, nullptr);
    if (c == -1) break;
    unsigned long long v = 0;
    const bool numeric = c >= kCheck && c <= kSuggestDelay;
    if (numeric && !Number(optarg, UINT_MAX, &v) && !(c == kMaxText || c == kMaxMemory)) {
      fprintf(stderr, "kest-indexer: bad number for --%s: %s\n", kOptions[c - kCheck].name, optarg);
      return 2;
    }
    if ((c == kMaxText || c == kMaxMemory) && !Number(optarg, 1ull << 40, &v)) {
      fprintf(stderr, "kest-indexer: bad size: %s\n", optarg);
      return 2;
    }
    switch (c) {
      case kCheck:
        options.check_interval = std::chrono::seconds(v ? v : 1);
        break;
      case kCommitDocs:
        options.commit.max_documents = v ? v : 1;
        break;
      case kCommitMs:
        options.commit.max_delay = std::chrono::milliseconds(v);
        break;
      case kMaxText:
        options.limits.max_text_bytes = v;
        break;
      case kMaxMemory:
        options.limits.max_memory_bytes = v;
        break;
      case kTimeout:
        options.limits.wall_ms = static_cast<unsigned>(v);
        break;
      case kCpu:
        options.limits.cpu_seconds = static_cast<unsigned>(v);
        break;
      case kSuggestDelay:
        options.suggest_delay = std::chrono::seconds(v);
        break;
      case kNoSuggest:
        suggest = false;
        break;
      case kPidFile:
        options.suggest_pid_file = optarg;
        break;
      case kStderr:
        log_options |= LOG_PERROR;
        break;
      case kUpdate:
        update = true;
        break;
      case kHelp:
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  openlog(update ? "kest-indexer-suggest" : "kest-indexer", log_options, LOG_DAEMON);

  if (update) {
    std::vector<std::string> dbs(argv + optind, argv + argc);
    return kestondri::indexer::TermSuggestMain(dbs, options.suggest_pid_file);
  }
  if (optind != argc) {
    Usage(stderr);
    return 2;
  }
  if (geteuid() != 0) {
    fprintf(stderr, "kest-indexer: must run as root\n");
    return 1;
  }
  if (suggest) {
    char self[PATH_MAX] = {0};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) options.suggest_program.assign(self, static_cast<size_t>(n));
  }

  // Stop signals are taken by one thread, so that the loop stops between
  // files, commits and leaves the queue as it stands.
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGTERM);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  try {
    IndexerService service(options);
    std::thread signals([&service, &stop_signals] {
      int sig = 0;
      sigwait(&stop_signals, &sig);
      service.Stop();
    });
    const int rc = service.Run();
    // Run() only ends after Stop(), which only the signal thread calls.
    signals.join();
    return rc;
  } catch (const std::exception& e) {
    syslog(LOG_ERR, "index: %s", e.what());
    fprintf(stderr, "kest-indexer: %s\n", e.what());
    return 1;
  }
}
