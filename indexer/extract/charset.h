// Charset detection and conversion of text to UTF-8.
//
// Not thread-safe per object; distinct objects may be used concurrently.
#ifndef KESTONDRI_INDEXER_EXTRACT_CHARSET_H_
#define KESTONDRI_INDEXER_EXTRACT_CHARSET_H_

#include <iconv.h>

#include <cstddef>
#include <string>

#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

// The charset of a text that begins with `sample`, as an iconv name:
// from a byte-order mark, else as uchardet guesses it, else "UTF-8" when the
// sample is valid UTF-8, else "WINDOWS-1252" (the usual unlabelled 8-bit text).
std::string DetectCharset(const char* data, size_t size);

// True when the sample looks like binary data rather than text in `charset`
// (NUL bytes in a charset that has none).
bool LooksBinary(const char* data, size_t size, const std::string& charset);

// Converts a stream of chunks in one charset to UTF-8 into a TextSink.
// Bytes that are invalid in the source charset become U+FFFD; a character
// split across chunks is joined. A charset iconv does not know is read as
// UTF-8 (whose invalid bytes the sink replaces).
class Utf8Converter {
 public:
  explicit Utf8Converter(const std::string& charset);
  ~Utf8Converter();
  Utf8Converter(const Utf8Converter&) = delete;
  Utf8Converter& operator=(const Utf8Converter&) = delete;

  void Convert(const char* data, size_t size, TextSink* sink);
  // Flushes a character left incomplete at the end of the input.
  void Finish(TextSink* sink);

 private:
  iconv_t cd_ = reinterpret_cast<iconv_t>(-1);
  std::string carry_;  // an incomplete character from the previous chunk
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_CHARSET_H_
