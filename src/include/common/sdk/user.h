// One user as the module knows it: login name, ids, and the home folder,
// fetched from the platform on first use. Filled by whoever looks the user up
// (FilePermission for a uid, ChownKestOndri for the service user); the
// fields are plain data of one thread.
#ifndef KESTONDRI_COMMON_SDK_USER_H_
#define KESTONDRI_COMMON_SDK_USER_H_

#include <sys/types.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "common/error.h"
#include "common/log.h"
#include "kest/klib.h"

namespace kestondri {
namespace sdk {

class User {
 public:
  User() = default;
  ~User() = default;

  std::string GetName() const { return name_; }

  // The home folder path as the platform reports it (/volume1/homes/ann);
  // empty for a user without the home service. Asked of the platform once.
  // Throws Error 502 when the platform cannot tell.
  std::string GetHomePath() {
    if (!home_enabled_ || !home_path_.empty()) return home_path_;
    char path[4096];
    memset(path, 0, sizeof(path));
    if (0 > KESTServiceHomePathGet(name_.c_str(), path, sizeof(path))) {
      ThrowFailed({"../../..//src/include/common/sdk/user.h", 47, "GetHomePath"},
                  "0 > KESTServiceHomePathGet(name_.c_str(), path, sizeof(path))",
                  Error(kErrPlatform, "KESTServiceHomePathGet failed, user=" + name_));
    }
    home_path_ = path;
    return home_path_;
  }

  std::string name_;
  std::string home_path_;
  // Canonical form of the home path; filled and used by FilePermission only.
  std::string home_real_path_;
  std::string reserved_;
  uint32_t uid_ = 0;
  uint32_t gid_ = 0;
  // The platform record's flags word, as the home-service query takes it.
  uint32_t flags_ = 0;
  bool home_enabled_ = false;
};

}  // namespace sdk
}  // namespace kestondri

#endif  // KESTONDRI_COMMON_SDK_USER_H_
