// kestelasticd: the search daemon of KestOndri file search.
//
//   kestelasticd [--socket PATH] [--workers N] [--index ID=DB_PATH[,SHARE_PATH]]...
//
// Without --index options the indices are those of the shared folders.
#include <getopt.h>
#include <signal.h>
#include <syslog.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "index_resolver.h"
#include "server.h"

namespace {

void Usage(FILE* out) {
  std::fprintf(out,
               "usage: kestelasticd [--socket PATH] [--workers N] "
               "[--index ID=DB_PATH[,SHARE_PATH]]...\n");
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kestondri::daemon;
  ServerOptions options;
  auto static_resolver = std::make_unique<StaticIndexResolver>();
  bool have_static = false;
  static const option long_options[] = {{"socket", required_argument, nullptr, 's'},
                                        {"workers", required_argument, nullptr, 'w'},
                                        {"index", required_argument, nullptr, 'i'},
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
  // them and a stop is always orderly.
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
  std::thread signals([&server, set] {
    int sig = 0;
    sigwait(&set, &sig);
    server.Stop();
  });
  server.Wait();
  // The signal thread may still be waiting when the server stopped for
  // another reason; wake it.
  pthread_kill(signals.native_handle(), SIGTERM);
  signals.join();
  return 0;
}
