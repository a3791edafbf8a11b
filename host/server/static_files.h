// Static files of the web page: where a URL path leads inside the configured
// folder, and what type a file is served as. The master serves them as root,
// so nothing outside the folder may be reached: no "..", no NUL, no symbolic
// link leading out. Thread-safe; touches the file system read-only.
#ifndef KESTONDRI_HOST_SERVER_STATIC_FILES_H_
#define KESTONDRI_HOST_SERVER_STATIC_FILES_H_

#include <sys/stat.h>

#include <string>

namespace kestondri {
namespace host {

// The regular file that the percent-encoded `url_path` names below `root`
// (a resolved path without a trailing slash); a folder stands for its
// index.html. "" when there is none or it lies outside `root`.
std::string ResolveStaticFile(const std::string& root, const std::string& url_path);

// The Content-Type for a file name.
const char* StaticMimeType(const std::string& path);

// The gzip twin of a resolved static file (`file` + ".gz", made when the
// page was built), when it is a regular file inside `root`; "" otherwise.
std::string StaticGzipTwin(const std::string& root, const std::string& file);

// Whether an Accept-Encoding header lets gzip through (named, or "*", with a
// weight above zero).
bool AcceptsGzip(const std::string& accept_encoding);

// A strong validator of one file's content: its inode, size and
// modification time, which every rewrite of the file changes.
std::string FileETag(const struct stat& st);

// Whether an If-None-Match header names `etag` (or is "*").
bool ETagMatches(const std::string& if_none_match, const std::string& etag);

// The page's Content-Security-Policy: its own files only, no inline script
// or style, and DOM sinks that refuse plain strings (Trusted Types), so
// that no file name or fragment can become script.
extern const char kPageSecurityPolicy[];

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_STATIC_FILES_H_
