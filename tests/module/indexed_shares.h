// Makes exactly the given shares indexed, through the real indexing library
// (one folder each: the share's own folder). Runs as root.
#ifndef KEST_TESTS_MODULE_INDEXED_SHARES_H_
#define KEST_TESTS_MODULE_INDEXED_SHARES_H_

#include <json/json.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "kestondri/fileindex.h"

namespace kesttest {

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
