#include "server/file_access.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <utility>

#include "kest/json.h"

namespace kestondri {
namespace host {
namespace {

constexpr char kHexPrefix[] = "hex:";

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool CanonicalAbsolute(const std::string& path) {
  if (path.size() < 2 || path[0] != '/' || path.back() == '/' ||
      path.find('\0') != std::string::npos) {
    return false;
  }
  size_t begin = 1;
  while (begin <= path.size()) {
    size_t end = path.find('/', begin);
    if (end == std::string::npos) end = path.size();
    const std::string part = path.substr(begin, end - begin);
    if (part.empty() || part == "." || part == "..") return false;
    begin = end + 1;
  }
  return true;
}

bool ParseNumber(const std::string& text, uint64_t* out) {
  if (text.empty() || text.size() > 19) return false;
  uint64_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  *out = value;
  return true;
}

}  // namespace

bool DecodeFileReference(const std::string& reference, std::string* path) {
  if (reference.compare(0, sizeof(kHexPrefix) - 1, kHexPrefix) == 0) {
    const std::string hex = reference.substr(sizeof(kHexPrefix) - 1);
    if (hex.empty() || hex.size() % 2 != 0) return false;
    std::string bytes;
    for (size_t i = 0; i < hex.size(); i += 2) {
      const int high = HexDigit(hex[i]);
      const int low = HexDigit(hex[i + 1]);
      if (high < 0 || low < 0) return false;
      bytes.push_back(static_cast<char>(high * 16 + low));
    }
    *path = std::move(bytes);
  } else {
    *path = reference;
  }
  return CanonicalAbsolute(*path);
}

bool PathBelowAny(const std::string& path, const std::vector<std::string>& folders) {
  for (std::string folder : folders) {
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    if (folder == "/") return true;
    if (path.size() > folder.size() + 1 && path.compare(0, folder.size(), folder) == 0 &&
        path[folder.size()] == '/') {
      return true;
    }
  }
  return false;
}

FileOpenResult OpenRegularFileNoLinks(const std::string& path, int* fd) {
  if (!CanonicalAbsolute(path)) return FileOpenResult::kNotFound;
  const auto refused = [](int error) {
    return error == EACCES || error == EPERM ? FileOpenResult::kDenied : FileOpenResult::kNotFound;
  };
  int dir = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (dir < 0) return FileOpenResult::kNotFound;
  size_t begin = 1;
  for (;;) {
    const size_t slash = path.find('/', begin);
    const std::string part = path.substr(begin, slash == std::string::npos ? slash : slash - begin);
    if (slash != std::string::npos) {
      // O_NOFOLLOW with O_PATH opens a link itself, which O_DIRECTORY refuses.
      const int next = openat(dir, part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
      const int error = errno;
      close(dir);
      if (next < 0) return refused(error);
      dir = next;
      begin = slash + 1;
      continue;
    }
    // Only a regular file is opened at all: opening a device or a FIFO may
    // block or act on hardware.
    struct stat before;
    if (fstatat(dir, part.c_str(), &before, AT_SYMLINK_NOFOLLOW) != 0) {
      const int error = errno;
      close(dir);
      return refused(error);
    }
    if (!S_ISREG(before.st_mode)) {
      close(dir);
      return FileOpenResult::kNotFound;
    }
    const int file =
        openat(dir, part.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    const int error = errno;
    close(dir);
    if (file < 0) return refused(error);
    struct stat after;
    if (fstat(file, &after) != 0 || !S_ISREG(after.st_mode) || after.st_dev != before.st_dev ||
        after.st_ino != before.st_ino) {
      close(file);
      return FileOpenResult::kNotFound;
    }
    *fd = file;
    return FileOpenResult::kOpened;
  }
}

DownloadType DownloadTypeOf(const std::string& name) {
  static const std::pair<const char*, const char*> kInline[] = {
      {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"}, {"png", "image/png"},
      {"gif", "image/gif"},       {"webp", "image/webp"}, {"bmp", "image/bmp"},
      {"ico", "image/x-icon"},    {"avif", "image/avif"}, {"pdf", "application/pdf"},
      {"mp3", "audio/mpeg"},      {"m4a", "audio/mp4"},   {"aac", "audio/aac"},
      {"flac", "audio/flac"},     {"wav", "audio/wav"},   {"ogg", "audio/ogg"},
      {"oga", "audio/ogg"},       {"opus", "audio/ogg"},  {"mp4", "video/mp4"},
      {"m4v", "video/mp4"},       {"webm", "video/webm"}, {"ogv", "video/ogg"},
      {"mov", "video/quicktime"},
  };
  // Shown as plain text, never as what they are: an HTML, SVG or script file
  // from a share must not run in the page's origin.
  static const char* const kText[] = {
      "txt",  "text", "md",   "rst", "csv",   "tsv",  "log",  "ini",   "conf", "yaml", "yml",
      "json", "xml",  "html", "htm", "xhtml", "tex",  "c",    "h",     "cc",   "cpp",  "cxx",
      "hpp",  "hh",   "py",   "pl",  "sh",    "java", "js",   "ts",    "go",   "rs",   "rb",
      "php",  "s",    "asm",  "dts", "dtsi",  "css",  "diff", "patch",
  };
  const size_t slash = name.rfind('/');
  const std::string base = slash == std::string::npos ? name : name.substr(slash + 1);
  const size_t dot = base.rfind('.');
  if (dot == std::string::npos || dot == 0) return {"application/octet-stream", false};
  std::string ext = base.substr(dot + 1);
  for (char& c : ext) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  for (const auto& [suffix, type] : kInline) {
    if (ext == suffix) return {type, true};
  }
  for (const char* suffix : kText) {
    if (ext == suffix) return {"text/plain", true};
  }
  return {"application/octet-stream", false};
}

std::string ContentDisposition(const std::string& name, bool as_attachment) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string ascii, encoded;
  const auto* p = reinterpret_cast<const unsigned char*>(name.data());
  for (size_t i = 0; i < name.size();) {
    size_t length = Json::utf8SequenceLength(p + i, name.size() - i);
    std::string character;
    if (length == 0) {
      character = "\xEF\xBF\xBD";
      length = 1;
    } else {
      character = name.substr(i, length);
    }
    i += length;
    const unsigned char first = static_cast<unsigned char>(character[0]);
    const bool printable = character.size() == 1 && first >= 0x20 && first < 0x7f;
    ascii += printable && first != '"' && first != '\\' ? static_cast<char>(first) : '_';
    for (unsigned char c : character) {
      if (isalnum(c) || strchr("!#$&+-.^_`|~", c)) {
        encoded += static_cast<char>(c);
      } else {
        encoded += '%';
        encoded += kHex[c >> 4];
        encoded += kHex[c & 15];
      }
    }
  }
  return std::string(as_attachment ? "attachment" : "inline") + "; filename=\"" + ascii +
         "\"; filename*=UTF-8''" + encoded;
}

ByteRange ParseRange(const std::string& header, uint64_t size) {
  ByteRange range;
  if (header.size() < 7 || strncasecmp(header.c_str(), "bytes=", 6) != 0) return range;
  std::string ranges = header.substr(6);
  while (!ranges.empty() && ranges.front() == ' ') ranges.erase(0, 1);
  while (!ranges.empty() && ranges.back() == ' ') ranges.pop_back();
  const size_t dash = ranges.find('-');
  if (dash == std::string::npos || ranges.find(',') != std::string::npos) return range;
  const std::string first_text = ranges.substr(0, dash);
  const std::string last_text = ranges.substr(dash + 1);
  uint64_t first = 0, last = 0;
  if (first_text.empty()) {
    // The last N bytes.
    if (!ParseNumber(last_text, &last)) return range;
    if (last == 0 || size == 0) {
      range.state = ByteRange::kUnsatisfiable;
      return range;
    }
    range.state = ByteRange::kPartial;
    range.length = last < size ? last : size;
    range.first = size - range.length;
    return range;
  }
  if (!ParseNumber(first_text, &first)) return range;
  if (last_text.empty()) {
    last = UINT64_MAX;
  } else if (!ParseNumber(last_text, &last) || last < first) {
    return range;
  }
  if (first >= size) {
    range.state = ByteRange::kUnsatisfiable;
    return range;
  }
  if (last >= size) last = size - 1;
  range.state = ByteRange::kPartial;
  range.first = first;
  range.length = last - first + 1;
  return range;
}

}  // namespace host
}  // namespace kestondri
