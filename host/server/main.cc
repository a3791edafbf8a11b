// kest-webapi-server: serves the web API modules over HTTP.
//
//   kest-webapi-server [--config FILE] [--check-config]
#include <getopt.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kest/klib.h"
#include "server/access_log.h"
#include "server/module_registry.h"
#include "server/server.h"
#include "server/server_config.h"

namespace {

constexpr char kProgram[] = "kest-webapi-server";

int Fail(const std::string& message) {
  fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
  syslog(LOG_ERR, "%s", message.c_str());
  return 1;
}

void Usage(FILE* out) {
  fprintf(out,
          "usage: %s [--config FILE] [--check-config]\n"
          "  --config FILE    settings (default %s; optional when the default)\n"
          "  --check-config   load the settings and modules, then exit\n",
          kProgram, kestondri::host::kDefaultConfigPath);
}

// Workers are forked copies of the master, so a symbol that the dynamic
// linker binds lazily is bound again in every worker, whose first call writes
// (and so copies) the relocation pages. Binding everything in the master,
// once, before the first fork, removed about a quarter of the CPU time of a
// light request. The variable must be set before the program starts, hence
// the one re-execution; it is removed again so that nothing else inherits it.
void BindSymbolsBeforeForking(char** argv) {
  if (getenv("LD_BIND_NOW")) {
    unsetenv("LD_BIND_NOW");
    return;
  }
  // The program's own path, not /proc/self/exe: the process name shown by
  // ps and in the log comes from the path executed.
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return;
  self[length] = '\0';
  setenv("LD_BIND_NOW", "1", 1);
  execv(self, argv);
  unsetenv("LD_BIND_NOW");  // not re-executed: go on, lazily bound
}

}  // namespace

int main(int argc, char** argv) {
  using namespace kestondri::host;
  BindSymbolsBeforeForking(argv);
  std::string config_path = kDefaultConfigPath;
  bool config_named = false;
  bool check_only = false;
  static const struct option kOptions[] = {{"config", required_argument, nullptr, 'c'},
                                           {"check-config", no_argument, nullptr, 'k'},
                                           {"help", no_argument, nullptr, 'h'},
                                           {nullptr, 0, nullptr, 0}};
  for (int opt; (opt = getopt_long(argc, argv, "c:kh", kOptions, nullptr)) != -1;) {
    switch (opt) {
      case 'c':
        config_path = optarg;
        config_named = true;
        break;
      case 'k':
        check_only = true;
        break;
      case 'h':
        Usage(stdout);
        return 0;
      default:
        Usage(stderr);
        return 2;
    }
  }
  if (optind != argc) {
    Usage(stderr);
    return 2;
  }

  openlog(kProgram, LOG_PID, LOG_DAEMON);
  // Every request switches to its login user, which only root can do.
  if (geteuid() != 0) return Fail("must run as root (each request acts as its login user)");

  ServerConfig config;
  std::string error;
  if (!LoadServerConfig(config_path, config_named, &config, &error)) return Fail(error);

  // Hold no mount busy; every path in the settings is absolute.
  if (chdir("/") != 0) return Fail("cannot change to /");
  // Modules fork children that nobody waits for; they are reparented here
  // and reaped by the event loop.
  if (prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) return Fail("cannot become a child subreaper");
  signal(SIGPIPE, SIG_IGN);
  struct rlimit files;
  if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  ModuleRegistry registry;
  for (const auto& [name, path] : config.modules) {
    if (!registry.Load(path, &error)) return Fail(error);
    syslog(LOG_INFO, "module %s loaded from %s", name.c_str(), path.c_str());
  }
  // Workers are copies of the master: name-service modules loaded and
  // configuration read here are not loaded and read again by every worker.
  KLIBGroupIsAdminGroupMem("root", 0);
  if (check_only) {
    printf("%s: configuration ok, %zu handlers\n", config_path.c_str(), registry.handler_count());
    return 0;
  }

  AccessLog access_log;
  if (!access_log.Open(config.access_log, &error)) return Fail(error);
  Server server(config, registry, &access_log);
  if (!server.Listen(&error)) return Fail(error);
  return server.Run();
}
