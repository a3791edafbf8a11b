// The term-suggestion updater: rebuilds the spelling data of share indices
// (the words users may be offered as corrections) from the words of file
// names and contents. It runs as its own short-lived process, spawned by the
// indexer after a burst of indexing, and holds the pid file below while it
// runs so that the status method can tell.
#ifndef KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_
#define KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestondri {
namespace indexer {

constexpr char kTermSuggestPidFile[] = "/var/packages/KestOndri/etc/updater.term.sugg.pid";

// Rebuilds the spelling data of each database (waiting a while for the
// indexer's write lock). Returns the number of databases that failed.
int UpdateTermSuggestions(const std::vector<std::string>& db_paths);

// The updater's main: writes `pid_file`, updates, removes the pid file.
int TermSuggestMain(const std::vector<std::string>& db_paths, const std::string& pid_file);

// Starts `program` --update-suggestions DB... with posix_spawn; -1 on failure.
pid_t SpawnTermSuggest(const std::string& program, const std::string& pid_file,
                       const std::vector<std::string>& db_paths);

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_SERVICE_TERM_SUGGEST_H_
