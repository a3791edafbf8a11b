// kestelasticd: the search daemon of KestOndri file search.
//
//   kestelasticd [--socket PATH] [--workers N] [--max-connections-per-uid N]
//                [--max-requests-per-uid N] [--index ID=DB_PATH[,SHARE_PATH]]...
//
// Without --index options the indices are those of the shared folders.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "index_resolver.h"
#include "server.h"

namespace {

// After a stop was asked for, the process ends within this long even if a
// request being answered does not give up in time: a daemon that does not
// stop cannot be replaced.
constexpr time_t kStopGraceSeconds = 5;

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: kestelasticd [--socket PATH] [--workers N] [--max-connections-per-uid N]\n"
               "                    [--max-requests-per-uid N] "
               "[--index ID=DB_PATH[,SHARE_PATH]]...\n");
}

bool ParseCount(const char* name, const char* text, int* out) {
  char* end = nullptr;
  long value = std::strtol(text, &end, 10);
  if (end == text || *end != '\0' || value < 1 || value > 1000000) {
    std::fprintf(stderr, "kestelasticd: bad --%s %s\n", name, text);
    return false;
  }
  *out = static_cast<int>(value);
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kestondri::daemon;
  ServerOptions options;
  auto static_resolver = std::make_unique<StaticIndexResolver>();
  bool have_static = false;
  static const option long_options[] = {
      {"socket", required_argument, nullptr, 's'},
      {"workers", required_argument, nullptr, 'w'},
      {"index", required_argument, nullptr, 'i'},
      {"max-connections-per-uid", required_argument, nullptr, 'c'},
      {"max-requests-per-uid", required_argument, nullptr, 'r'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "s:w:i:h", long_options, nullptr)) != -1) {
    switch (c) {
      case 's':
        options.socket_path = optarg;
        break;
      case 'w':
        options.workers = std::atoi(optarg);
        if (options.workers < 1 || options.workers > 1024) {
          std::fprintf(stderr, "kestelasticd: bad --workers %s\n", optarg);
          return 2;
        }
        break;
      case 'c':
        if (!ParseCount("max-connections-per-uid", optarg, &options.max_connections_per_uid)) {
          return 2;
        }
        break;
      case 'r':
        if (!ParseCount("max-requests-per-uid", optarg, &options.max_requests_per_uid)) return 2;
        break;
      case 'i':
        if (!static_resolver->AddOption(optarg)) {
          std::fprintf(stderr, "kestelasticd: bad --index %s\n", optarg);
          return 2;
        }
        have_static = true;
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  std::unique_ptr<IndexResolver> resolver;
  if (have_static) {
    resolver = std::move(static_resolver);
  } else {
    resolver = MakeShareIndexResolver();
  }

  // Signals are taken by one thread with sigwait, so the workers never see
  // them and a stop is always orderly. A disposition inherited as "ignored"
  // (from whatever started us) would leave sigwait's result unspecified:
  // the default is set first.
  for (int sig : {SIGTERM, SIGINT, SIGHUP}) signal(sig, SIG_DFL);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGPIPE, SIG_IGN);

  openlog("kestelasticd", LOG_PID, LOG_DAEMON);
  Server server(*resolver, options);
  std::string error;
  if (!server.Start(&error)) {
    syslog(LOG_ERR, "cannot start: %s", error.c_str());
    std::fprintf(stderr, "kestelasticd: %s\n", error.c_str());
    return 1;
  }
  std::atomic<bool> done{false};
  std::thread signals([&server, &done, &options, set] {
    int sig = 0;
    sigwait(&set, &sig);
    if (done) return;
    server.Stop();
    // Requests being answered give up at once when the server stops; should
    // one not (a single match that takes long), the process goes anyway
    // after the grace time, or at a second signal.
    timespec grace{kStopGraceSeconds, 0};
    siginfo_t info;
    while (sigtimedwait(&set, &info, &grace) < 0 && errno == EINTR) {
    }
    if (done) return;
    syslog(LOG_ERR, "requests did not end within %lds of the stop; exiting",
           static_cast<long>(kStopGraceSeconds));
    server.RemoveSocket();
    _exit(1);
  });
  server.Wait();
  // The signal thread may still be waiting when the server stopped for
  // another reason; wake it.
  done = true;
  pthread_kill(signals.native_handle(), SIGTERM);
  signals.join();
  return 0;
}
