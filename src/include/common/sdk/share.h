// One shared folder of the platform, and the list of all of them.
//
// SDKShare owns the platform's share record from construction to
// destruction and caches what it asks of the platform (a user's privilege,
// the index queue and database paths, the index id); the caches live as long
// as the object and are never invalidated. Calls into the platform's share
// and quota functions are made under SDKMutex() (except IsHideUnReadable,
// GetPrivilege and Enum, which the platform allows without it). An object
// belongs to one thread; it is not copied (callers share it through a
// shared_ptr).
//
// Failures throw kestondri::Error after one failure log line: 800 for an
// unknown share, 121 from Enum, 502 for the other platform failures.
#ifndef KESTONDRI_COMMON_SDK_SHARE_H_
#define KESTONDRI_COMMON_SDK_SHARE_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "kest/klib.h"

namespace kestondri {
namespace sdk {

class SDKShare {
 public:
  // Throws Error 800, whose reason is the bare share name, when the share
  // does not exist.
  explicit SDKShare(const std::string& share_name);
  ~SDKShare();
  SDKShare(const SDKShare&) = delete;
  SDKShare& operator=(const SDKShare&) = delete;

  // Sorted, unique names of all shares. Throws Error 121.
  static std::set<std::string> Enum();

  // False also when the platform cannot tell.
  bool IsHideUnReadable();
  // Whether the share's volume has 100 MiB free; only the platform's two
  // "not enough" codes answer false, any other failure counts as enough.
  bool IsSpaceEnough();
  // KEST_FTP_PRIV_* bits of the record.
  uint32_t GetFTPPrivilege();
  // Neither encrypted nor read-only. Throws Error 502.
  bool CanBeIndexed();
  bool IsEncryption();
  bool IsEnableRecycleBin();
  // Cached after the first success. Throw Error 502.
  std::string GetQueuePath();
  std::string GetDBPath();
  std::string GetDBName();
  // The user's KEST_SHARE_PRIV_* value (4: no access), cached per user.
  int GetPrivilege(const std::string& user_name);

 private:
  PKESTSHARE share_info_;
  std::string share_name_;
  std::map<std::string, int32_t> privilege_cache_;
  std::string queue_path_;
  std::string db_path_;
  std::string db_name_;
};

}  // namespace sdk
}  // namespace kestondri

#endif  // KESTONDRI_COMMON_SDK_SHARE_H_
