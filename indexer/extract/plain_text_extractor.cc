// Plain text, source code, Markdown: a bounded read, charset detection on
// the first block, conversion to UTF-8.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "extract/charset.h"
#include "extract/document_extractors.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

namespace {
constexpr size_t kBlock = 64 * 1024;
}  // namespace

long ReadFull(int fd, char* buf, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(fd, buf + got, size - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<long>(got);
}

void ExtractPlainText(int fd, const ExtractLimits& limits, ExtractResult* result) {
  result->format = "text";
  std::vector<char> buf(kBlock);
  long n = ReadFull(fd, buf.data(), std::min<uint64_t>(buf.size(), limits.max_input_bytes));
  if (n < 0) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = std::string("read failed: ") + std::strerror(errno);
    return;
  }
  result->charset = DetectCharset(buf.data(), n);
  if (LooksBinary(buf.data(), n, result->charset)) {
    result->status = ExtractStatus::kBinary;
    result->detail = "binary content";
    result->charset.clear();
    return;
  }
  TextSink sink(limits.max_text_bytes);
  Utf8Converter converter(result->charset);
  uint64_t total = 0;
  bool more = n > 0;
  while (more) {
    converter.Convert(buf.data(), n, &sink);
    total += static_cast<uint64_t>(n);
    if (sink.full() || total >= limits.max_input_bytes) break;
    const size_t want =
        static_cast<size_t>(std::min<uint64_t>(buf.size(), limits.max_input_bytes - total));
    n = ReadFull(fd, buf.data(), want);
    if (n < 0) {
      result->status = ExtractStatus::kUnreadable;
      result->detail = std::string("read failed: ") + std::strerror(errno);
      result->text.clear();
      return;
    }
    more = n > 0;
  }
  if (sink.full()) {
    result->truncated = true;
  } else if (more) {
    // Stopped at the input bound: truncated only if something was left.
    char probe;
    result->truncated = ReadFull(fd, &probe, 1) == 1;
  } else {
    converter.Finish(&sink);
  }
  result->text = sink.Take();
  result->status = ExtractStatus::kOk;
}

}  // namespace indexer
}  // namespace kestondri
