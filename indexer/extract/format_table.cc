#include "extract/format_table.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace kestondri {
namespace indexer {

namespace {

struct FormatRow {
  const char* extension;  // lower case, without the dot
  DocFormat format;
};

// Sorted by extension: looked up with a binary search.
constexpr FormatRow kFormatTable[] = {
    {"asm", DocFormat::kText},      {"awk", DocFormat::kText},   {"bash", DocFormat::kText},
    {"bat", DocFormat::kText},      {"c", DocFormat::kText},     {"cc", DocFormat::kText},
    {"cfg", DocFormat::kText},      {"cmake", DocFormat::kText}, {"conf", DocFormat::kText},
    {"cpp", DocFormat::kText},      {"cs", DocFormat::kText},    {"css", DocFormat::kText},
    {"csv", DocFormat::kText},      {"cxx", DocFormat::kText},   {"diff", DocFormat::kText},
    {"docm", DocFormat::kDocx},     {"docx", DocFormat::kDocx},  {"dotx", DocFormat::kDocx},
    {"go", DocFormat::kText},       {"h", DocFormat::kText},     {"hh", DocFormat::kText},
    {"hpp", DocFormat::kText},      {"htm", DocFormat::kHtml},   {"html", DocFormat::kHtml},
    {"hxx", DocFormat::kText},      {"ini", DocFormat::kText},   {"java", DocFormat::kText},
    {"js", DocFormat::kText},       {"json", DocFormat::kText},  {"kt", DocFormat::kText},
    {"log", DocFormat::kText},      {"lua", DocFormat::kText},   {"m", DocFormat::kText},
    {"markdown", DocFormat::kText}, {"md", DocFormat::kText},    {"mk", DocFormat::kText},
    {"odp", DocFormat::kOdf},       {"ods", DocFormat::kOdf},    {"odt", DocFormat::kOdf},
    {"otp", DocFormat::kOdf},       {"ots", DocFormat::kOdf},    {"ott", DocFormat::kOdf},
    {"patch", DocFormat::kText},    {"pdf", DocFormat::kPdf},    {"php", DocFormat::kText},
    {"pl", DocFormat::kText},       {"pm", DocFormat::kText},    {"potx", DocFormat::kPptx},
    {"pptm", DocFormat::kPptx},     {"pptx", DocFormat::kPptx},  {"properties", DocFormat::kText},
    {"py", DocFormat::kText},       {"rb", DocFormat::kText},    {"rs", DocFormat::kText},
    {"rst", DocFormat::kText},      {"s", DocFormat::kText},     {"scala", DocFormat::kText},
    {"sh", DocFormat::kText},       {"sql", DocFormat::kText},   {"swift", DocFormat::kText},
    {"tex", DocFormat::kText},      {"toml", DocFormat::kText},  {"ts", DocFormat::kText},
    {"tsv", DocFormat::kText},      {"txt", DocFormat::kText},   {"xhtml", DocFormat::kHtml},
    {"xlsm", DocFormat::kXlsx},     {"xlsx", DocFormat::kXlsx},  {"xltx", DocFormat::kXlsx},
    {"xml", DocFormat::kText},      {"yaml", DocFormat::kText},  {"yml", DocFormat::kText},
    {"zsh", DocFormat::kText},
};

// Names without an extension that are text by convention.
constexpr const char* kTextNames[] = {
    "authors", "changelog", "copying", "dockerfile", "kbuild", "kconfig",
    "license", "makefile",  "news",    "readme",     "todo",
};

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

}  // namespace

DocFormat FormatForPath(const std::string& path) {
  const size_t slash = path.rfind('/');
  const std::string name = Lower(slash == std::string::npos ? path : path.substr(slash + 1));
  const size_t dot = name.rfind('.');
  // A leading dot marks a hidden file, not an extension (".bashrc").
  if (dot == std::string::npos || dot == 0) {
    const std::string base = dot == 0 ? name.substr(1) : name;
    for (const char* text_name : kTextNames) {
      if (base == text_name) return DocFormat::kText;
    }
    return DocFormat::kNone;
  }
  const std::string ext = name.substr(dot + 1);
  const FormatRow* end = std::end(kFormatTable);
  const FormatRow* row = std::lower_bound(std::begin(kFormatTable), end, ext,
                                          [](const FormatRow& r, const std::string& e) {
                                            return std::strcmp(r.extension, e.c_str()) < 0;
                                          });
  if (row != end && ext == row->extension) return row->format;
  return DocFormat::kNone;
}

const char* DocFormatName(DocFormat format) {
  switch (format) {
    case DocFormat::kText:
      return "text";
    case DocFormat::kHtml:
      return "html";
    case DocFormat::kPdf:
      return "pdf";
    case DocFormat::kDocx:
      return "docx";
    case DocFormat::kXlsx:
      return "xlsx";
    case DocFormat::kPptx:
      return "pptx";
    case DocFormat::kOdf:
      return "odf";
    case DocFormat::kNone:
      break;
  }
  return "none";
}

bool RunsInWorker(DocFormat format) {
  return format != DocFormat::kNone && format != DocFormat::kText;
}

}  // namespace indexer
}  // namespace kestondri
