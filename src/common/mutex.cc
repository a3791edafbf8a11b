#include "common/mutex.h"

#include "common/log.h"

namespace kestondri {

Mutex::Mutex(int type) {
  // Each step runs even when an earlier one failed, so that a failure is
  // logged once and the mutex is as usable as the system allows.
  if (0 != pthread_mutexattr_init(&attr_)) {
    LogFailed({"mutex.cc", 10, "Mutex"}, "0 != pthread_mutexattr_init(&attr_)");
  }
  if (0 != pthread_mutexattr_settype(&attr_, type)) {
    LogFailed({"mutex.cc", 11, "Mutex"}, "0 != pthread_mutexattr_settype(&attr_, type)");
  }
  if (0 != pthread_mutex_init(&mutex_, &attr_)) {
    LogFailed({"mutex.cc", 12, "Mutex"}, "0 != pthread_mutex_init(&mutex_, &attr_)");
  }
}

Mutex::~Mutex() {
  if (0 != pthread_mutex_destroy(&mutex_)) {
    LogFailed({"mutex.cc", 17, "~Mutex"}, "0 != pthread_mutex_destroy(&mutex_)");
  }
  if (0 != pthread_mutexattr_destroy(&attr_)) {
    LogFailed({"mutex.cc", 18, "~Mutex"}, "0 != pthread_mutexattr_destroy(&attr_)");
  }
}

bool Mutex::Lock() { return 0 == pthread_mutex_lock(&mutex_); }
bool Mutex::TryLock() { return 0 == pthread_mutex_trylock(&mutex_); }
bool Mutex::Unlock() { return 0 == pthread_mutex_unlock(&mutex_); }

}  // namespace kestondri
