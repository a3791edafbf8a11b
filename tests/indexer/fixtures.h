// Documents built at run time for the extraction tests: zip-based office
// files written with libarchive, PDFs written by hand, text in any charset.
#ifndef KEST_TESTS_INDEXER_FIXTURES_H_
#define KEST_TESTS_INDEXER_FIXTURES_H_

#include <string>
#include <utility>
#include <vector>

namespace kesttest {

using ZipMembers = std::vector<std::pair<std::string, std::string>>;

// Writes a zip archive of `members` (name, content), deflated unless
// `store`, encrypted with `passphrase` (traditional zip encryption) if given.
void WriteZip(const std::string& path, const ZipMembers& members, bool store = false,
              const char* passphrase = nullptr);

// A docx whose body holds one paragraph per item of `paragraphs`.
ZipMembers DocxMembers(const std::vector<std::string>& paragraphs, const std::string& title = "");
// An xlsx with shared strings, an inline string and numbers on one sheet.
ZipMembers XlsxMembers(const std::vector<std::string>& shared, const std::string& inline_text,
                       double number);
// A pptx with one slide per item, stored in the archive in reverse order.
ZipMembers PptxMembers(const std::vector<std::string>& slides);
// An ODF document (odt when `body` is "text", ods for "spreadsheet" ...)
// whose body holds one paragraph per item.
ZipMembers OdfMembers(const std::string& body, const std::vector<std::string>& paragraphs,
                      const std::string& title = "");

// A PDF with one page per item, set in Helvetica; `title` in its Info.
// `locked`: encrypted with a user password (its text cannot be read).
std::string MakePdf(const std::vector<std::string>& pages, const std::string& title = "",
                    bool locked = false);

// `utf8` converted to `charset` with iconv; aborts the test on failure.
std::string Encode(const std::string& utf8, const std::string& charset);

}  // namespace kesttest

#endif  // KEST_TESTS_INDEXER_FIXTURES_H_
