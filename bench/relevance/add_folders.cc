// Adds indexed folders to the folder store through the indexing library, as
// the Folder "add" method does (the store and the indexer's queues).
//   add_folders PATH...   (as root, inside run.sh's private namespace)
#include <cstdio>

#include "kestondri/fileindex.h"

int main(int argc, char** argv) {
  Json::Value folders(Json::arrayValue);
  for (int i = 1; i < argc; ++i) folders.append(Json::Value(Json::objectValue))["path"] = argv[i];
  try {
    kestondri::fileindex::FolderAdd(folders, false);
  } catch (const std::exception& e) {
    fprintf(stderr, "add_folders: %s\n", e.what());
    return 1;
  }
  return 0;
}
