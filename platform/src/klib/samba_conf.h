// The shares of a Samba configuration (smb.conf), for hosts whose shared
// folders are defined for Samba: /etc/kest/shares.conf names the file with
// "samba config" in [global], and its shares are served beside the
// product's own (docs/shares-conf.md, "Shares from Samba"). Internal to the
// C library.
#ifndef KEST_KLIB_SAMBA_CONF_H_
#define KEST_KLIB_SAMBA_CONF_H_

#include <string>
#include <vector>

#include "config.h"

namespace kest {
namespace klib {

struct SambaShares {
  std::vector<ShareConfig> shares;  // in the file's order, each with samba_default_priv set
  std::vector<std::string> notes;   // what was left out and why, one line each, for the log
  std::vector<std::string> files;   // every file read: the configuration and what it includes
};

// Reads the Samba configuration at `path` and the files it includes. Fails,
// with *error naming the file, only when `path` itself cannot be read, is no
// regular file, or may be written by anyone but root (it decides who sees
// what); everything else that cannot be served is a note. `taken` holds the
// names (lower case) and folders of the shares already defined: a Samba
// share clashing with one of them is left out.
bool ReadSambaShares(const std::string& path, const std::vector<ShareConfig>& taken,
                     SambaShares* out, std::string* error);

// The same over text, for tests and fuzzing; `origin` names it in notes.
// Includes are read from the file system as above.
SambaShares ParseSambaText(const std::string& text, const std::string& origin,
                           const std::vector<ShareConfig>& taken);

}  // namespace klib
}  // namespace kest

#endif  // KEST_KLIB_SAMBA_CONF_H_
