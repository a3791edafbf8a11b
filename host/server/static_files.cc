#include "server/static_files.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "server/request_params.h"

namespace kestondri {
namespace host {
namespace {

std::string RealPath(const std::string& path) {
  char* resolved = realpath(path.c_str(), nullptr);
  std::string real = resolved ? resolved : "";
  free(resolved);
  return real;
}

bool IsDirectory(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

std::string ResolveStaticFile(const std::string& root, const std::string& url_path) {
  std::string decoded;
  if (!PercentDecode(url_path, false, &decoded) || decoded.empty() || decoded[0] != '/' ||
      decoded.find('\0') != std::string::npos || decoded.find("/..") != std::string::npos) {
    return "";
  }
  std::string real = RealPath(root + decoded);
  // The index file is resolved too: it may be a link of its own.
  if (!real.empty() && IsDirectory(real)) real = RealPath(real + "/index.html");
  struct stat st;
  if (real.compare(0, root.size() + 1, root + "/") != 0 || stat(real.c_str(), &st) != 0 ||
      !S_ISREG(st.st_mode)) {
    return "";
  }
  return real;
}

const char kPageSecurityPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; "
    "connect-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'self'; "
    "frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'";

std::string StaticGzipTwin(const std::string& root, const std::string& file) {
  const std::string twin = RealPath(file + ".gz");
  struct stat st;
  if (twin.empty() || twin.compare(0, root.size() + 1, root + "/") != 0 ||
      stat(twin.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return "";
  }
  return twin;
}

bool AcceptsGzip(const std::string& accept_encoding) {
  size_t begin = 0;
  while (begin < accept_encoding.size()) {
    size_t end = accept_encoding.find(',', begin);
    if (end == std::string::npos) end = accept_encoding.size();
    std::string item = accept_encoding.substr(begin, end - begin);
    begin = end + 1;
    std::string name = item.substr(0, item.find(';'));
    name.erase(0, name.find_first_not_of(" \t"));
    name.erase(name.find_last_not_of(" \t") + 1);
    if (strcasecmp(name.c_str(), "gzip") != 0 && name != "*") continue;
    const size_t q = item.find("q=");
    if (q == std::string::npos || strtod(item.c_str() + q + 2, nullptr) > 0) return true;
  }
  return false;
}

std::string FileETag(const struct stat& st) {
  char text[96];
  snprintf(text, sizeof(text), "\"%llx-%llx-%llx-%lx\"", static_cast<unsigned long long>(st.st_ino),
           static_cast<unsigned long long>(st.st_size),
           static_cast<unsigned long long>(st.st_mtim.tv_sec), st.st_mtim.tv_nsec);
  return text;
}

bool ETagMatches(const std::string& if_none_match, const std::string& etag) {
  if (if_none_match.find_first_not_of(" \t") != std::string::npos &&
      if_none_match.substr(if_none_match.find_first_not_of(" \t"), 1) == "*") {
    return true;
  }
  size_t at = 0;
  while ((at = if_none_match.find(etag, at)) != std::string::npos) {
    // A weak comparison, as for If-None-Match: W/"x" matches "x".
    const size_t after = at + etag.size();
    if (after == if_none_match.size() || if_none_match[after] == ',' ||
        if_none_match[after] == ' ') {
      return true;
    }
    at = after;
  }
  return false;
}

const char* StaticMimeType(const std::string& path) {
  static const std::pair<const char*, const char*> kTypes[] = {
      {".html", "text/html; charset=utf-8"},
      {".htm", "text/html; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"},
      {".json", "application/json"},
      {".svg", "image/svg+xml"},
      {".png", "image/png"},
      {".jpg", "image/jpeg"},
      {".jpeg", "image/jpeg"},
      {".gif", "image/gif"},
      {".ico", "image/x-icon"},
      {".webmanifest", "application/manifest+json"},
      {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"},
  };
  const auto dot = path.rfind('.');
  if (dot != std::string::npos) {
    const std::string ext = path.substr(dot);
    for (const auto& [suffix, type] : kTypes) {
      if (ext == suffix) return type;
    }
  }
  return "application/octet-stream";
}

}  // namespace host
}  // namespace kestondri
