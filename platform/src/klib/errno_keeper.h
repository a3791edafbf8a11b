// Keeps the caller's errno across a library call. The user and group
// databases leave stray errno values behind even when they succeed (a missing
// configuration file, an NSS module that is not running); callers log errno
// as the cause of their next failure, so only a failed system call may change
// it: call Keep() there.
#ifndef KEST_KLIB_ERRNO_KEEPER_H_
#define KEST_KLIB_ERRNO_KEEPER_H_

#include <cerrno>

class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ~ErrnoKeeper() {
    if (!keep_) errno = saved_;
  }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  // The errno of now is the cause of a failure: leave it to the caller.
  void Keep() { keep_ = true; }

 private:
  int saved_;
  bool keep_ = false;
};

#endif  // KEST_KLIB_ERRNO_KEEPER_H_
