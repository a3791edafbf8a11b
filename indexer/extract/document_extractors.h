// The parsers, one per kind of document. Each reads the open regular file
// `fd` from its start (the descriptor stays the caller's), within `limits`,
// and fills `result` (status, text, truncated, charset, title, detail).
// They run wherever they are called: the caller decides which run in the
// worker process. They throw nothing but std::bad_alloc.
#ifndef KESTONDRI_INDEXER_EXTRACT_DOCUMENT_EXTRACTORS_H_
#define KESTONDRI_INDEXER_EXTRACT_DOCUMENT_EXTRACTORS_H_

#include "extract/extract_types.h"
#include "extract/format_table.h"

namespace kestondri {
namespace indexer {

void ExtractPlainText(int fd, const ExtractLimits& limits, ExtractResult* result);
void ExtractHtml(int fd, const ExtractLimits& limits, ExtractResult* result);
void ExtractPdf(int fd, const ExtractLimits& limits, ExtractResult* result);
// docx, xlsx, pptx and the ODF family.
void ExtractOffice(int fd, DocFormat format, const ExtractLimits& limits, ExtractResult* result);

// Calls the parser for `format`; kUnsupported for kNone.
void ExtractDocument(int fd, DocFormat format, const ExtractLimits& limits, ExtractResult* result);

// Silences the libraries' own error output (poppler, libxml2): their
// complaints about a broken file are not ours to print. Call once per process.
void QuietParserLibraries();

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_DOCUMENT_EXTRACTORS_H_
