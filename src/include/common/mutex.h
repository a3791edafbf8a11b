// A POSIX mutex of a chosen kind. Never throws: failures are logged and work
// goes on, because mutexes are used from constructors, destructors and
// clean-up paths.
#ifndef KESTONDRI_COMMON_MUTEX_H_
#define KESTONDRI_COMMON_MUTEX_H_

#include <pthread.h>

namespace kestondri {

class Mutex {
 public:
  // `type` is a POSIX mutex kind, e.g. PTHREAD_MUTEX_NORMAL (0).
  explicit Mutex(int type = PTHREAD_MUTEX_NORMAL);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // True when the pthread call returned 0; nothing is logged here.
  bool Lock();
  bool TryLock();
  bool Unlock();

 private:
  pthread_mutex_t mutex_;
  pthread_mutexattr_t attr_;
};

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_MUTEX_H_
