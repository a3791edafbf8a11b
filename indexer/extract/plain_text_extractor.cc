// Plain text, source code, Markdown: a bounded read, charset detection on
// the first block, conversion to UTF-8.
#include "extract/block_reader.h"
#include "extract/charset.h"
#include "extract/document_extractors.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

void ExtractPlainText(int fd, const ExtractLimits& limits, ExtractResult* result) {
  result->format = "text";
  BlockReader reader(fd, limits.max_input_bytes);
  if (!reader.Next() && !reader.error().empty()) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = reader.error();
    return;
  }
  const std::string charset = DetectCharset(reader.data(), reader.size());
  if (LooksBinary(reader.data(), reader.size(), charset)) {
    result->status = ExtractStatus::kBinary;
    result->detail = "binary content";
    return;
  }
  TextSink sink(limits.max_text_bytes);
  Utf8Converter converter(charset);
  do {
    converter.Convert(reader.data(), reader.size(), &sink);
  } while (!sink.full() && reader.Next());
  if (!reader.error().empty()) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = reader.error();
    return;
  }
  result->truncated = sink.full() || reader.StoppedAtLimit();
  if (!result->truncated) converter.Finish(&sink);
  result->charset = charset;
  result->text = sink.Take();
  result->status = ExtractStatus::kOk;
}

}  // namespace indexer
}  // namespace kestondri
