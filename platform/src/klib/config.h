// The shared-folder configuration, /etc/kest/shares.conf, read by one reader
// for every platform function that needs it (shares, privileges, the user
// home service, the administrators group). Internal to the C library.
#ifndef KEST_KLIB_CONFIG_H_
#define KEST_KLIB_CONFIG_H_

#include <memory>
#include <string>
#include <vector>

namespace kest {
namespace klib {

constexpr char kSharesConf[] = "/etc/kest/shares.conf";
constexpr char kDefaultAdminGroup[] = "administrators";
constexpr char kHomesShare[] = "homes";

struct ShareConfig {
  std::string name;
  std::string path;  // canonical form: /volumeN/<folder>, no trailing slash
  std::vector<std::string> read_list;
  std::vector<std::string> write_list;
  std::vector<std::string> invalid_users;
  std::vector<std::string> valid_users;  // Samba's: when not empty, nobody else has access
  bool hide_unreadable = false;
  bool read_only = false;
  bool encrypted = false;
  bool recycle_bin = false;
  unsigned int ftp_privilege = 0;
  // 0 for a share of shares.conf. A share read from Samba's configuration
  // follows Samba's rules, where the lists only change the access of those
  // they name: this is the privilege of everybody else (docs/shares-conf.md).
  int samba_default_priv = 0;
  std::string index_language;  // "index language"; "" for the [global] one
};

struct Config {
  bool present = false;  // false when the file does not exist
  std::string admin_group = kDefaultAdminGroup;
  bool user_home = false;
  std::string samba_config;         // "samba config": an smb.conf whose shares are served too
  std::string index_language;       // "index language" of [global]; "" for the indexer's default
  std::vector<ShareConfig> shares;  // in the file's order, then Samba's

  const ShareConfig* FindShare(const std::string& name) const;
  // The "homes" share when the user home service is on, else null.
  const ShareConfig* HomeShare() const;
};

// The current configuration. Re-read when the file changed since the last
// call (its identity, size or times differ); otherwise the cached copy.
//
// Returns null when the file exists but cannot be read or is malformed; the
// platform error is then KLIB_ERR_CONFIG and its text (KLIBCErrTextGet)
// names the file and the line. A missing file is not an error here: the
// result then has `present` false, no shares and the defaults, and callers
// that need shares report it. Thread-safe.
std::shared_ptr<const Config> LoadConfig();

// [global] alone, for the questions that concern no share (the
// administrators group): errors in share sections do not count here, so a
// broken share does not take the administrators' rights away. A syntax error
// or a bad [global] value still does (nobody is an administrator then).
std::shared_ptr<const Config> LoadGlobalConfig();

// Parses configuration text; `origin` names it in error texts. On failure
// returns null and sets *error to "<origin>:<line>: <what>". With
// `global_only` the share sections are skipped.
std::shared_ptr<const Config> ParseConfig(const std::string& text, const std::string& origin,
                                          bool global_only, std::string* error);

// A share folder in its canonical form (/volume<N>/<folder>, no trailing
// slash); false with *error saying why the value is none.
bool CanonicalSharePath(const std::string& value, std::string* out, std::string* error);
// yes/true/on/1 and no/false/off/0, in any case.
bool ParseBool(const std::string& value, bool* out);
std::string Lower(std::string s);

// Sets the platform error code and its text for the calling thread.
void SetError(int code, const std::string& text);

// The user's id and group ids (primary first); false for an unknown user.
bool UserIds(const std::string& name, uid_t* uid, std::vector<gid_t>* groups);
// The user's id alone (cheaper: no walk over the group database).
bool UserId(const std::string& name, uid_t* uid);
// The id of a group given by name, or by number when it is all digits.
bool GroupIdByName(const std::string& name, gid_t* gid);

}  // namespace klib
}  // namespace kest

#endif  // KEST_KLIB_CONFIG_H_
