#include "common/permission.h"

#include "common/error.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/sdk/credentials.h"
#include "common/util.h"

namespace kestondri {
namespace {

constexpr char kSource[] = "permission.cc";
constexpr char kHomes[] = "homes";
constexpr int kPrivNoAccess = 4;
constexpr uint32_t kFTPNoList = 0x1;
constexpr uint32_t kFTPNoRead = 0x4;

}  // namespace

FilePermission::FilePermission(uint32_t uid) : group_info_list_(nullptr) {
  user_.uid_ = uid;
  {
    LockMutex lock(sdk::SDKMutex());
    PKESTUSER record = nullptr;
    if (0 > KESTUserGetByUID(uid, &record) || !record) throw Error(kErrUser);
    user_.name_ = record->szName;
    user_.gid_ = record->nGID;
    user_.flags_ = record->fFlags;
    user_.home_enabled_ = KESTServiceUserHomeIsEnabled(record->fFlags) != 0;
    KESTUserFree(record);
  }
  if (nullptr == (group_info_list_ = KLIBGroupInfoListGet(user_.GetName().c_str(), TRUE))) {
    ThrowFailed(
        {kSource, 29, "FilePermission"},
        "nullptr == (group_info_list_ = KLIBGroupInfoListGet(user_.GetName().c_str(), TRUE))",
        Error(kErrPlatform, "KLIBGroupInfoListGet failed, user: " + user_.GetName()));
  }
}

FilePermission::~FilePermission() {
  if (group_info_list_) KLIBCSzListFree(group_info_list_);
}

std::string FilePermission::ExtractShareName(const std::string& path) {
  const size_t slash_pos1 = path.find('/', 1);
  if (std::string::npos == slash_pos1) {
    ThrowFailed({kSource, 16, "ExtractShareName"}, "string::npos == slash_pos1",
                Error(kErrPlatform, "Malformed path: " + path));
  }
  const size_t slash_pos2 = path.find('/', slash_pos1 + 1);
  return path.substr(slash_pos1 + 1, slash_pos2 == std::string::npos ? std::string::npos
                                                                     : slash_pos2 - slash_pos1 - 1);
}

std::shared_ptr<sdk::SDKShare> FilePermission::GetShare(const std::string& share_name) {
  auto it = share_cache_.find(share_name);
  if (it != share_cache_.end()) return it->second;
  auto share = std::make_shared<sdk::SDKShare>(share_name);
  share_cache_[share_name] = share;
  return share;
}

int FilePermission::GetPathACL(const std::string& full_path) {
  auto it = acl_cache_.find(full_path);
  if (it != acl_cache_.end()) return it->second;
  int perm = 0;
  if (-1 == KESTACLPermCalc(user_.GetName().c_str(), group_info_list_, full_path.c_str(), &perm)) {
    ThrowFailed({kSource, 117, "GetPathACL"},
                "-1 == KESTACLPermCalc(user_.GetName().c_str(), group_info_list_, "
                "full_path.c_str(), &perm)",
                Error(kErrPlatform,
                      "KESTACLPermCalc failed, user: " + user_.GetName() + ", path: " + full_path));
  }
  acl_cache_[full_path] = perm;
  return perm;
}

bool FilePermission::HomeTest(sdk::SDKShare& share, const std::string& path) {
  if (user_.home_enabled_ && user_.home_real_path_.empty()) {
    user_.home_real_path_ = RealPath(user_.GetHomePath());
  }
  // Without the home service the prefix is "/" and every absolute path
  // passes; the field relies on it.
  if (StringStartWith(path + "/", user_.home_real_path_ + "/")) return true;
  return share.GetPrivilege(user_.GetName()) != kPrivNoAccess;
}

bool FilePermission::CheckList(const std::string& path) {
  auto share = GetShare(ExtractShareName(path));
  if (share->GetFTPPrivilege() & kFTPNoList) return false;
  const int perm = GetPathACL(Dirname(path));
  if ((perm & 5) != 5) return false;
  if (share->IsHideUnReadable() && !(GetPathACL(path) & 4)) return false;
  if (ExtractShareName(path) != kHomes) return true;
  return HomeTest(*share, path);
}

bool FilePermission::CheckRead(const std::string& path) {
  const std::string share_name = ExtractShareName(path);
  auto share = GetShare(share_name);
  // In "homes" the share privilege is consulted only after the home test.
  if (share_name != kHomes) {
    if (share->GetFTPPrivilege() & kFTPNoRead) return false;
    if (share->GetPrivilege(user_.GetName()) == kPrivNoAccess) return false;
  }
  if (!(GetPathACL(path) & 4)) return false;
  if (share_name != kHomes) return true;
  return HomeTest(*share, path);
}

}  // namespace kestondri
