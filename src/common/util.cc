#include "common/util.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "common/constants.h"
#include "common/error.h"
#include "common/lock_mutex.h"
#include "common/log.h"
#include "common/sdk/credentials.h"
#include "common/sdk/user.h"
#include "kest/klib.h"

namespace kestondri {
namespace {

constexpr char kSource[] = "util.cc";

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};

bool MVFileImpl(const std::string& src, const std::string& dst, KESTCOPYARGS& arg) {
  return 0 == KESTFileCopy(src.c_str(), dst.c_str(), &arg);
}

}  // namespace

bool IsFileExist(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

bool IsDirExist(const std::string& path, bool follow_link) {
  struct stat st;
  if (lstat(path.c_str(), &st) != 0) return false;
  if (S_ISDIR(st.st_mode)) return true;
  if (S_ISLNK(st.st_mode) && follow_link) {
    char target[4096];
    const ssize_t n = readlink(path.c_str(), target, sizeof(target) - 1);
    if (n < 0) return false;
    target[n] = '\0';
    return IsDirExist(target, true);
  }
  return false;
}

bool IsDirentDir(const struct dirent64* entry, const std::string& full_path) {
  if (entry->d_type == DT_DIR) return true;
  if (entry->d_type != DT_UNKNOWN) return false;
  // Kept as the field knows it: an entry of unknown type is never reported
  // as a folder, whatever lstat says.
  struct stat st;
  memset(&st, 0, sizeof(st));
  if (lstat(full_path.c_str(), &st) == 0) return false;
  return false;
}

bool CheckACLPerm(const std::string& path, int mask) {
  int perm = 0;
  if (0 > KESTACLPermGet(path.c_str(), &perm)) return false;
  return (perm & mask) != 0;
}

bool IsMountPoint(const std::string& path) { return KESTFSDirIsMntPoint(path.c_str()) > 0; }

bool StringStartWith(const std::string& s, const std::string& prefix) {
  return s.find(prefix) == 0;
}

std::string Basename(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string Dirname(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(0, slash);
}

std::string GetFileExtension(const std::string& path, bool to_lower) {
  const std::string name = Basename(path);
  const size_t dot = name.rfind('.');
  if (dot == std::string::npos) return "";
  const std::string ext = name.substr(dot + 1);
  return to_lower ? ToLower(ext) : ext;
}

std::string RealPath(const std::string& path) {
  char resolved[4096];
  static_assert(sizeof(resolved) >= PATH_MAX, "realpath needs PATH_MAX bytes");
  if (!realpath(path.c_str(), resolved)) return "";
  return resolved;
}

bool Unlink(const std::string& path) { return unlink(path.c_str()) == 0 || errno == ENOENT; }

bool MVFile(const std::string& src, const std::string& dst) {
  KESTCOPYARGS arg;
  memset(&arg, 0, sizeof(arg));
  arg.blOverwrite = 1;
  arg.blRemoveSrc = 1;
  return MVFileImpl(src, dst, arg);
}

bool CPFile(const std::string& src, const std::string& dst) {
  KESTCOPYARGS arg;
  memset(&arg, 0, sizeof(arg));
  arg.blOverwrite = 1;
  return MVFileImpl(src, dst, arg);
}

bool ChownKestOndri(const std::string& path) {
  sdk::User user;
  {
    LockMutex lock(sdk::SDKMutex());
    PKESTUSER record = nullptr;
    if (0 > KESTUserGet(kServiceUser, &record) || !record) throw Error(kErrUser);
    user.name_ = record->szName;
    user.uid_ = record->nUID;
    user.gid_ = record->nGID;
    user.flags_ = record->fFlags;
    user.home_enabled_ = KESTServiceUserHomeIsEnabled(record->fFlags) != 0;
    KESTUserFree(record);
  }
  return 0 == chown(path.c_str(), user.uid_, user.gid_);
}

void ProcessDir(const std::string& full_path,
                const std::function<void(const std::string&)>& callback) {
  DIR* dir = nullptr;
  if (nullptr == (dir = opendir(full_path.c_str()))) {
    ThrowFailed({kSource, 177, "ProcessDir"}, "nullptr == (dir = opendir(full_path.c_str()))",
                Error(kErrPlatform, "Failed to open dir: " + full_path));
  }
  std::unique_ptr<DIR, DirClose> closer(dir);
  for (;;) {
    errno = 0;
    struct dirent64* entry = readdir64(dir);
    if (!entry) break;  // the end, or a read error: the walk ends quietly
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    const std::string full = full_path + "/" + entry->d_name;
    try {
      callback(full);
    } catch (const std::exception& e) {
      LogError({kSource, 187, "ProcessDir"}, "ProcessDir failed on %s, reason=%s", full.c_str(),
               e.what());
    } catch (...) {
      LogError({kSource, 189, "ProcessDir"}, "ProcessDir failed on %s", full.c_str());
    }
    if (IsDirExist(full, false)) ProcessDir(full, callback);
  }
  if (errno != 0) errno = 0;
}

namespace {
constexpr char kPathRefPrefix[] = "hex:";
constexpr char kHexDigits[] = "0123456789abcdef";
}  // namespace

std::string PathRef(const std::string& path) {
  std::string ref = kPathRefPrefix;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    ref += kHexDigits[byte >> 4];
    ref += kHexDigits[byte & 15];
  }
  return ref;
}

std::string PathFromParam(const std::string& param) {
  const std::string prefix = kPathRefPrefix;
  if (!StringStartWith(param, prefix) || (param.size() - prefix.size()) % 2 != 0) return param;
  std::string path;
  for (size_t at = prefix.size(); at < param.size(); at += 2) {
    const char* high = std::strchr(kHexDigits, std::tolower(static_cast<unsigned char>(param[at])));
    const char* low =
        std::strchr(kHexDigits, std::tolower(static_cast<unsigned char>(param[at + 1])));
    if (!high || !low || !*high || !*low) return param;
    path += static_cast<char>(((high - kHexDigits) << 4) | (low - kHexDigits));
  }
  return path;
}

}  // namespace kestondri
