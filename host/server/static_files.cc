#include "server/static_files.h"

#include <sys/stat.h>

#include <cstdlib>
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
