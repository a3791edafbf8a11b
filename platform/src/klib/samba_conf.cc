// Reading smb.conf the way Samba reads it. Its syntax is not libinih's INI:
// keys are usually indented, a line ending in "\" goes on on the next line,
// blanks inside a key do not count ("readonly" is "read only"), a ";" after
// a value is part of the value, and lines are as long as they are. So it has
// a reader of its own, small because only a handful of keys matter here.
//
// The reading is lenient where Samba is: a key this product does not use is
// ignored, and a share it cannot serve is left out with a note, so that a
// Samba setting never stops the product's own shares. What decides who may
// see a share is never guessed: a list entry whose members cannot be known
// here (a netgroup, a %-substitution) leaves the share out rather than open
// it to the wrong people.
#include "samba_conf.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include "kest/klib.h"

namespace kest {
namespace klib {
namespace {

// Bounds on what one configuration may make us read.
constexpr int kMaxIncludeDepth = 8;
constexpr size_t kMaxFiles = 64;
constexpr off_t kMaxFileSize = 4 << 20;

// A key with its blanks removed and lower-cased, as Samba compares them.
std::string SambaKey(const std::string& key) {
  std::string out;
  for (char c : key) {
    if (!isspace(static_cast<unsigned char>(c))) {
      out += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

std::string Trim(const std::string& s) {
  size_t b = 0, e = s.size();
  while (b < e && isspace(static_cast<unsigned char>(s[b]))) ++b;
  while (e > b && isspace(static_cast<unsigned char>(s[e - 1]))) --e;
  return s.substr(b, e - b);
}

// A Samba name list: names separated by blanks or commas, "double quotes"
// around a name with blanks. "@g" and "+g" are the Unix group g; "&g" (a
// netgroup) and any "%" substitution name people we cannot know here.
bool ParseSambaList(const std::string& value, std::vector<std::string>* out, std::string* why) {
  std::vector<std::string> items;
  std::string item;
  bool quoted = false;
  for (char c : value) {
    if (c == '"') {
      quoted = !quoted;
    } else if (!quoted && (c == ',' || isspace(static_cast<unsigned char>(c)))) {
      if (!item.empty()) items.push_back(item);
      item.clear();
    } else {
      item += c;
    }
  }
  if (!item.empty()) items.push_back(item);
  for (auto& name : items) {
    if (name.find('%') != std::string::npos) {
      *why = "\"" + name + "\" is substituted per connection";
      return false;
    }
    if (name.find('&') != std::string::npos) {
      *why = "\"" + name + "\" names a netgroup";
      return false;
    }
    for (char c : name) {
      if (iscntrl(static_cast<unsigned char>(c))) {
        *why = "a control character in a name list";
        return false;
      }
    }
    if (name[0] == '+') name[0] = '@';
    if (name == "@") {
      *why = "\"@\" without a group name";
      return false;
    }
  }
  *out = std::move(items);
  return true;
}

// One share section as read so far.
struct Section {
  std::string name;
  ShareConfig share;
  std::string path_text;  // the raw "path" value; checked when the file is done
  std::string skip;       // why the share is left out; empty while it may be served
  bool available = true;
  bool printable = false;
};

class Reader {
 public:
  explicit Reader(const std::vector<ShareConfig>& taken) {
    for (const auto& share : taken) {
      names_.insert(Lower(share.name));
      paths_.insert(share.path);
    }
    defaults_.share.samba_default_priv = KEST_SHARE_PRIV_RO;  // Samba's "read only" is yes
  }

  // Reads one file; false with *error when it cannot be used.
  bool ReadFile(const std::string& path, int depth, std::string* error) {
    if (result_.files.size() >= kMaxFiles) {
      *error = path + ": more than " + std::to_string(kMaxFiles) + " files included";
      return false;
    }
    result_.files.push_back(path);  // watched for changes even while it cannot be read
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      *error = path + ": " + strerror(errno);
      errno = 0;
      return false;
    }
    // Whoever may write this file decides who sees which folder.
    if (!S_ISREG(st.st_mode) || st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH))) {
      *error = path + ": must be a regular file owned by root and writable by root only";
      return false;
    }
    if (st.st_size > kMaxFileSize) {
      *error = path + ": larger than " + std::to_string(kMaxFileSize) + " bytes";
      return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
      *error = path + ": " + strerror(errno);
      errno = 0;
      return false;
    }
    std::ostringstream text;
    text << in.rdbuf();
    ParseText(text.str(), path, depth);
    return true;
  }

  void ParseText(const std::string& text, const std::string& origin, int depth) {
    std::istringstream in(text);
    std::string raw, line;
    size_t line_no = 0, first_line = 0;
    while (std::getline(in, raw)) {
      ++line_no;
      if (!raw.empty() && raw.back() == '\r') raw.pop_back();
      if (line.empty()) first_line = line_no;
      // A line ending in a backslash goes on on the next one.
      if (!raw.empty() && raw.back() == '\\') {
        raw.pop_back();
        line += raw;
        continue;
      }
      line += raw;
      Line(Trim(line), origin + ":" + std::to_string(first_line), depth);
      line.clear();
    }
    if (!line.empty()) Line(Trim(line), origin + ":" + std::to_string(first_line), depth);
  }

  SambaShares Finish() {
    for (auto& section : sections_) {
      std::string why = section.skip;
      if (why.empty() && !section.available) why = "\"available = no\"";
      if (why.empty() && section.printable) why = "a printer";
      if (why.empty() && section.path_text.empty()) why = "no path";
      if (why.empty() && section.path_text.find('%') != std::string::npos) {
        why = "its path is substituted per user";
      }
      if (why.empty() && !CanonicalSharePath(section.path_text, &section.share.path, &why)) {
        why += " (it is \"" + section.path_text + "\")";
      }
      if (why.empty() && !names_.insert(Lower(section.name)).second) {
        why = "a share of this name exists already";
      }
      if (why.empty() && !paths_.insert(section.share.path).second) {
        why = "its folder is already another share's";
      }
      if (!why.empty()) {
        result_.notes.push_back("Samba share [" + section.name + "] not served: " + why);
        continue;
      }
      section.share.name = section.name;
      result_.shares.push_back(std::move(section.share));
    }
    return std::move(result_);
  }

 private:
  void Note(const std::string& where, const std::string& what) {
    result_.notes.push_back(where + ": " + what);
  }

  void Line(const std::string& line, const std::string& where, int depth) {
    if (line.empty() || line[0] == '#' || line[0] == ';') return;
    if (line.find('\0') != std::string::npos) return Note(where, "NUL byte; line ignored");
    if (line[0] == '[') {
      const size_t close = line.find(']');
      if (close == std::string::npos) return Note(where, "no \"]\"; line ignored");
      return StartSection(Trim(line.substr(1, close - 1)));
    }
    const size_t eq = line.find('=');
    if (eq == std::string::npos) return Note(where, "no \"=\"; line ignored");
    Key(SambaKey(line.substr(0, eq)), Trim(line.substr(eq + 1)), where, depth);
  }

  void StartSection(const std::string& name) {
    const std::string lower = Lower(name);
    current_ = nullptr;
    if (lower == "global" || lower == "globals") {
      current_ = &defaults_;
      return;
    }
    // A section given again goes on where it left off, as in Samba.
    for (auto& section : sections_) {
      if (Lower(section.name) == lower) {
        current_ = &section;
        return;
      }
    }
    sections_.push_back(defaults_);
    current_ = &sections_.back();
    current_->name = name;
    if (lower == "homes") {
      current_->skip = "Samba's [homes] serves each user's home; define homes in shares.conf";
    } else if (lower == "printers") {
      current_->skip = "a printer";
    } else if (name.empty() || std::any_of(name.begin(), name.end(), [](char c) {
                 return c == '/' || c == '\\' || iscntrl(static_cast<unsigned char>(c));
               })) {
      current_->skip = "a character a share name cannot hold";
    }
  }

  void Key(const std::string& key, const std::string& value, const std::string& where, int depth) {
    if (key == "include") return Include(value, where, depth);
    if (!current_) return;  // keys before any section: Samba ignores them too
    Section& s = *current_;
    // A value that is no boolean is ignored, as Samba ignores it.
    auto boolean = [&](bool* target) {
      if (ParseBool(value, target)) return true;
      Note(where, "\"" + value + "\" is no boolean; ignored");
      return false;
    };
    auto list = [&](std::vector<std::string>* target) {
      std::string why;
      if (!ParseSambaList(value, target, &why)) s.skip = why;
    };
    if (key == "path" || key == "directory") {
      s.path_text = value;
    } else if (key == "readonly" || key == "writable" || key == "writeable" || key == "writeok") {
      bool on = false;
      if (boolean(&on)) {
        const bool read_only = key == "readonly" ? on : !on;
        s.share.samba_default_priv = read_only ? KEST_SHARE_PRIV_RO : KEST_SHARE_PRIV_RW;
      }
    } else if (key == "validusers") {
      list(&s.share.valid_users);
    } else if (key == "invalidusers") {
      list(&s.share.invalid_users);
    } else if (key == "readlist") {
      list(&s.share.read_list);
    } else if (key == "writelist") {
      list(&s.share.write_list);
    } else if (key == "hideunreadable") {
      boolean(&s.share.hide_unreadable);
    } else if (key == "available") {
      boolean(&s.available);
    } else if (key == "printable" || key == "printok") {
      boolean(&s.printable);
    } else if (key == "vfsobjects") {
      std::vector<std::string> modules;
      std::string why;
      ParseSambaList(value, &modules, &why);
      s.share.recycle_bin = std::find(modules.begin(), modules.end(), "recycle") != modules.end();
    } else if (key == "copy") {
      Copy(value, &s);
    }
  }

  void Copy(const std::string& from, Section* to) {
    for (const auto& section : sections_) {
      if (&section != to && Lower(section.name) == Lower(from)) {
        const std::string name = to->name;
        *to = section;
        to->name = name;
        return;
      }
    }
    to->skip = "it copies [" + from + "], which is not defined before it";
  }

  void Include(const std::string& value, const std::string& where, int depth) {
    if (value.find('%') != std::string::npos || value.empty() || value[0] != '/') {
      return Note(where, "include \"" + value + "\" not followed (substituted or relative)");
    }
    if (depth >= kMaxIncludeDepth) return Note(where, "include \"" + value + "\" nested too deep");
    std::string error;
    if (!ReadFile(value, depth + 1, &error)) Note(where, "include not followed: " + error);
  }

  std::set<std::string> names_;
  std::set<std::string> paths_;
  Section defaults_;
  std::vector<Section> sections_;
  Section* current_ = nullptr;
  SambaShares result_;
};

}  // namespace

bool ReadSambaShares(const std::string& path, const std::vector<ShareConfig>& taken,
                     SambaShares* out, std::string* error) {
  Reader reader(taken);
  if (!reader.ReadFile(path, 0, error)) return false;
  *out = reader.Finish();
  return true;
}

SambaShares ParseSambaText(const std::string& text, const std::string& origin,
                           const std::vector<ShareConfig>& taken) {
  Reader reader(taken);
  reader.ParseText(text, origin, 0);
  return reader.Finish();
}

}  // namespace klib
}  // namespace kest
