// Where the index named by an index id lives. One seam, so the daemon can be
// pointed at the shared folders of /etc/kest/shares.conf in production and at
// databases a test creates.
//
// Implementations are immutable after construction unless stated otherwise
// and safe to call from any thread.
#ifndef KESTONDRI_DAEMON_INDEX_RESOLVER_H_
#define KESTONDRI_DAEMON_INDEX_RESOLVER_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kestondri {
namespace daemon {

struct IndexLocation {
  std::string db_path;     // a Xapian database folder, or a stub file naming others
  std::string share_path;  // the shared folder the index covers
};

class IndexResolver {
 public:
  virtual ~IndexResolver() = default;
  // False when `index_id` names no index; `*out` is then untouched.
  virtual bool Resolve(const std::string& index_id, IndexLocation* out) const = 0;
  // Every index id this resolver knows of, in a stable order.
  virtual std::vector<std::string> KnownIds() const = 0;
  // The shared folder whose rules govern `index_id`; "" when none does (a
  // fixed --index table, set up by whoever starts the daemon), and then
  // only file permissions decide what a user sees.
  virtual std::string ShareName(const std::string& /*index_id*/) const { return ""; }
};

// A fixed table, e.g. from "--index id=db_path[:share_path]" options.
class StaticIndexResolver : public IndexResolver {
 public:
  void Add(const std::string& index_id, IndexLocation location);
  // Parses "id=db_path" or "id=db_path,share_path"; false when malformed.
  bool AddOption(const std::string& parts);
  bool Resolve(const std::string& index_id, IndexLocation* out) const override;
  std::vector<std::string> KnownIds() const override;

 private:
  std::map<std::string, IndexLocation> table_;
};

// The indices of the shared folders: "fileindex_" + share name, at
// "<volume>/@kestondri/index/<folder>". Reads /etc/kest/shares.conf at each
// call, so added and removed shares are seen without a restart.
std::unique_ptr<IndexResolver> MakeShareIndexResolver();

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_INDEX_RESOLVER_H_
