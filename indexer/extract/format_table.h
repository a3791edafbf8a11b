// The one table that decides, by file name extension, which extractor reads
// a file. docs/extraction.md shows the same table; keep both in step.
//
// Thread-safe: the table is immutable.
#ifndef KESTONDRI_INDEXER_EXTRACT_FORMAT_TABLE_H_
#define KESTONDRI_INDEXER_EXTRACT_FORMAT_TABLE_H_

#include <cstdint>
#include <string>

namespace kestondri {
namespace indexer {

enum class DocFormat : uint8_t {
  kNone = 0,  // metadata only
  kText,      // plain text, source code, Markdown: read in-process
  kHtml,
  kPdf,
  kDocx,
  kXlsx,
  kPptx,
  kOdf,  // odt, ods, odp and their templates
};

// The format for `path`'s extension (case-insensitive); kNone when the
// extension is unknown or the name has none. Well-known extension-less
// names such as "README" or "Makefile" count as text.
DocFormat FormatForPath(const std::string& path);

// "text", "html", "pdf", "docx", "xlsx", "pptx", "odf", or "none".
const char* DocFormatName(DocFormat format);

// True for the formats parsed by complex libraries that a hostile file may
// crash, hang or blow up: they are read in the worker process.
bool RunsInWorker(DocFormat format);

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_FORMAT_TABLE_H_
