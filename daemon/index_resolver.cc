#include "index_resolver.h"

namespace kestondri {
namespace daemon {

void StaticIndexResolver::Add(const std::string& index_id, IndexLocation location) {
  table_[index_id] = std::move(location);
}

bool StaticIndexResolver::AddOption(const std::string& parts) {
  auto eq = parts.find('=');
  if (eq == std::string::npos || eq == 0 || eq + 1 == parts.size()) return false;
  IndexLocation loc;
  std::string rest = parts.substr(eq + 1);
  auto comma = rest.find(',');
  loc.db_path = rest.substr(0, comma);
  if (comma != std::string::npos) loc.share_path = rest.substr(comma + 1);
  if (loc.db_path.empty()) return false;
  Add(parts.substr(0, eq), std::move(loc));
  return true;
}

bool StaticIndexResolver::Resolve(const std::string& index_id, IndexLocation* out) const {
  auto it = table_.find(index_id);
  if (it == table_.end()) return false;
  *out = it->second;
  return true;
}

std::vector<std::string> StaticIndexResolver::KnownIds() const {
  std::vector<std::string> ids;
  for (const auto& entry : table_) ids.push_back(entry.first);
  return ids;
}

}  // namespace daemon
}  // namespace kestondri
