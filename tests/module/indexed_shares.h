// The shares the search methods are tried on, and indexing them. Run as root.
#ifndef KEST_TESTS_MODULE_INDEXED_SHARES_H_
#define KEST_TESTS_MODULE_INDEXED_SHARES_H_

#include <json/json.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kestondri/fileindex.h"
#include "support/sandbox.h"

namespace kesttest {

// docs (open to staff) holding open.txt and bob's closed.txt (0600), the
// homes with ann's and bob's folders (dave refused), and private (bob's
// share) holding p.txt.
inline void MakeSearchShares() {
  WriteSharesConf(
      "[global]\nuser home = yes\n"
      "[docs]\npath = /volume1/docs\nread list = @staff\n"
      "[homes]\npath = /volume1/homes\ninvalid users = dave\n"
      "[private]\npath = /volume1/private\nread list = bob\n");
  for (const char* dir : {"/volume1/docs", "/volume1/private", "/volume1/homes",
                          "/volume1/homes/ann", "/volume1/homes/bob"}) {
    mkdir(dir, 0755);
  }
  WriteFile("/volume1/docs/open.txt", "x", 0644);
  WriteFile("/volume1/docs/closed.txt", "x", 0600);
  (void)!chown("/volume1/docs/closed.txt", kBobUid, kBobUid);
  WriteFile("/volume1/private/p.txt", "x", 0644);
}

// Makes exactly the given shares indexed, through the real indexing library
// (one folder each: the share's own folder).

inline void IndexShares(const std::vector<std::string>& shares) {
  (void)!system("rm -f /var/packages/KestOndri/var/fileindex/folders.db*");
  Json::Value folders(Json::arrayValue);
  for (const auto& share : shares) {
    const std::string path = "/volume1/" + share;
    mkdir(path.c_str(), 0755);
    Json::Value folder;
    folder["path"] = path;
    folders.append(folder);
  }
  if (!folders.empty()) kestondri::fileindex::FolderAdd(folders, false);
}

}  // namespace kesttest

#endif  // KEST_TESTS_MODULE_INDEXED_SHARES_H_
