#include "common/lock_mutex.h"

#include "common/log.h"

namespace kestondri {

LockMutex::LockMutex(Mutex& mutex) : mutex_(mutex) {
  if (!mutex_.Lock()) LogFailed({"lock_mutex.cc", 10, "LockMutex"}, "!mutex_.Lock()");
}

LockMutex::~LockMutex() {
  if (!mutex_.Unlock()) LogFailed({"lock_mutex.cc", 15, "~LockMutex"}, "!mutex_.Unlock()");
}

}  // namespace kestondri
