#include "extract/extractor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "extract/document_extractors.h"
#include "extract/format_table.h"

namespace kestondri {
namespace indexer {

namespace {

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

int OpenForReading(const std::string& path) {
  // O_NONBLOCK: a FIFO under a text-like name must not block the open.
  const int flags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
  int fd = open(path.c_str(), flags | O_NOATIME);
  if (fd < 0 && errno == EPERM) fd = open(path.c_str(), flags);  // not the owner
  return fd;
}

bool WorthLogging(ExtractStatus status) {
  switch (status) {
    case ExtractStatus::kOk:
    case ExtractStatus::kUnsupported:
    case ExtractStatus::kBinary:
      return false;
    default:
      return true;
  }
}

// A file name may hold any byte but '/' and NUL: no line breaks in a log.
std::string Printable(const std::string& s) {
  std::string out = s;
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  }
  return out;
}

}  // namespace

Extractor::Extractor(ExtractorOptions options)
    : options_(std::move(options)), worker_(options_.worker) {}

ExtractResult Extractor::Extract(const std::string& path, const ExtractLimits& limits) {
  ExtractResult result;
  const DocFormat format = FormatForPath(path);
  result.format = DocFormatName(format);
  if (format == DocFormat::kNone) {
    result.status = ExtractStatus::kUnsupported;
    return result;
  }
  FileDescriptor fd(OpenForReading(path));
  struct stat st;
  if (fd.get() < 0) {
    result.status = errno == ELOOP ? ExtractStatus::kUnsupported : ExtractStatus::kUnreadable;
    result.detail = std::string("open failed: ") + std::strerror(errno);
  } else if (fstat(fd.get(), &st) != 0) {
    result.status = ExtractStatus::kUnreadable;
    result.detail = std::string("fstat failed: ") + std::strerror(errno);
  } else if (!S_ISREG(st.st_mode)) {
    result.status = ExtractStatus::kUnsupported;
    result.detail = "not a regular file";
  } else {
    fcntl(fd.get(), F_SETFL, fcntl(fd.get(), F_GETFL) & ~O_NONBLOCK);
    if (RunsInWorker(format)) {
      result = worker_.Run(fd.get(), format, limits);
    } else {
      ExtractDocument(fd.get(), format, limits, &result);
    }
  }
  errno = 0;
  if (options_.log_failures && WorthLogging(result.status)) {
    syslog(LOG_WARNING, "extract %s: %s%s%s", Printable(path).c_str(),
           ExtractStatusName(result.status), result.detail.empty() ? "" : ": ",
           Printable(result.detail).c_str());
  }
  return result;
}

}  // namespace indexer
}  // namespace kestondri
