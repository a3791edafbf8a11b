#include "common/sdk/share_path.h"

#include <cstring>

#include "common/log.h"
#include "kest/klib.h"

namespace kestondri {
namespace sdk {
namespace {

constexpr char kSource[] = "share_path.cc";
constexpr char kHomes[] = "homes";
constexpr char kHomesInPath[] = "/homes/";

// From the first "/homes/" to the end, or the whole path without one.
std::string FromHomes(const std::string& path) {
  const size_t pos = path.find(kHomesInPath);
  return pos == std::string::npos ? path : path.substr(pos);
}

}  // namespace

std::string SharePathMgr::GetSharePath(const std::string& vol_path, User& user) {
  std::string result;
  char share_name[4096];
  char share_path[4096];
  memset(share_name, 0, sizeof(share_name));
  memset(share_path, 0, sizeof(share_path));
  if (0 != KESTShareNamePathGet(vol_path.c_str(), share_name, sizeof(share_name), share_path,
                                sizeof(share_path))) {
    LogError({kSource, 15, "GetSharePath"}, "KESTShareNamePathGet failed, vol_path=%s",
             vol_path.c_str());
    return result;
  }
  const std::string name = share_name;
  const std::string root = share_path;

  if (name == kHomes && user.home_enabled_) {
    result = user.GetHomePath();
    const std::string home_rel = FromHomes(result);
    const std::string path_rel = FromHomes(vol_path);
    // Both sides end in "/" so that /homes/ann2 is not inside /homes/ann.
    if ((path_rel + "/").compare(0, home_rel.size() + 1, home_rel + "/") == 0) {
      return "/home" + path_rel.substr(home_rel.size());
    }
  }

  if (vol_path.size() < root.size()) {
    // The home path stays in the result here when the home case ran; the
    // field relies on it.
    LogError({kSource, 53, "GetSharePath"}, "Malformed input: %s, %s", vol_path.c_str(),
             root.c_str());
    return result;
  }
  return "/" + name + vol_path.substr(root.size());
}

}  // namespace sdk
}  // namespace kestondri
