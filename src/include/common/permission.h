// May a user list or read a volume path? One object per request and user:
// it caches the user's groups, one SDKShare per share and the permission
// word per path for its whole life (a change during the request is not
// seen). Not thread-safe.
//
// The checks combine the share's FTP flags, the user's privilege on the
// share, the path's ACL (listing looks at the parent's read and execute
// bits, reading at the path's read bit) and the user's own home folder in
// "homes". Errors of the platform propagate as kestondri::Error; a check
// never turns an error into false.
#ifndef KESTONDRI_COMMON_PERMISSION_H_
#define KESTONDRI_COMMON_PERMISSION_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "common/sdk/share.h"
#include "common/sdk/user.h"
#include "kest/klib.h"

namespace kestondri {

class FilePermission {
 public:
  // Throws Error 801 when the user cannot be read, 502 when the user's
  // groups cannot be had.
  explicit FilePermission(uint32_t uid);
  ~FilePermission();
  FilePermission(const FilePermission&) = delete;
  FilePermission& operator=(const FilePermission&) = delete;

  // Cached per share name; SDKShare's errors pass through, nothing cached.
  std::shared_ptr<sdk::SDKShare> GetShare(const std::string& share_name);
  // The user's permission word on exactly this path, cached. Throws 502.
  int GetPathACL(const std::string& full_path);
  bool CheckList(const std::string& path);
  bool CheckRead(const std::string& path);

 private:
  // "photo" of /volume1/photo/...; the volume component is not checked.
  // Throws Error 502 for a path without a second '/'.
  std::string ExtractShareName(const std::string& path);
  bool HomeTest(sdk::SDKShare& share, const std::string& path);

  sdk::User user_;
  PKLIBCSZLIST group_info_list_;
  std::map<std::string, std::shared_ptr<sdk::SDKShare>> share_cache_;
  std::map<std::string, int32_t> acl_cache_;
};

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_PERMISSION_H_
