// File system helpers: mount points and copying or moving a file.
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "errno_keeper.h"
#include "kest/klib.h"

#ifndef STATX_ATTR_MOUNT_ROOT
#define STATX_ATTR_MOUNT_ROOT 0x00002000
#endif

extern "C" int KESTFSDirIsMntPoint(const char* szPath) {
  ErrnoKeeper errno_keeper;
  if (!szPath || !*szPath) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  struct statx stx;
  if (statx(AT_FDCWD, szPath, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &stx) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  if (!S_ISDIR(stx.stx_mode)) return 0;
  if (stx.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) {
    return (stx.stx_attributes & STATX_ATTR_MOUNT_ROOT) ? 1 : 0;
  }
  // Older kernels: a directory on another device than its parent. This
  // misses a bind mount of a folder of the same file system.
  struct stat self, parent;
  const std::string up = std::string(szPath) + "/..";
  if (stat(szPath, &self) != 0 || stat(up.c_str(), &parent) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  return (self.st_dev != parent.st_dev || self.st_ino == parent.st_ino) ? 1 : 0;
}

namespace {

struct Fd {
  int fd = -1;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Copies into a hidden temporary beside the destination and renames it into
// place, so that a reader never sees half a file and a failure leaves the
// old destination as it was.
int CopyRegular(const char* src, const char* dst, bool overwrite) {
  Fd in;
  in.fd = open(src, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat st;
  if (in.fd < 0 || fstat(in.fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (in.fd >= 0 && errno == 0) errno = EINVAL;
    return -1;
  }
  const std::string target = dst;
  const size_t slash = target.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
  std::string tmp_name = dir + "/.kestcopy.XXXXXX";
  Fd out;
  out.fd = mkostemp(&tmp_name[0], O_CLOEXEC);
  if (out.fd < 0) return -1;
  bool ok = true;
  char buffer[65536];
  for (;;) {
    const ssize_t n = read(in.fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || (n > 0 && !WriteAll(out.fd, buffer, static_cast<size_t>(n)))) {
      ok = false;
      break;
    }
    if (n == 0) break;
  }
  if (ok) ok = fchmod(out.fd, st.st_mode & 07777) == 0;
  if (ok && geteuid() == 0) ok = fchown(out.fd, st.st_uid, st.st_gid) == 0;
  if (ok) {
    const struct timespec times[2] = {st.st_atim, st.st_mtim};
    futimens(out.fd, times);
  }
  if (ok) ok = fsync(out.fd) == 0;
  if (ok) {
    if (overwrite) {
      ok = rename(tmp_name.c_str(), dst) == 0;
    } else {
      // link() refuses an existing destination atomically.
      ok = link(tmp_name.c_str(), dst) == 0;
      const int saved = errno;
      unlink(tmp_name.c_str());
      errno = saved;
      return ok ? 0 : -1;
    }
  }
  if (!ok) {
    const int saved = errno;
    unlink(tmp_name.c_str());
    errno = saved;
    return -1;
  }
  return 0;
}

}  // namespace

extern "C" int KESTFileCopy(const char* szSrc, const char* szDst, const KESTCOPYARGS* pArgs) {
  ErrnoKeeper errno_keeper;
  if (!szSrc || !szDst || !pArgs || !*szSrc || !*szDst) {
    KLIBCErrSet(KLIB_ERR_BAD_PARAM);
    return -1;
  }
  const bool overwrite = pArgs->blOverwrite != 0;
  if (pArgs->blRemoveSrc) {
    struct stat st;
    if (!overwrite && lstat(szDst, &st) == 0) {
      errno = EEXIST;
      KLIBCErrSet(KLIB_ERR_SYSTEM);
      errno_keeper.Keep();
      return -1;
    }
    if (rename(szSrc, szDst) == 0) return 0;
    if (errno != EXDEV) {
      KLIBCErrSet(KLIB_ERR_SYSTEM);
      errno_keeper.Keep();
      return -1;
    }
    errno = 0;
  }
  if (CopyRegular(szSrc, szDst, overwrite) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  if (pArgs->blRemoveSrc && unlink(szSrc) != 0) {
    KLIBCErrSet(KLIB_ERR_SYSTEM);
    errno_keeper.Keep();
    return -1;
  }
  return 0;
}
