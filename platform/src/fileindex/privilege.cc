#include "privilege.h"

#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "common/error.h"

namespace kestondri {
namespace fileindex {

PrivilegeScope::PrivilegeScope() : saved_euid_(geteuid()), switched_(false) {
  if (saved_euid_ == 0) return;
  if (seteuid(0) != 0) {
    errno = 0;
    throw Error(kErrPlatform, "cannot take the privilege to reach the folder store");
  }
  switched_ = true;
}

PrivilegeScope::~PrivilegeScope() {
  if (!switched_) return;
  const int saved_errno = errno;
  if (seteuid(saved_euid_) != 0) {
    syslog(LOG_CRIT, "fileindex: cannot give back root to uid %u, aborting", saved_euid_);
    abort();
  }
  errno = saved_errno;
}

}  // namespace fileindex
}  // namespace kestondri
