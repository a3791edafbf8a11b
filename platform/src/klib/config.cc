// Reading /etc/kest/shares.conf. The syntax is INI as parsed by libinih, in
// the style administrators know from Samba's smb.conf (see
// docs/shares-conf.md). The reader is strict on purpose: a misspelt key such
// as "invalid user" would otherwise silently open a share to everybody, so
// an unknown key, a bad value or a duplicate is an error naming the line.
#include "config.h"

#include <ini.h>
#include <strings.h>
#include <sys/stat.h>
#include <syslog.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>

#include "kest/klib.h"
#include "name_service.h"
#include "samba_conf.h"

namespace kest {
namespace klib {
namespace {

// libinih is built with a fixed line buffer of 200 bytes; a longer line
// would be cut and its rest read as a line of its own.
constexpr size_t kMaxLine = 199;

}  // namespace

std::string Lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return s;
}

namespace {

// "Read  List" and "read list" are the same key.
std::string NormalizeKey(const char* key) {
  std::string out;
  bool space = false;
  for (const char* p = key; *p; ++p) {
    if (isspace(static_cast<unsigned char>(*p))) {
      space = !out.empty();
      continue;
    }
    if (space) out += ' ';
    space = false;
    out += static_cast<char>(tolower(static_cast<unsigned char>(*p)));
  }
  return out;
}

}  // namespace

bool ParseBool(const std::string& value, bool* out) {
  const std::string v = Lower(value);
  if (v == "yes" || v == "true" || v == "1" || v == "on") {
    *out = true;
    return true;
  }
  if (v == "no" || v == "false" || v == "0" || v == "off") {
    *out = false;
    return true;
  }
  return false;
}

namespace {

// Names separated by commas and/or white space; "@name" is a group.
bool ParseList(const std::string& value, std::vector<std::string>* out, std::string* error) {
  std::string item;
  auto flush = [&]() {
    if (item.empty()) return true;
    if (item == "@") {
      *error = "\"@\" without a group name";
      return false;
    }
    out->push_back(item);
    item.clear();
    return true;
  };
  for (char c : value) {
    if (c == ',' || isspace(static_cast<unsigned char>(c))) {
      if (!flush()) return false;
    } else if (iscntrl(static_cast<unsigned char>(c))) {
      *error = "control character in a name list";
      return false;
    } else {
      item += c;
    }
  }
  return flush();
}

}  // namespace

// A share's folder must be a directory directly under a volume folder:
// /volume<N>/<folder>. The index data of a volume lives in
// /volume<N>/@kestondri, which therefore can never be a share.
bool CanonicalSharePath(const std::string& value, std::string* out, std::string* error) {
  std::string path = value;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const char kPrefix[] = "/volume";
  if (path.compare(0, strlen(kPrefix), kPrefix) != 0) {
    *error = "path must be /volume<N>/<folder>";
    return false;
  }
  size_t i = strlen(kPrefix);
  const size_t digits = i;
  while (i < path.size() && isdigit(static_cast<unsigned char>(path[i]))) ++i;
  if (i == digits || i >= path.size() || path[i] != '/') {
    *error = "path must be /volume<N>/<folder>";
    return false;
  }
  const std::string folder = path.substr(i + 1);
  if (folder.empty() || folder.find('/') != std::string::npos) {
    *error = "path must name a folder directly under a volume (/volume<N>/<folder>)";
    return false;
  }
  if (folder == "." || folder == ".." || folder[0] == '@') {
    *error = "path names a reserved folder";
    return false;
  }
  for (char c : folder) {
    if (iscntrl(static_cast<unsigned char>(c))) {
      *error = "control character in path";
      return false;
    }
  }
  *out = path;
  return true;
}

namespace {

struct ParseState {
  bool global_only = false;
  std::shared_ptr<Config> config = std::make_shared<Config>();
  std::string section;  // lower-cased for "global"
  ShareConfig* share = nullptr;
  std::set<std::string> seen_keys;           // of the current section
  std::set<std::string> share_names;         // lower-cased, shares are unique ignoring case
  std::map<std::string, std::string> paths;  // share path -> share name
  std::string first_error;
};

bool Fail(ParseState* state, const std::string& message) {
  if (state->first_error.empty()) state->first_error = message;
  return false;
}

// A stemming language's name or code ("english", "fr", "none"); whether
// the indexer knows it is the indexer's to say.
int IndexLanguage(ParseState* state, const std::string& value, std::string* out) {
  bool letters = !value.empty();
  for (char c : value) letters = letters && isalpha(static_cast<unsigned char>(c));
  if (!letters) return Fail(state, "\"index language\" must be a word, not \"" + value + "\"");
  *out = Lower(value);
  return 1;
}

bool IsListKey(const std::string& key) {
  return key == "read list" || key == "write list" || key == "invalid users";
}

bool StartSection(ParseState* state, const char* section) {
  state->section = section;
  state->seen_keys.clear();
  state->share = nullptr;
  if (strcasecmp(section, "global") == 0) return true;
  const std::string name = section;
  if (name.empty()) return Fail(state, "empty section name");
  for (char c : name) {
    if (c == '/' || c == '\\' || iscntrl(static_cast<unsigned char>(c))) {
      return Fail(state, "share name \"" + name + "\" holds a character a share name cannot");
    }
  }
  if (!state->share_names.insert(Lower(name)).second) {
    return Fail(state, "share [" + name + "] defined twice");
  }
  state->config->shares.emplace_back();
  state->share = &state->config->shares.back();
  state->share->name = name;
  return true;
}

int Handler(void* user, const char* section, const char* name, const char* value) {
  auto* state = static_cast<ParseState*>(user);
  if (state->global_only && strcasecmp(section, "global") != 0) return 1;
  if (state->section != section ||
      (state->share == nullptr && strcasecmp(section, "global") != 0)) {
    if (!StartSection(state, section)) return 0;
  }
  const std::string key = NormalizeKey(name);
  const std::string val = value;
  // A key seen again is an error, except for the name lists, which may go on
  // over indented continuation lines (libinih hands those over as repeats).
  if (!state->seen_keys.insert(key).second && !IsListKey(key)) {
    return Fail(state, "\"" + key + "\" given twice in [" + state->section +
                           "] (a line that begins with white space continues the previous value)");
  }

  if (strcasecmp(section, "global") == 0) {
    if (key == "admin group") {
      if (val.empty()) return Fail(state, "\"admin group\" is empty");
      state->config->admin_group = val;
      return 1;
    }
    if (key == "user home") {
      if (!ParseBool(val, &state->config->user_home)) {
        return Fail(state, "\"user home\" must be yes or no, not \"" + val + "\"");
      }
      return 1;
    }
    if (key == "index language") return IndexLanguage(state, val, &state->config->index_language);
    if (key == "samba config") {
      if (val.empty() || val[0] != '/') {
        return Fail(state, "\"samba config\" must be an absolute path, not \"" + val + "\"");
      }
      state->config->samba_config = val;
      return 1;
    }
    // [global] may hold what other services of the host read (Samba's
    // "workgroup"); none of it opens a share, so it is left alone.
    return 1;
  }

  ShareConfig* share = state->share;
  std::string error;
  if (key == "path") {
    if (!CanonicalSharePath(val, &share->path, &error))
      return Fail(state, error + ": \"" + val + "\"");
    auto inserted = state->paths.emplace(share->path, share->name);
    if (!inserted.second) {
      return Fail(state, "path " + share->path + " is already the path of share [" +
                             inserted.first->second + "]");
    }
    return 1;
  }
  if (key == "index language") return IndexLanguage(state, val, &share->index_language);
  if (key == "read list") return ParseList(val, &share->read_list, &error) ? 1 : Fail(state, error);
  if (key == "write list")
    return ParseList(val, &share->write_list, &error) ? 1 : Fail(state, error);
  if (key == "invalid users") {
    return ParseList(val, &share->invalid_users, &error) ? 1 : Fail(state, error);
  }
  bool* flag = nullptr;
  unsigned int ftp_bit = 0;
  if (key == "hide unreadable") flag = &share->hide_unreadable;
  if (key == "read only") flag = &share->read_only;
  if (key == "encrypted") flag = &share->encrypted;
  if (key == "recycle bin") flag = &share->recycle_bin;
  if (key == "ftp disable list") ftp_bit = KEST_FTP_PRIV_DISABLE_LIST;
  if (key == "ftp disable modify") ftp_bit = KEST_FTP_PRIV_DISABLE_MODIFY;
  if (key == "ftp disable download") ftp_bit = KEST_FTP_PRIV_DISABLE_DOWNLOAD;
  if (!flag && !ftp_bit) return Fail(state, "unknown key \"" + key + "\" in [" + share->name + "]");
  bool on = false;
  if (!ParseBool(val, &on))
    return Fail(state, "\"" + key + "\" must be yes or no, not \"" + val + "\"");
  if (flag) {
    *flag = on;
  } else if (on) {
    share->ftp_privilege |= ftp_bit;
  } else {
    share->ftp_privilege &= ~ftp_bit;
  }
  return 1;
}

// Runs the parser; returns libinih's result (0, or the first bad line).
int RunParser(const std::string& text, bool global_only, ParseState* state) {
  state->global_only = global_only;
  return ini_parse_string(text.c_str(), Handler, state);
}

struct FileStamp {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = -1;
  timespec mtime{};
  timespec ctime{};
  bool operator==(const FileStamp& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec &&
           ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

}  // namespace

const ShareConfig* Config::FindShare(const std::string& name) const {
  for (const auto& share : shares) {
    if (share.name == name) return &share;
  }
  return nullptr;
}

const ShareConfig* Config::HomeShare() const {
  return user_home ? FindShare(kHomesShare) : nullptr;
}

std::shared_ptr<const Config> ParseConfig(const std::string& text, const std::string& origin,
                                          bool global_only, std::string* error) {
  // Lines libinih would cut, and bytes it would stop at, are refused first.
  size_t line_no = 1;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end - start > kMaxLine) {
      *error = origin + ":" + std::to_string(line_no) + ": line longer than " +
               std::to_string(kMaxLine) +
               " characters (continue a long list on lines that begin with white space)";
      return nullptr;
    }
    if (memchr(text.data() + start, '\0', end - start)) {
      *error = origin + ":" + std::to_string(line_no) + ": NUL byte";
      return nullptr;
    }
    start = end + 1;
    ++line_no;
  }

  ParseState state;
  const int bad_line = RunParser(text, global_only, &state);
  if (bad_line != 0) {
    std::string what = "syntax error (expected [section] or key = value)";
    if (bad_line > 0) {
      // libinih reports the first bad line but not why; parse the text up to
      // that line again: if our handler refused something there, say what.
      size_t cut = 0;
      for (int line = 1; line <= bad_line; ++line) {
        const size_t nl = text.find('\n', cut);
        if (nl == std::string::npos) {
          cut = text.size();
          break;
        }
        cut = nl + 1;
      }
      ParseState again;
      RunParser(text.substr(0, cut), global_only, &again);
      if (!again.first_error.empty()) what = again.first_error;
    } else {
      what = "cannot parse";
    }
    *error = origin + ":" + std::to_string(bad_line) + ": " + what;
    return nullptr;
  }
  for (const auto& share : state.config->shares) {
    if (share.path.empty()) {
      *error = origin + ": share [" + share.name + "] has no path";
      return nullptr;
    }
  }
  state.config->present = true;
  return state.config;
}

namespace {

// The stamp of a file, or the empty stamp when it cannot be seen, so that
// its coming back counts as a change too.
FileStamp StampOf(const std::string& path) {
  FileStamp stamp;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return stamp;
  stamp.dev = st.st_dev;
  stamp.ino = st.st_ino;
  stamp.size = st.st_size;
  stamp.mtime = st.st_mtim;
  stamp.ctime = st.st_ctim;
  return stamp;
}

struct Cache {
  std::vector<std::pair<std::string, FileStamp>> files;  // what the result was read from
  bool valid = false;
  std::shared_ptr<const Config> config[2];  // [global_only]
  std::string error[2];
  std::vector<std::string> notes;
};

bool Unchanged(const Cache& cache) {
  if (!cache.valid) return false;
  for (const auto& [path, stamp] : cache.files) {
    if (!(StampOf(path) == stamp)) return false;
  }
  return true;
}

// Adds the shares of the Samba configuration that `config` names, if any.
void AddSambaShares(Cache* cache) {
  const auto& own = cache->config[0];
  if (!own || own->samba_config.empty()) return;
  SambaShares samba;
  std::string error;
  cache->files.emplace_back(own->samba_config, StampOf(own->samba_config));
  if (!ReadSambaShares(own->samba_config, own->shares, &samba, &error)) {
    cache->config[0] = nullptr;
    cache->error[0] = std::string(kSharesConf) + ": samba config: " + error;
    return;
  }
  for (const auto& file : samba.files) {
    if (file != own->samba_config) cache->files.emplace_back(file, StampOf(file));
  }
  auto merged = std::make_shared<Config>(*own);
  for (auto& share : samba.shares) merged->shares.push_back(std::move(share));
  cache->config[0] = merged;
  for (const auto& note : samba.notes) cache->notes.push_back(own->samba_config + ": " + note);
}

std::shared_ptr<const Config> Load(bool global_only) {
  static std::mutex mutex;
  static Cache cache;

  std::lock_guard<std::mutex> lock(mutex);
  struct stat st;
  if (stat(kSharesConf, &st) != 0) {
    const int saved = errno;
    if (saved == ENOENT) {
      errno = 0;
      cache.valid = false;
      return std::make_shared<Config>();
    }
    SetError(KLIB_ERR_CONFIG, std::string(kSharesConf) + ": " + strerror(saved));
    return nullptr;
  }
  if (!Unchanged(cache)) {
    const FileStamp stamp = StampOf(kSharesConf);
    std::ifstream in(kSharesConf, std::ios::binary);
    if (!in) {
      const int saved = errno;
      SetError(KLIB_ERR_CONFIG, std::string(kSharesConf) + ": " + strerror(saved));
      return nullptr;
    }
    std::ostringstream text;
    text << in.rdbuf();
    const std::string previous = cache.error[0];
    const std::vector<std::string> previous_notes = std::move(cache.notes);
    cache.notes.clear();
    cache.files.assign(1, {kSharesConf, stamp});
    for (int i = 0; i < 2; ++i) {
      cache.error[i].clear();
      cache.config[i] = ParseConfig(text.str(), kSharesConf, i == 1, &cache.error[i]);
    }
    AddSambaShares(&cache);
    cache.valid = true;
    // Once per change of the files, not at every call.
    if (!cache.config[0] && cache.error[0] != previous) {
      syslog(LOG_ERR, "%s", cache.error[0].c_str());
    }
    if (cache.notes != previous_notes) {
      for (const auto& note : cache.notes) syslog(LOG_WARNING, "%s", note.c_str());
    }
  }
  const int i = global_only ? 1 : 0;
  if (!cache.config[i]) {
    SetError(KLIB_ERR_CONFIG, cache.error[i]);
    return nullptr;
  }
  return cache.config[i];
}

}  // namespace

std::shared_ptr<const Config> LoadConfig() { return Load(false); }

std::shared_ptr<const Config> LoadGlobalConfig() { return Load(true); }

bool UserId(const std::string& name, uid_t* uid) {
  KLIBUserIdentity identity;
  if (!LookupUser(name, &identity, false)) return false;
  *uid = identity.uid;
  return true;
}

bool UserIds(const std::string& name, uid_t* uid, std::vector<gid_t>* groups) {
  KLIBUserIdentity identity;
  if (!LookupUser(name, &identity, true)) return false;
  *uid = identity.uid;
  *groups = std::move(identity.groups);
  return true;
}

bool GroupIdByName(const std::string& name, gid_t* gid) {
  if (LookupGroupId(name, gid)) return true;
  // A gid without a name travels as its number (see KLIBGroupInfoListGet).
  if (std::all_of(name.begin(), name.end(),
                  [](char c) { return isdigit(static_cast<unsigned char>(c)); }) &&
      name.size() < 10) {
    *gid = static_cast<gid_t>(std::stoul(name));
    return true;
  }
  return false;
}

}  // namespace klib
}  // namespace kest
