// The term-suggestion updater: rebuilds the spelling data of share indices
// (the words users may be offered as corrections) from the words of file
// names and contents. It runs as its own short-lived process, spawned by the
// indexer after a burst of indexing, and holds the pid file below while it
// runs so that the status method can tell.
#ifndef KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_
#define KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kestondri {
namespace indexer {

constexpr char kTermSuggestPidFile[] = "/var/packages/KestOndri/etc/updater.term.sugg.pid";

// How long one run of the updater works on a database before it stops,
// remembering where it was: the indexer does not write meanwhile.
constexpr std::chrono::seconds kTermSuggestBudget{5};
// The updater's exit status when some database needs another run.
constexpr int kTermSuggestUnfinished = 3;

// Brings the spelling data of each database up to date (waiting a while for
// the indexer's write lock), for at most `budget` per database; `unfinished`
// counts those that need another run. Returns the number that failed.
int UpdateTermSuggestions(const std::vector<std::string>& db_paths, std::chrono::seconds budget,
                          int* unfinished);

// The updater's main: writes `pid_file`, updates, removes the pid file.
// Exits 0, kTermSuggestUnfinished, or 1 when a database failed.
int TermSuggestMain(const std::vector<std::string>& db_paths, const std::string& pid_file);

// Starts `program` --update-suggestions DB... with posix_spawn; -1 on failure.
pid_t SpawnTermSuggest(const std::string& program, const std::string& pid_file,
                       const std::vector<std::string>& db_paths);

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_
