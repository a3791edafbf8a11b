#include "service/term_suggest.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>
#include <xapian.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <thread>

#include "index_schema.h"

extern char** environ;

namespace kestondri {
namespace indexer {
namespace {

// Words worth suggesting: no digits-only tokens, nothing too short or long.
bool Suggestable(const std::string& word) {
  if (word.size() < 3 || word.size() > 40) return false;
  bool letter = false;
  for (unsigned char c : word) letter = letter || !(c >= '0' && c <= '9');
  return letter;
}

void UpdateOne(Xapian::WritableDatabase& db) {
  std::map<std::string, Xapian::termcount> wanted;
  for (const char* prefix : {index::kPrefixName, index::kPrefixContent}) {
    const std::string p(prefix);
    for (auto t = db.allterms_begin(p); t != db.allterms_end(p); ++t) {
      const std::string word = (*t).substr(p.size());
      if (!Suggestable(word)) continue;
      wanted[word] += t.get_termfreq();
    }
  }
  std::map<std::string, Xapian::termcount> current;
  for (auto s = db.spellings_begin(); s != db.spellings_end(); ++s) {
    current[*s] = s.get_termfreq();
  }
  for (const auto& c : current) {
    auto w = wanted.find(c.first);
    const Xapian::termcount want = w == wanted.end() ? 0 : w->second;
    if (want < c.second) db.remove_spelling(c.first, c.second - want);
  }
  for (const auto& w : wanted) {
    auto c = current.find(w.first);
    const Xapian::termcount have = c == current.end() ? 0 : c->second;
    if (w.second > have) db.add_spelling(w.first, w.second - have);
  }
  db.commit();
}

}  // namespace

int UpdateTermSuggestions(const std::vector<std::string>& db_paths) {
  int failed = 0;
  for (const auto& path : db_paths) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
      try {
        Xapian::WritableDatabase db(path, Xapian::DB_OPEN);
        UpdateOne(db);
        break;
      } catch (const Xapian::DatabaseLockError& e) {
        if (std::chrono::steady_clock::now() < deadline) {
          std::this_thread::sleep_for(std::chrono::milliseconds(200));
          continue;
        }
        syslog(LOG_WARNING, "term suggestions of %s: %s", path.c_str(),
               e.get_description().c_str());
        ++failed;
        break;
      } catch (const Xapian::Error& e) {
        syslog(LOG_WARNING, "term suggestions of %s: %s", path.c_str(),
               e.get_description().c_str());
        ++failed;
        break;
      }
    }
  }
  return failed;
}

int TermSuggestMain(const std::vector<std::string>& db_paths, const std::string& pid_file) {
  const std::string dir = pid_file.substr(0, pid_file.rfind('/'));
  mkdir(dir.c_str(), 0755);
  const std::string tmp = pid_file + ".new";
  const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
  bool wrote = false;
  if (fd >= 0) {
    const std::string text = std::to_string(getpid()) + "\n";
    wrote = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    wrote = wrote && rename(tmp.c_str(), pid_file.c_str()) == 0;
  }
  if (!wrote) syslog(LOG_WARNING, "cannot write %s: %s", pid_file.c_str(), strerror(errno));
  const int failed = UpdateTermSuggestions(db_paths);
  if (wrote) unlink(pid_file.c_str());
  return failed ? 1 : 0;
}

pid_t SpawnTermSuggest(const std::string& program, const std::string& pid_file,
                       const std::vector<std::string>& db_paths) {
  std::vector<std::string> args{program, "--update-suggestions", "--pid-file=" + pid_file};
  args.insert(args.end(), db_paths.begin(), db_paths.end());
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  // The indexer blocks its stop signals for its signal thread; the updater
  // must stop on them like any process.
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none;
  sigemptyset(&none);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, program.c_str(), nullptr, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    syslog(LOG_WARNING, "cannot start the term-suggestion updater %s: %s", program.c_str(),
           strerror(rc));
    return -1;
  }
  return pid;
}

}  // namespace indexer
}  // namespace kestondri
