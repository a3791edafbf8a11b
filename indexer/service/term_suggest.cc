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

// Words worth suggesting: words of letters (any script), 3 to 30 bytes,
// found in at least two documents. Identifiers with digits or underscores,
// and words of one file, would make the spelling data of a source tree
// several times larger (and its updates as much slower) for corrections
// nobody asks for.
bool Suggestable(const std::string& word, Xapian::termcount documents) {
  if (documents < 2 || word.size() < 3 || word.size() > 30) return false;
  for (unsigned char c : word) {
    if (c < 0x80 && !((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return false;
  }
  return true;
}

// Where an interrupted update goes on: the first word not yet brought up to
// date.
constexpr char kResumeKey[] = "kestondri:spelling-next";
// Spelling changes are held in memory until a commit.
constexpr unsigned kChangesPerCommit = 20000;

// One sorted stream of words: the terms of one free-text prefix, without it.
class PrefixWords {
 public:
  PrefixWords(Xapian::Database& db, const std::string& prefix, const std::string& from)
      : prefix_(prefix), it_(db.allterms_begin(prefix)), end_(db.allterms_end(prefix)) {
    if (!from.empty()) it_.skip_to(prefix + from);
  }
  bool done() const { return it_ == end_; }
  std::string word() const { return (*it_).substr(prefix_.size()); }
  Xapian::doccount freq() const { return it_.get_termfreq(); }
  void next() { ++it_; }

 private:
  std::string prefix_;
  Xapian::TermIterator it_, end_;
};

// Brings the spelling data in line with the words of names and contents by
// one merge of three sorted streams (names, contents, current spellings), in
// constant memory. Stops after `budget`, remembering where, so that the
// indexer is never held up for long; true when the whole vocabulary is done.
bool UpdateOne(Xapian::WritableDatabase& db, std::chrono::steady_clock::duration budget) {
  const auto deadline = std::chrono::steady_clock::now() + budget;
  const std::string from = db.get_metadata(kResumeKey);
  PrefixWords names(db, index::kPrefixName, from), contents(db, index::kPrefixContent, from);
  Xapian::TermIterator spell = db.spellings_begin(), spell_end = db.spellings_end();
  if (!from.empty()) {
    try {
      spell.skip_to(from);
    } catch (const Xapian::UnimplementedError&) {
      while (spell != spell_end && *spell < from) ++spell;
    }
  }

  unsigned changes = 0, seen = 0;
  for (;;) {
    std::string word;
    bool any = false;
    auto consider = [&](const std::string& w) {
      if (!any || w < word) word = w;
      any = true;
    };
    if (!names.done()) consider(names.word());
    if (!contents.done()) consider(contents.word());
    if (spell != spell_end) consider(*spell);
    if (!any) break;
    if (++seen % 1000 == 0 && std::chrono::steady_clock::now() >= deadline) {
      db.set_metadata(kResumeKey, word);
      db.commit();
      return false;
    }
    Xapian::termcount want = 0, have = 0;
    if (!names.done() && names.word() == word) {
      want += names.freq();
      names.next();
    }
    if (!contents.done() && contents.word() == word) {
      want += contents.freq();
      contents.next();
    }
    if (spell != spell_end && *spell == word) {
      have = spell.get_termfreq();
      ++spell;
    }
    if (!Suggestable(word, want)) want = 0;
    if (want == have) continue;
    if (want > have) {
      db.add_spelling(word, want - have);
    } else {
      db.remove_spelling(word, have - want);
    }
    if (++changes % kChangesPerCommit == 0) {
      // The spelling iterator reads the committed table: a commit here
      // leaves it as it was, since it only moves forward past `word`.
      db.commit();
    }
  }
  db.set_metadata(kResumeKey, "");
  db.commit();
  return true;
}

}  // namespace

int UpdateTermSuggestions(const std::vector<std::string>& db_paths, std::chrono::seconds budget,
                          int* unfinished) {
  int failed = 0;
  *unfinished = 0;
  for (const auto& path : db_paths) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    for (;;) {
      try {
        Xapian::WritableDatabase db(path, Xapian::DB_OPEN);
        if (!UpdateOne(db, budget)) ++*unfinished;
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
  int unfinished = 0;
  const int failed = UpdateTermSuggestions(db_paths, kTermSuggestBudget, &unfinished);
  if (wrote) unlink(pid_file.c_str());
  if (failed) return 1;
  return unfinished ? kTermSuggestUnfinished : 0;
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
