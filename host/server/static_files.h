// Static files of the web page: where a URL path leads inside the configured
// folder, and what type a file is served as. The master serves them as root,
// so nothing outside the folder may be reached: no "..", no NUL, no symbolic
// link leading out. Thread-safe; touches the file system read-only.
#ifndef KESTONDRI_HOST_SERVER_STATIC_FILES_H_
#define KESTONDRI_HOST_SERVER_STATIC_FILES_H_

#include <string>

namespace kestondri {
namespace host {

// The regular file that the percent-encoded `url_path` names below `root`
// (a resolved path without a trailing slash); a folder stands for its
// index.html. "" when there is none or it lies outside `root`.
std::string ResolveStaticFile(const std::string& root, const std::string& url_path);

// The Content-Type for a file name.
const char* StaticMimeType(const std::string& path);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_STATIC_FILES_H_
