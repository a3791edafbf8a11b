// Serves one request of the daemon's protocol (docs/daemon-protocol.md):
// "search", "list_db_status", "highlight" and "indicate". Each request's
// reply is written through a ReplySink, message by message, so a search
// streams its hits as they are produced.
//
// A CommandHandler holds only shared, thread-safe state and may be used by
// every worker at once; each worker brings its own IndexCache.
#ifndef KESTONDRI_DAEMON_COMMAND_HANDLER_H_
#define KESTONDRI_DAEMON_COMMAND_HANDLER_H_

#include <json/json.h>
#include <sys/types.h>

#include <string>

#include "index_cache.h"
#include "index_resolver.h"

namespace kestondri {
namespace daemon {

// The connecting process's credentials (SO_PEERCRED).
struct Peer {
  pid_t pid = 0;
  uid_t uid = 0;
  gid_t gid = 0;
};

class ReplySink {
 public:
  virtual ~ReplySink() = default;
  // False when the message could not be delivered (the client went away).
  virtual bool Send(const Json::Value& message) = 0;
  // True when nobody will read the rest of the reply (the client went away,
  // or the daemon stops): long requests look between units of work and
  // give up.
  virtual bool Abandoned() { return false; }
};

// Hits a search may ask for at once; larger pages are cut to this.
constexpr int kMaxPageSize = 1000;
// Bytes of text scanned for each hit's fragments in a search (the highlight
// command scans all the stored text).
constexpr size_t kHitScanLimit = 64u << 10;
// Per hit of a search: at most this many highlight settings, each with at
// most this many fragments.
constexpr size_t kMaxHitHighlights = 3;
constexpr size_t kMaxHitFragments = 5;
// Queries one "indicate" may hold: one per file type with ample room for
// repeats. Each costs a filtered match over the indices, so a longer list
// is refused (kErrTooManyQueries) rather than answered.
constexpr unsigned kMaxIndicateQueries = 64;

class CommandHandler {
 public:
  // Both must outlive the handler.
  CommandHandler(const IndexResolver& resolver, MissingIndexLog& missing)
      : resolver_(resolver), missing_(missing) {}

  // Answers the request `text` from `peer`. Never throws: every failure
  // becomes an error reply. Non-root peers only ever see what their uid may
  // read, whatever the request says.
  void Handle(const std::string& text, const Peer& peer, IndexCache& cache, ReplySink& out) const;

 private:
  void Search(const Json::Value& data, const Peer& peer, IndexCache& cache, ReplySink& out) const;
  void ListDbStatus(IndexCache& cache, ReplySink& out) const;
  void Highlight(const Json::Value& data, const Peer& peer, IndexCache& cache,
                 ReplySink& out) const;
  void Indicate(const Json::Value& data, const Peer& peer, IndexCache& cache, ReplySink& out) const;

  const IndexResolver& resolver_;
  MissingIndexLog& missing_;
};

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_COMMAND_HANDLER_H_
