#include "extract/document_extractors.h"

#include <libxml/parser.h>
#include <libxml/xmlerror.h>
#include <poppler/cpp/poppler-global.h>
#include <unistd.h>

namespace kestondri {
namespace indexer {

namespace {
void IgnorePoppler(const std::string&, void*) {}
void IgnoreXmlGeneric(void*, const char*, ...) {}
void IgnoreXmlStructured(void*, xmlErrorPtr) {}
}  // namespace

void ExtractDocument(int fd, DocFormat format, const ExtractLimits& limits, ExtractResult* result) {
  switch (format) {
    case DocFormat::kText:
      ExtractPlainText(fd, limits, result);
      return;
    case DocFormat::kHtml:
      ExtractHtml(fd, limits, result);
      return;
    case DocFormat::kPdf:
      ExtractPdf(fd, limits, result);
      return;
    case DocFormat::kDocx:
    case DocFormat::kXlsx:
    case DocFormat::kPptx:
    case DocFormat::kOdf:
      ExtractOffice(fd, format, limits, result);
      return;
    case DocFormat::kNone:
      break;
  }
  result->status = ExtractStatus::kUnsupported;
  result->format = DocFormatName(format);
}

void QuietParserLibraries() {
  poppler::set_debug_error_function(IgnorePoppler, nullptr);
  xmlInitParser();
  xmlSetGenericErrorFunc(nullptr, IgnoreXmlGeneric);
  xmlSetStructuredErrorFunc(nullptr, IgnoreXmlStructured);
}

}  // namespace indexer
}  // namespace kestondri
