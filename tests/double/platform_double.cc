#include "double/platform_double.h"

#include <dlfcn.h>

#include <cerrno>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>

#include "kest/klib.h"

namespace kesttest {
namespace {

struct Fault {
  int error_code = 0;
  int times = 0;
};

struct State {
  std::mutex mutex;
  std::map<std::string, int> calls;
  std::map<std::string, Fault> faults;
  bool forced = false;
  int forced_error = 0;
};

State& GetState() {
  static State* state = new State();
  return *state;
}

// Counts the call; true when it must fail (the forced error is then set).
bool Enter(const char* function) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.calls[function];
  auto it = s.faults.find(function);
  if (it != s.faults.end() && it->second.times > 0) {
    --it->second.times;
    s.forced = true;
    s.forced_error = it->second.error_code;
    // The real library's own record too; the reference also keeps the real
    // library linked when every other function of it is wrapped here.
    KLIBCErrSet(it->second.error_code);
    return true;
  }
  s.forced = false;
  return false;
}

template <typename Fn>
Fn Real(const char* symbol) {
  void* fn = dlsym(RTLD_NEXT, symbol);
  if (!fn) {
    fprintf(stderr, "platform double: no real %s\n", symbol);
    abort();
  }
  return reinterpret_cast<Fn>(fn);
}

}  // namespace

void PlatformDouble::FailNext(const std::string& function, int error_code, int times) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.faults[function] = Fault{error_code, times};
}

int PlatformDouble::Calls(const std::string& function) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.calls.find(function);
  return it == s.calls.end() ? 0 : it->second;
}

int PlatformDouble::TotalCalls() {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  int total = 0;
  for (const auto& entry : s.calls) total += entry.second;
  return total;
}

void PlatformDouble::Reset() {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.clear();
  s.faults.clear();
  s.forced = false;
}

}  // namespace kesttest

using kesttest::Enter;
using kesttest::Real;

extern "C" int KLIBCErrGet(void) {
  auto& s = kesttest::GetState();
  {
    std::lock_guard<std::mutex> lock(s.mutex);
    ++s.calls["KLIBCErrGet"];
    if (s.forced) return s.forced_error;
  }
  static auto real = Real<int (*)(void)>("KLIBCErrGet");
  return real();
}

extern "C" int KESTUserGet(const char* name, PKESTUSER* user) {
  if (Enter("KESTUserGet")) {
    if (user) *user = nullptr;
    return -1;
  }
  static auto real = Real<int (*)(const char*, PKESTUSER*)>("KESTUserGet");
  return real(name, user);
}

extern "C" int KESTUserGetByUID(uid_t uid, PKESTUSER* user) {
  if (Enter("KESTUserGetByUID")) {
    if (user) *user = nullptr;
    return -1;
  }
  static auto real = Real<int (*)(uid_t, PKESTUSER*)>("KESTUserGetByUID");
  return real(uid, user);
}

extern "C" void KESTUserFree(PKESTUSER user) {
  Enter("KESTUserFree");
  static auto real = Real<void (*)(PKESTUSER)>("KESTUserFree");
  real(user);
}

extern "C" int KLIBGroupIsAdminGroupMem(const char* name, int flags) {
  if (Enter("KLIBGroupIsAdminGroupMem")) return -1;
  static auto real = Real<int (*)(const char*, int)>("KLIBGroupIsAdminGroupMem");
  return real(name, flags);
}

extern "C" PKLIBCSZLIST KLIBGroupInfoListGet(const char* name, BOOL with_primary) {
  if (Enter("KLIBGroupInfoListGet")) return nullptr;
  static auto real = Real<PKLIBCSZLIST (*)(const char*, BOOL)>("KLIBGroupInfoListGet");
  return real(name, with_primary);
}

extern "C" pid_t KLIBCProcForkEx(int flags) {
  if (Enter("KLIBCProcForkEx")) {
    errno = EAGAIN;
    return -1;
  }
  static auto real = Real<pid_t (*)(int)>("KLIBCProcForkEx");
  return real(flags);
}

bool ResetCredentialsByName(const std::string& user_name, bool with_groups) {
  if (Enter("ResetCredentialsByName")) return false;
  static auto real = Real<bool (*)(const std::string&, bool)>(
      "_Z22ResetCredentialsByNameRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb");
  return real(user_name, with_groups);
}

// Shares, paths and permissions.
extern "C" int KESTShareGet(const char* name, PKESTSHARE* share) {
  if (Enter("KESTShareGet")) {
    if (share) *share = nullptr;
    return -1;
  }
  static auto real = Real<int (*)(const char*, PKESTSHARE*)>("KESTShareGet");
  return real(name, share);
}

extern "C" PKLIBCSZLIST KLIBCSzListAlloc(int capacity) {
  if (Enter("KLIBCSzListAlloc")) return nullptr;
  static auto real = Real<PKLIBCSZLIST (*)(int)>("KLIBCSzListAlloc");
  return real(capacity);
}

extern "C" int KLIBShareEnum(PKLIBCSZLIST* list, const KLIBSHAREENUM* desc) {
  if (Enter("KLIBShareEnum")) return -1;
  static auto real = Real<int (*)(PKLIBCSZLIST*, const KLIBSHAREENUM*)>("KLIBShareEnum");
  return real(list, desc);
}

#define KEST_DOUBLE_SHARE_FLAG(fn)                                 \
  extern "C" int fn(const KESTSHARE* share, int* value) {          \
    if (Enter(#fn)) return -1;                                     \
    static auto real = Real<int (*)(const KESTSHARE*, int*)>(#fn); \
    return real(share, value);                                     \
  }
KEST_DOUBLE_SHARE_FLAG(KLIBShareHideUnreadableGet)
KEST_DOUBLE_SHARE_FLAG(KLIBShareIsEncryptedGet)
KEST_DOUBLE_SHARE_FLAG(KLIBShareIsReadOnlyGet)
KEST_DOUBLE_SHARE_FLAG(KLIBShareIsEncryptionGet)
KEST_DOUBLE_SHARE_FLAG(KLIBShareRecycleStatusGet)
#undef KEST_DOUBLE_SHARE_FLAG

extern "C" int KESTShareUserPrivCalc(const char* user, const KESTSHARE* share) {
  Enter("KESTShareUserPrivCalc");
  static auto real = Real<int (*)(const char*, const KESTSHARE*)>("KESTShareUserPrivCalc");
  return real(user, share);
}

extern "C" int KESTQuotaIsEnough(uid_t uid, const char* path, uint64_t needed) {
  if (Enter("KESTQuotaIsEnough")) return 0;
  static auto real = Real<int (*)(uid_t, const char*, uint64_t)>("KESTQuotaIsEnough");
  return real(uid, path, needed);
}

#define KEST_DOUBLE_COMPOSE(fn)                                        \
  extern "C" int fn(const char* in, char* out, size_t size) {          \
    if (Enter(#fn)) return -1;                                         \
    static auto real = Real<int (*)(const char*, char*, size_t)>(#fn); \
    return real(in, out, size);                                        \
  }
KEST_DOUBLE_COMPOSE(FILEIDXQueuePathCompose)
KEST_DOUBLE_COMPOSE(FILEIDXDBPathCompose)
KEST_DOUBLE_COMPOSE(FILEIDXGetIndexID)
KEST_DOUBLE_COMPOSE(KESTServiceHomePathGet)
#undef KEST_DOUBLE_COMPOSE

extern "C" int KESTACLPermCalc(const char* user, PKLIBCSZLIST groups, const char* path, int* perm) {
  if (Enter("KESTACLPermCalc")) return -1;
  static auto real = Real<int (*)(const char*, PKLIBCSZLIST, const char*, int*)>("KESTACLPermCalc");
  return real(user, groups, path, perm);
}

extern "C" int KESTShareNamePathGet(const char* path, char* name, size_t name_size,
                                    char* share_path, size_t path_size) {
  if (Enter("KESTShareNamePathGet")) return -1;
  static auto real =
      Real<int (*)(const char*, char*, size_t, char*, size_t)>("KESTShareNamePathGet");
  return real(path, name, name_size, share_path, path_size);
}
