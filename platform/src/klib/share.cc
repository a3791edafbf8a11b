// Shared folders from /etc/kest/shares.conf: records, enumeration, a user's
// privilege, which share holds a path, free space, the user home service and
// the file-index paths of a share.
#include <stdlib.h>
#include <string.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "config.h"
#include "errno_keeper.h"
#include "kest/klib.h"

namespace {

using kest::klib::Config;
using kest::klib::ShareConfig;

std::shared_ptr<const Config> ConfigWithShares() {
  auto config = kest::klib::LoadConfig();
  if (config && !config->present) {
    kest::klib::SetError(KLIB_ERR_CONFIG, std::string(kest::klib::kSharesConf) +
                                              ": no such file (no shared folder is configured)");
    return nullptr;
  }
  return config;
}

// The share `name` of the shares configuration, which `config` keeps alive;
// nullptr, with the error set, when there is no configuration or no such share.
const ShareConfig* FindConfiguredShare(const char* name, std::shared_ptr<const Config>* config) {
  *config = ConfigWithShares();
  if (!*config) return nullptr;
  const ShareConfig* found = (*config)->FindShare(name);
  if (!found) KLIBCErrSet(KLIB_ERR_SHARE_NOT_FOUND);
  return found;
}

PKLIBCSZLIST ListOf(const std::vector<std::string>& items) {
  PKLIBCSZLIST list = KLIBCSzListAlloc(static_cast<int>(items.size()) + 1);
  if (!list) return nullptr;
  for (const auto& item : items) {
    if (KLIBCSzListPush(&list, item.c_str()) < 0) {
      KLIBCSzListFree(list);
      return nullptr;
    }
  }
  return list;
}

// Whether one of the names ("ann", "@staff") designates the user.
bool Matches(const KLIBCSZLIST* list, const std::string& user, const std::vector<gid_t>& groups) {
  for (int i = 0; list && i < list->nItem; ++i) {
    const char* item = list->ppszItem[i];
    if (item[0] == '@') {
      gid_t gid;
      // An unknown group designates nobody.
      if (kest::klib::GroupIdByName(item + 1, &gid) &&
          std::find(groups.begin(), groups.end(), gid) != groups.end()) {
        return true;
      }
    } else if (user == item) {
      return true;
    }
  }
  return false;
}

bool FlagGet(const KESTSHARE* share, int* value, int KESTSHARE::*field) {
  if (!share || !value) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return false;
  }
  *value = share->*field ? 1 : 0;
  return true;
}

int CopyOut(const std::string& text, char* out, size_t cb) {
  if (!out || cb <= text.size()) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  memcpy(out, text.c_str(), text.size() + 1);
  return 0;
}

// "/volume1/photo" into "/volume1" and "photo"; false for anything that is
// not the folder of a share.
bool SplitSharePath(const char* share_path, std::string* volume, std::string* folder) {
  if (!share_path) return false;
  const std::string path = share_path;
  const size_t slash = path.rfind('/');
  if (path.size() < 2 || path[0] != '/' || slash == 0 || slash == std::string::npos ||
      slash + 1 >= path.size()) {
    return false;
  }
  *volume = path.substr(0, slash);
  *folder = path.substr(slash + 1);
  if (volume->find('/', 1) != std::string::npos) return false;  // deeper than a volume's child
  return *folder != "." && *folder != "..";
}

constexpr char kIndexRoot[] = "@kestondri";

}  // namespace

extern "C" int KESTShareGet(const char* szShareName, PKESTSHARE* ppShare) {
  ErrnoKeeper errno_keeper;
  if (!ppShare || !szShareName || !*szShareName) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  *ppShare = nullptr;
  std::shared_ptr<const Config> config;
  const ShareConfig* found = FindConfiguredShare(szShareName, &config);
  if (!found) return -1;
  auto* share = static_cast<PKESTSHARE>(calloc(1, sizeof(KESTSHARE)));
  if (!share) {
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  share->szName = strdup(found->name.c_str());
  share->szPath = strdup(found->path.c_str());
  share->fFTPPrivilege = found->ftp_privilege;
  share->blHideUnreadable = found->hide_unreadable;
  share->blReadOnly = found->read_only;
  share->blEncrypted = found->encrypted;
  share->blRecycleBin = found->recycle_bin;
  share->pReadList = ListOf(found->read_list);
  share->pWriteList = ListOf(found->write_list);
  share->pInvalidUsers = ListOf(found->invalid_users);
  share->pValidUsers = ListOf(found->valid_users);
  share->nSambaDefaultPriv = found->samba_default_priv;
  if (!share->szName || !share->szPath || !share->pReadList || !share->pWriteList ||
      !share->pInvalidUsers || !share->pValidUsers) {
    KESTShareFree(share);
    KLIBCErrSet(KLIB_ERR_OUT_OF_MEMORY);
    return -1;
  }
  *ppShare = share;
  return 0;
}

extern "C" int KLIBShareIndexLanguageGet(const char* szShareName, char* szOut, size_t cbOut) {
  ErrnoKeeper errno_keeper;
  if (!szShareName || !szOut) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  std::shared_ptr<const Config> config;
  const ShareConfig* found = FindConfiguredShare(szShareName, &config);
  if (!found) return -1;
  return CopyOut(found->index_language.empty() ? config->index_language : found->index_language,
                 szOut, cbOut);
}

extern "C" void KESTShareFree(PKESTSHARE pShare) {
  ErrnoKeeper errno_keeper;
  if (!pShare) return;
  free(pShare->szName);
  free(pShare->szPath);
  KLIBCSzListFree(pShare->pReadList);
  KLIBCSzListFree(pShare->pWriteList);
  KLIBCSzListFree(pShare->pInvalidUsers);
  KLIBCSzListFree(pShare->pValidUsers);
  free(pShare);
}

extern "C" int KLIBShareEnum(PKLIBCSZLIST* plist, const KLIBSHAREENUM* pEnum) {
  ErrnoKeeper errno_keeper;
  if (!plist || !*plist) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  auto config = ConfigWithShares();
  if (!config) return -1;
  int count = 0;
  for (const auto& share : config->shares) {
    if (pEnum && pEnum->pfnFilter) {
      PKESTSHARE record = nullptr;
      if (KESTShareGet(share.name.c_str(), &record) < 0) return -1;
      const int skip = pEnum->pfnFilter(record);
      KESTShareFree(record);
      if (skip) continue;
    }
    if (KLIBCSzListPush(plist, share.name.c_str()) < 0) return -1;
    ++count;
  }
  return count;
}

extern "C" int KLIBShareHideUnreadableGet(const KESTSHARE* pShare, int* pValue) {
  ErrnoKeeper errno_keeper;
  return FlagGet(pShare, pValue, &KESTSHARE::blHideUnreadable) ? 0 : -1;
}
extern "C" int KLIBShareIsEncryptedGet(const KESTSHARE* pShare, int* pValue) {
  ErrnoKeeper errno_keeper;
  return FlagGet(pShare, pValue, &KESTSHARE::blEncrypted) ? 0 : -1;
}
extern "C" int KLIBShareIsReadOnlyGet(const KESTSHARE* pShare, int* pValue) {
  ErrnoKeeper errno_keeper;
  return FlagGet(pShare, pValue, &KESTSHARE::blReadOnly) ? 0 : -1;
}
extern "C" int KLIBShareIsEncryptionGet(const KESTSHARE* pShare, int* pValue) {
  ErrnoKeeper errno_keeper;
  return FlagGet(pShare, pValue, &KESTSHARE::blEncrypted) ? 0 : -1;
}
extern "C" int KLIBShareRecycleStatusGet(const KESTSHARE* pShare, int* pValue) {
  ErrnoKeeper errno_keeper;
  return FlagGet(pShare, pValue, &KESTSHARE::blRecycleBin) ? 0 : -1;
}

// In this order, the first rule that applies decides:
//   1. an unknown user, or one named in "invalid users" (by name or by one
//      of its groups): no access;
//   2. named in "write list": read-write, even on a read-only share;
//   3. named in "read list": read-only;
//   4. when neither list names anybody, everybody else: read-only on a
//      read-only share, read-write otherwise;
//   5. otherwise (the lists name others): no access.
// A share read from Samba's configuration follows Samba: after rule 1, a
// user that "valid users" (when it names anybody) leaves out has no access;
// rules 2 and 3 apply; everybody else has the share's Samba default.
extern "C" int KESTShareUserPrivCalc(const char* szUserName, const KESTSHARE* pShare) {
  ErrnoKeeper errno_keeper;
  if (!szUserName || !pShare) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return KEST_SHARE_PRIV_NA;
  }
  uid_t uid;
  std::vector<gid_t> groups;
  if (!kest::klib::UserIds(szUserName, &uid, &groups)) {
    KLIBCErrSet(KLIB_ERR_USER_NOT_FOUND);
    return KEST_SHARE_PRIV_NA;
  }
  const std::string user = szUserName;
  if (Matches(pShare->pInvalidUsers, user, groups)) return KEST_SHARE_PRIV_NA;
  if (pShare->nSambaDefaultPriv && pShare->pValidUsers && pShare->pValidUsers->nItem > 0 &&
      !Matches(pShare->pValidUsers, user, groups)) {
    return KEST_SHARE_PRIV_NA;
  }
  if (Matches(pShare->pWriteList, user, groups)) return KEST_SHARE_PRIV_RW;
  if (Matches(pShare->pReadList, user, groups)) return KEST_SHARE_PRIV_RO;
  if (pShare->nSambaDefaultPriv) return pShare->nSambaDefaultPriv;
  const bool open = (!pShare->pReadList || pShare->pReadList->nItem == 0) &&
                    (!pShare->pWriteList || pShare->pWriteList->nItem == 0);
  if (open) return pShare->blReadOnly ? KEST_SHARE_PRIV_RO : KEST_SHARE_PRIV_RW;
  return KEST_SHARE_PRIV_NA;
}

extern "C" int KESTShareNamePathGet(const char* szPath, char* szShareName, size_t cbShareName,
                                    char* szSharePath, size_t cbSharePath) {
  ErrnoKeeper errno_keeper;
  if (!szPath || !szShareName || !szSharePath) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  const std::string path = szPath;
  // "/volume1/photo/../secret" must not count as inside photo.
  if (path.empty() || path[0] != '/' || path.find("/../") != std::string::npos ||
      (path.size() >= 3 && path.compare(path.size() - 3, 3, "/..") == 0)) {
    KLIBCErrSet(KLIB_ERR_NOT_IN_SHARE);
    return -1;
  }
  auto config = ConfigWithShares();
  if (!config) return -1;
  for (const auto& share : config->shares) {
    const std::string& root = share.path;
    if (path.compare(0, root.size(), root) == 0 &&
        (path.size() == root.size() || path[root.size()] == '/')) {
      if (CopyOut(share.name, szShareName, cbShareName) < 0 ||
          CopyOut(share.path, szSharePath, cbSharePath) < 0) {
        return -1;
      }
      return 0;
    }
  }
  KLIBCErrSet(KLIB_ERR_NOT_IN_SHARE);
  return -1;
}

extern "C" int KESTQuotaIsEnough(uid_t /*uid*/, const char* szPath, uint64_t cbNeeded) {
  ErrnoKeeper errno_keeper;
  if (!szPath) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return 0;
  }
  struct statvfs fs;
  if (statvfs(szPath, &fs) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return 0;
  }
  // What an unprivileged writer may still use, not the root reserve.
  const unsigned __int128 available =
      static_cast<unsigned __int128>(fs.f_bavail) * static_cast<unsigned __int128>(fs.f_frsize);
  if (available >= cbNeeded) return 1;
  KLIBCErrSet(KLIB_ERR_NO_SPACE);
  return 0;
}

extern "C" int KESTServiceUserHomeIsEnabled(unsigned int fUserFlags) {
  ErrnoKeeper errno_keeper;
  if (fUserFlags & KEST_USER_FLAG_SYSTEM) return 0;
  auto config = kest::klib::LoadConfig();
  return config && config->HomeShare() ? 1 : 0;
}

extern "C" int KESTServiceHomePathGet(const char* szUserName, char* szPath, size_t cbPath) {
  ErrnoKeeper errno_keeper;
  if (!szUserName || !*szUserName || !szPath) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  PKESTUSER user = nullptr;
  if (KESTUserGet(szUserName, &user) < 0) return -1;
  const unsigned int flags = user->fFlags;
  const std::string name = user->szName;
  KESTUserFree(user);
  auto config = kest::klib::LoadConfig();
  if (!config) return -1;
  const ShareConfig* homes = config->HomeShare();
  if (!homes || (flags & KEST_USER_FLAG_SYSTEM)) {
    KLIBCErrSet(KLIB_ERR_SERVICE_DISABLED);
    return -1;
  }
  return CopyOut(homes->path + "/" + name, szPath, cbPath);
}

// The index data of a share lives on its volume, beside and never inside
// the share's folder: <volume>/@kestondri/index/<folder> (a Xapian database
// directory) and <volume>/@kestondri/queue/<folder>.queue.
extern "C" int FILEIDXQueuePathCompose(const char* szSharePath, char* szOut, size_t cbOut) {
  ErrnoKeeper errno_keeper;
  std::string volume, folder;
  if (!SplitSharePath(szSharePath, &volume, &folder)) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  return CopyOut(volume + "/" + kIndexRoot + "/queue/" + folder + ".queue", szOut, cbOut);
}

extern "C" int FILEIDXDBPathCompose(const char* szSharePath, char* szOut, size_t cbOut) {
  ErrnoKeeper errno_keeper;
  std::string volume, folder;
  if (!SplitSharePath(szSharePath, &volume, &folder)) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  return CopyOut(volume + "/" + kIndexRoot + "/index/" + folder, szOut, cbOut);
}

extern "C" int FILEIDXGetIndexID(const char* szShareName, char* szOut, size_t cbOut) {
  ErrnoKeeper errno_keeper;
  if (!szShareName || !*szShareName) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  return CopyOut(std::string("fileindex_") + szShareName, szOut, cbOut);
}
