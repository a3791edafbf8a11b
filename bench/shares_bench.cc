// Cost of the share and permission questions a search asks per hit, and of
// a folder list, on the real platform inside the test sandbox.
//   build/bench/shares_bench   (as root)
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "kest/klib.h"
#include "kestondri/fileindex.h"
#include "support/sandbox.h"

namespace {

void Measure(const char* what, int rounds, const std::function<void()>& body) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < rounds; ++i) body();
  const double us =
      std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
  printf("%-48s %10.2f us/op  (%d ops)\n", what, us / rounds, rounds);
}

}  // namespace

int main() {
  kesttest::EnterSandbox();
  std::string conf = "[global]\nuser home = yes\n";
  for (int i = 0; i < 50; ++i) {
    conf += "[share" + std::to_string(i) + "]\npath = /volume1/share" + std::to_string(i) +
            "\nread list = @staff ann\ninvalid users = dave\n";
  }
  conf += "[homes]\npath = /volume1/homes\n";
  kesttest::WriteFile("/etc/kest/shares.conf", conf);
  kesttest::WriteFile("/volume1/share49/dir/file.txt", "x");

  char name[4096], path[4096];
  Measure("KESTShareNamePathGet (50 shares, last one)", 20000, [&] {
    KESTShareNamePathGet("/volume1/share49/dir/file.txt", name, sizeof(name), path, sizeof(path));
  });
  PKESTSHARE share = nullptr;
  KESTShareGet("share49", &share);
  Measure("KESTShareUserPrivCalc (@group lists)", 20000,
          [&] { KESTShareUserPrivCalc("bob", share); });
  KESTShareFree(share);
  PKLIBCSZLIST groups = KLIBGroupInfoListGet("bob", TRUE);
  int perm = 0;
  Measure("KESTACLPermCalc (mode bits)", 20000,
          [&] { KESTACLPermCalc("bob", groups, "/volume1/share49/dir/file.txt", &perm); });
  system("setfacl -m u:ann:r,g:staff:rw /volume1/share49/dir/file.txt");
  Measure("KESTACLPermCalc (extended ACL)", 20000,
          [&] { KESTACLPermCalc("bob", groups, "/volume1/share49/dir/file.txt", &perm); });
  KLIBCSzListFree(groups);

  for (int i = 0; i < 200; ++i) {
    const std::string dir = "/volume1/share" + std::to_string(i % 50) + "/f" + std::to_string(i);
    kesttest::WriteFile(dir + "/keep", "");
    Json::Value folders(Json::arrayValue);
    folders.append(Json::Value(Json::objectValue));
    folders[0]["path"] = dir;
    kestondri::fileindex::FolderAdd(folders, false);
  }
  Json::Value page;
  Measure("FolderList as root, 200 folders, all", 200, [&] {
    kestondri::fileindex::FolderList(page, 0, UINT64_MAX, "name", "asc", "all", "", Json::Value());
  });
  ResetCredentialsByName("ann", true);
  Measure("FolderList as ann, 200 folders, page of 50", 200, [&] {
    kestondri::fileindex::FolderList(page, 0, 50, "name", "asc", "all", "", Json::Value());
  });
  Measure("StatusMgr::GetPauseInfo as ann", 2000,
          [&] { kestondri::fileindex::StatusMgr().GetPauseInfo(); });
  return 0;
}
