// Holds a Mutex locked for the life of a scope:
//
//   LockMutex lock(sdk::SDKMutex());
//   ... platform call ...
#ifndef KESTONDRI_COMMON_LOCK_MUTEX_H_
#define KESTONDRI_COMMON_LOCK_MUTEX_H_

#include "common/mutex.h"

namespace kestondri {

class LockMutex {
 public:
  // A failed lock is logged and the scope runs anyway.
  explicit LockMutex(Mutex& mutex);
  ~LockMutex();
  LockMutex(const LockMutex&) = delete;
  LockMutex& operator=(const LockMutex&) = delete;

 private:
  Mutex& mutex_;
};

}  // namespace kestondri

#endif  // KESTONDRI_COMMON_LOCK_MUTEX_H_
