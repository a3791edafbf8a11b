// The file download endpoint's parts: which files a user may fetch, how the
// worker opens one as the user, and the HTTP pieces of the answer (type,
// Content-Disposition, Range). The worker decides with the kernel as judge;
// the master only sends the bytes of the descriptor it was handed.
#ifndef KESTONDRI_HOST_SERVER_FILE_ACCESS_H_
#define KESTONDRI_HOST_SERVER_FILE_ACCESS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kestondri {
namespace host {

// What a worker found when asked for a file.
enum class FileOpenResult {
  kOpened,
  kNotFound,  // missing, not a regular file, a symbolic link on the way, or outside every
              // indexed folder the user may see (the same answer, so nothing is learnt)
  kDenied,    // the kernel refused the user
};

// `reference` as a hit names its file: the path, or "hex:" and the path's
// bytes in hexadecimal (a path that is not UTF-8). False when it is neither
// an absolute path in canonical form (no "." or ".." component, no empty one,
// no NUL) nor a well-formed "hex:" reference.
bool DecodeFileReference(const std::string& reference, std::string* path);

// True when `path` lies strictly below one of `folders` (canonical paths).
bool PathBelowAny(const std::string& path, const std::vector<std::string>& folders);

// Opens the regular file at the canonical absolute `path` for reading with
// the caller's current identity, walking from "/" one component at a time
// without following any symbolic link, so that no link planted in a share
// leads out of it and no rename between a check and the open changes what
// is opened. `*fd` is the open descriptor (close-on-exec) on kOpened.
FileOpenResult OpenRegularFileNoLinks(const std::string& path, int* fd);

// The Content-Type a file is sent with, and whether a browser may show it
// in place: only types that run no script in the page's origin (text as
// plain text, pictures, sound, video, PDF); everything else is an
// application/octet-stream attachment.
struct DownloadType {
  const char* content_type;
  bool inline_ok;
};
DownloadType DownloadTypeOf(const std::string& name);

// `inline` or `attachment` with the file's name, as RFC 6266 says: an ASCII
// stand-in and the UTF-8 name percent-encoded (bytes that are not UTF-8 as
// U+FFFD), so that no byte of a name can end the header or add another.
std::string ContentDisposition(const std::string& name, bool as_attachment);

// One byte range of a file of `size` bytes from a Range header.
struct ByteRange {
  enum State { kWhole, kPartial, kUnsatisfiable } state = kWhole;
  uint64_t first = 0;
  uint64_t length = 0;
};
// kWhole for no header, a malformed one or several ranges (sending the
// whole file is always a correct answer); kUnsatisfiable when the one range
// starts past the end.
ByteRange ParseRange(const std::string& header, uint64_t size);

}  // namespace host
}  // namespace kestondri

#endif  // KESTONDRI_HOST_SERVER_FILE_ACCESS_H_
