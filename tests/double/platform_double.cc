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

struct State {
  std::mutex mutex;
  std::map<std::string, int> calls;
  std::map<std::string, std::pair<int, int>> faults;  // error code, times left
};

State& GetState() {
  static State* state = new State();
  return *state;
}

// Counts the call; true when it must fail, with the platform's error code
// set as the real function sets it.
bool Enter(const char* function) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  ++s.calls[function];
  auto it = s.faults.find(function);
  if (it == s.faults.end() || it->second.second == 0) return false;
  --it->second.second;
  KLIBCErrSet(it->second.first);
  return true;
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
  s.faults[function] = {error_code, times};
}

int PlatformDouble::Calls(const std::string& function) {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.calls.find(function);
  return it == s.calls.end() ? 0 : it->second;
}

void PlatformDouble::Reset() {
  State& s = GetState();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.calls.clear();
  s.faults.clear();
}

}  // namespace kesttest

// One wrapper: armed, it answers `failure` as the real function fails (no
// record, no process); otherwise the call goes to the real function.
#define KEST_DOUBLE(ret, fn, params, args, failure)        \
  extern "C" ret fn params {                               \
    if (kesttest::Enter(#fn)) return failure;              \
    static auto real = kesttest::Real<ret(*) params>(#fn); \
    return real args;                                      \
  }
#define KEST_DOUBLE_PATH(fn) \
  KEST_DOUBLE(int, fn, (const char* in, char* out, size_t size), (in, out, size), -1)
#define KEST_DOUBLE_FLAG(fn) \
  KEST_DOUBLE(int, fn, (const KESTSHARE* share, int* value), (share, value), -1)
KEST_DOUBLE(int, KESTUserGet, (const char* name, PKESTUSER* user), (name, user),
            (*user = nullptr, -1))
KEST_DOUBLE(int, KESTUserGetByUID, (uid_t uid, PKESTUSER* user), (uid, user), (*user = nullptr, -1))
KEST_DOUBLE(PKLIBCSZLIST, KLIBGroupInfoListGet, (const char* name, BOOL with_primary),
            (name, with_primary), nullptr)
KEST_DOUBLE(pid_t, KLIBCProcForkEx, (int flags), (flags), (errno = EAGAIN, -1))
KEST_DOUBLE(PKLIBCSZLIST, KLIBCSzListAlloc, (int capacity), (capacity), nullptr)
KEST_DOUBLE(int, KLIBShareEnum, (PKLIBCSZLIST * list, const KLIBSHAREENUM* desc), (list, desc), -1)
KEST_DOUBLE_FLAG(KLIBShareHideUnreadableGet)
KEST_DOUBLE_FLAG(KLIBShareIsEncryptedGet)
KEST_DOUBLE_FLAG(KLIBShareIsReadOnlyGet)
KEST_DOUBLE_FLAG(KLIBShareIsEncryptionGet)
KEST_DOUBLE_FLAG(KLIBShareRecycleStatusGet)
KEST_DOUBLE(int, KESTQuotaIsEnough, (uid_t uid, const char* path, uint64_t needed),
            (uid, path, needed), 0)
KEST_DOUBLE_PATH(FILEIDXQueuePathCompose)
KEST_DOUBLE_PATH(FILEIDXDBPathCompose)
KEST_DOUBLE_PATH(FILEIDXGetIndexID)
#undef KEST_DOUBLE_FLAG
#undef KEST_DOUBLE_PATH
#undef KEST_DOUBLE

bool ResetCredentialsByName(const std::string& user_name, bool with_groups) {
  if (kesttest::Enter("ResetCredentialsByName")) return false;
  static auto real = kesttest::Real<bool (*)(const std::string&, bool)>(
      "_Z22ResetCredentialsByNameRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEb");
  return real(user_name, with_groups);
}
