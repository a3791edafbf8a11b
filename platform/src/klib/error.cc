#include "kest/klib.h"

namespace {
thread_local int g_last_error = KLIB_ERR_NONE;
}  // namespace

extern "C" int KLIBCErrGet(void) { return g_last_error; }
extern "C" void KLIBCErrSet(int err) { g_last_error = err; }
