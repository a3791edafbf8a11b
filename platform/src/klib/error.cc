#include "kest/klib.h"

#include <string>

#include "config.h"

namespace {
thread_local int g_last_error = KLIB_ERR_NONE;
thread_local std::string g_last_error_text;
}  // namespace

extern "C" int KLIBCErrGet(void) { return g_last_error; }
extern "C" void KLIBCErrSet(int err) {
  g_last_error = err;
  g_last_error_text.clear();
}
extern "C" const char* KLIBCErrTextGet(void) { return g_last_error_text.c_str(); }

namespace kest {
namespace klib {

void SetError(int code, const std::string& text) {
  g_last_error = code;
  g_last_error_text = text;
}

}  // namespace klib
}  // namespace kest
