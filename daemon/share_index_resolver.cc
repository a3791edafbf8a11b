#include <kest/klib.h>

#include <memory>

#include "index_resolver.h"

namespace kestondri {
namespace daemon {
namespace {

struct ShareDeleter {
  void operator()(PKESTSHARE share) const { KESTShareFree(share); }
};
struct ListDeleter {
  void operator()(PKLIBCSZLIST list) const { KLIBCSzListFree(list); }
};

constexpr const char kIndexIdPrefix[] = "fileindex_";

class ShareIndexResolver : public IndexResolver {
 public:
  bool Resolve(const std::string& index_id, IndexLocation* out) const override {
    if (index_id.compare(0, sizeof kIndexIdPrefix - 1, kIndexIdPrefix) != 0) return false;
    std::string share_name = index_id.substr(sizeof kIndexIdPrefix - 1);
    if (share_name.empty()) return false;
    PKESTSHARE raw = nullptr;
    if (KESTShareGet(share_name.c_str(), &raw) < 0 || !raw) return false;
    std::unique_ptr<KESTSHARE, ShareDeleter> share(raw);
    char db_path[4096];
    if (FILEIDXDBPathCompose(share->szPath, db_path, sizeof db_path) < 0) return false;
    out->db_path = db_path;
    out->share_path = share->szPath;
    return true;
  }

  std::string ShareName(const std::string& index_id) const override {
    if (index_id.compare(0, sizeof kIndexIdPrefix - 1, kIndexIdPrefix) != 0) return "";
    return index_id.substr(sizeof kIndexIdPrefix - 1);
  }

  std::vector<std::string> KnownIds() const override {
    std::vector<std::string> ids;
    PKLIBCSZLIST raw = KLIBCSzListAlloc(16);
    if (!raw) return ids;
    KLIBSHAREENUM all{nullptr, 0};
    int rc = KLIBShareEnum(&raw, &all);
    // The list may have moved while growing; own whatever it is now.
    std::unique_ptr<KLIBCSZLIST, ListDeleter> names(raw);
    if (rc < 0) return ids;
    for (int i = 0; i < names->nItem; ++i) {
      char id[512];
      const char* name = KLIBCSzListGet(names.get(), i);
      if (name && FILEIDXGetIndexID(name, id, sizeof id) >= 0) ids.push_back(id);
    }
    return ids;
  }
};

}  // namespace

std::unique_ptr<IndexResolver> MakeShareIndexResolver() {
  return std::make_unique<ShareIndexResolver>();
}

}  // namespace daemon
}  // namespace kestondri
