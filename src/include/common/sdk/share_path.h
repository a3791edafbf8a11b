// Volume paths (/volume1/photo/trip/a.jpg) as users see them: "/" + share
// name + the rest (/photo/trip/a.jpg), with the user's own home folder shown
// as /home. Stateless; thread-safe as far as the platform's share functions
// are.
#ifndef KESTONDRI_COMMON_SDK_SHARE_PATH_H_
#define KESTONDRI_COMMON_SDK_SHARE_PATH_H_

#include <string>

#include "common/sdk/user.h"

namespace kestondri {
namespace sdk {

class SharePathMgr {
 public:
  // "" (and one log line) for a path in no share. Throws only what
  // User::GetHomePath throws (Error 502).
  static std::string GetSharePath(const std::string& vol_path, User& user);
};

}  // namespace sdk
}  // namespace kestondri

#endif  // KESTONDRI_COMMON_SDK_SHARE_PATH_H_
