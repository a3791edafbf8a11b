#include "common/sdk/share.h"

#include <cstring>
#include <memory>

#include "common/error.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/sdk/credentials.h"

namespace kestondri {
namespace sdk {
namespace {

constexpr char kSource[] = "share.cc";
constexpr uint64_t kSpaceNeeded = 104857600;  // 100 MiB
constexpr int kShareListCapacity = 1024;

struct SzListFree {
  void operator()(PKLIBCSZLIST list) const { KLIBCSzListFree(list); }
};

int IncludeEveryShare(const KESTSHARE*) { return 0; }

}  // namespace

SDKShare::SDKShare(const std::string& share_name) : share_info_(nullptr), share_name_(share_name) {
  LockMutex lock(SDKMutex());
  if (0 > KESTShareGet(share_name.c_str(), &share_info_) || !share_info_) {
    ThrowFailed({kSource, 34, "SDKShare"},
                "0 > KESTShareGet(share_name.c_str(), &share_info_) || !share_info_",
                Error(kErrShare, share_name));
  }
}

SDKShare::~SDKShare() {
  LockMutex lock(SDKMutex());
  KESTShareFree(share_info_);
}

std::set<std::string> SDKShare::Enum() {
  std::unique_ptr<KLIBCSZLIST, SzListFree> list(KLIBCSzListAlloc(kShareListCapacity));
  if (!list) {
    ThrowFailed({kSource, 54, "Enum"}, "nullptr == (share_list = KLIBCSzListAlloc(BUFSIZ))",
                Error(kErrExecute, "KLIBCSzListAlloc failed"));
  }
  KLIBSHAREENUM enum_func{IncludeEveryShare, 0};
  // The platform may reallocate the list while it grows.
  PKLIBCSZLIST share_list = list.release();
  const int ret = KLIBShareEnum(&share_list, &enum_func);
  list.reset(share_list);
  if (0 > ret) {
    ThrowFailed({kSource, 56, "Enum"}, "0 > KLIBShareEnum(&share_list, &enum_func)",
                Error(kErrExecute, "KLIBShareEnum failed"));
  }
  std::set<std::string> names;
  for (int i = 0; i < list->nItem; ++i) {
    const char* name = KLIBCSzListGet(list.get(), i);
    if (name) names.insert(name);
  }
  return names;
}

bool SDKShare::IsHideUnReadable() {
  int value = 0;
  if (0 > KLIBShareHideUnreadableGet(share_info_, &value)) return false;
  return value == 1;
}

bool SDKShare::IsSpaceEnough() {
  LockMutex lock(SDKMutex());
  if (KESTQuotaIsEnough(0, share_info_->szPath, kSpaceNeeded)) return true;
  // Only these two codes mean "not enough"; any other failure of the quota
  // query must not stop indexing.
  const int err = KLIBCErrGet();
  return !(err == 0x2900 || err == 0x2400);
}

uint32_t SDKShare::GetFTPPrivilege() { return share_info_->fFTPPrivilege; }

bool SDKShare::CanBeIndexed() {
  LockMutex lock(SDKMutex());
  int is_encrypted = 0;
  int is_readonly = 0;
  if (0 > KLIBShareIsEncryptedGet(share_info_, &is_encrypted)) {
    ThrowFailed({kSource, 73, "CanBeIndexed"},
                "0 > KLIBShareIsEncryptedGet(share_info_, &is_encrypted)",
                Error(kErrPlatform, "KLIBShareis_encryptedGet failed, share=" + share_name_));
  }
  if (0 > KLIBShareIsReadOnlyGet(share_info_, &is_readonly)) {
    ThrowFailed({kSource, 75, "CanBeIndexed"},
                "0 > KLIBShareIsReadOnlyGet(share_info_, &is_readonly)",
                Error(kErrPlatform, "KLIBShareis_readonlyGet failed, share=" + share_name_));
  }
  return is_encrypted == 0 && is_readonly == 0;
}

bool SDKShare::IsEncryption() {
  LockMutex lock(SDKMutex());
  int is_encryption = 0;
  if (0 > KLIBShareIsEncryptionGet(share_info_, &is_encryption)) {
    ThrowFailed({kSource, 87, "IsEncryption"},
                "0 > KLIBShareIsEncryptionGet(share_info_, &is_encryption)",
                Error(kErrPlatform, "KLIBShareIsEncryptionGet failed, share=" + share_name_));
  }
  return is_encryption == 1;
}

bool SDKShare::IsEnableRecycleBin() {
  LockMutex lock(SDKMutex());
  int is_enabled = 0;
  if (0 > KLIBShareRecycleStatusGet(share_info_, &is_enabled)) {
    ThrowFailed({kSource, 99, "IsEnableRecycleBin"},
                "0 > KLIBShareRecycleStatusGet(share_info_, &is_enabled)",
                Error(kErrPlatform, "KLIBShareRecycleStatusGet failed, share=" + share_name_));
  }
  return is_enabled == 1;
}

std::string SDKShare::GetQueuePath() {
  if (!queue_path_.empty()) return queue_path_;
  LockMutex lock(SDKMutex());
  char path[4096];
  memset(path, 0, sizeof(path));
  if (0 > FILEIDXQueuePathCompose(share_info_->szPath, path, sizeof(path))) {
    ThrowFailed({kSource, 156, "GetQueuePath"},
                "0 > FILEIDXQueuePathCompose(share_info_->szPath, path, sizeof(path))",
                Error(kErrPlatform, "FILEIDXQueuePathCompose failed, share=" + share_name_));
  }
  queue_path_ = path;
  return queue_path_;
}

std::string SDKShare::GetDBPath() {
  if (!db_path_.empty()) return db_path_;
  LockMutex lock(SDKMutex());
  char path[4096];
  memset(path, 0, sizeof(path));
  if (0 > FILEIDXDBPathCompose(share_info_->szPath, path, sizeof(path))) {
    ThrowFailed({kSource, 170, "GetDBPath"},
                "0 > FILEIDXDBPathCompose(share_info_->szPath, path, sizeof(path))",
                Error(kErrPlatform, "FILEIDXDBPathCompose failed, share=" + share_name_));
  }
  db_path_ = path;
  return db_path_;
}

std::string SDKShare::GetDBName() {
  if (!db_name_.empty()) return db_name_;
  LockMutex lock(SDKMutex());
  char name[1024];
  memset(name, 0, sizeof(name));
  if (0 > FILEIDXGetIndexID(share_info_->szName, name, sizeof(name))) {
    ThrowFailed({kSource, 184, "GetDBName"},
                "0 > FILEIDXGetIndexID(share_info_->szName, name, sizeof(name))",
                Error(kErrPlatform, "FILEIDXGetIndexID failed, share=" + share_name_));
  }
  db_name_ = name;
  return db_name_;
}

int SDKShare::GetPrivilege(const std::string& user_name) {
  auto it = privilege_cache_.find(user_name);
  if (it != privilege_cache_.end()) return it->second;
  const int privilege = KESTShareUserPrivCalc(user_name.c_str(), share_info_);
  privilege_cache_[user_name] = privilege;
  return privilege;
}

}  // namespace sdk
}  // namespace kestondri
