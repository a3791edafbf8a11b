#include "index_schema.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>

namespace kestondri {
namespace index {
namespace {

// Xapian refuses terms over 245 bytes; leave room for the prefix.
constexpr size_t kMaxExactValue = 200;

struct TypeTable {
  const char* type;
  std::vector<std::string> extensions;
};

const std::vector<TypeTable>& TypeTables() {
  static const std::vector<TypeTable> tables = {
      {kTypeDocument,
       {"txt",  "text",  "md",      "rst",  "csv",  "tsv",  "log",    "rtf",   "pdf", "doc",
        "docx", "dot",   "dotx",    "odt",  "ott",  "xls",  "xlsx",   "ods",   "ppt", "pptx",
        "odp",  "pages", "numbers", "key",  "epub", "htm",  "html",   "xhtml", "xml", "json",
        "yaml", "yml",   "ini",     "conf", "tex",  "c",    "h",      "cc",    "cpp", "cxx",
        "hpp",  "hh",    "py",      "pl",   "sh",   "java", "js",     "ts",    "go",  "rs",
        "rb",   "php",   "s",       "asm",  "dts",  "dtsi", "kconfig"}},
      {kTypePhoto,
       {"jpg", "jpeg", "png", "gif", "bmp", "tif", "tiff", "webp", "heic", "heif", "svg",
        "ico", "raw",  "cr2", "cr3", "nef", "arw", "dng",  "orf",  "rw2",  "psd"}},
      {kTypeVideo,
       {"mp4", "m4v", "mkv", "avi", "mov", "wmv", "flv", "webm", "mpg", "mpeg", "m2ts", "mts", "ts",
        "3gp", "vob", "ogv", "rm", "rmvb", "asf"}},
      {kTypeAudio,
       {"mp3", "m4a", "aac", "flac", "wav", "ogg", "oga", "opus", "wma", "aiff", "aif", "ape",
        "alac", "mid", "midi", "amr"}},
  };
  return tables;
}

std::string Lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

// Cuts `text` to at most `limit` bytes without splitting a UTF-8 sequence.
std::string CutUtf8(const std::string& text, size_t limit) {
  if (text.size() <= limit) return text;
  size_t end = limit;
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return text.substr(0, end);
}

}  // namespace

const char* FileTypeOfExtension(const std::string& extension) {
  // "ts" is both a TypeScript source and an MPEG transport stream; the first
  // table that names an extension wins, in the order above.
  static const std::map<std::string, const char*> by_extension = [] {
    std::map<std::string, const char*> m;
    for (const auto& table : TypeTables()) {
      for (const auto& ext : table.extensions) m.emplace(ext, table.type);
    }
    return m;
  }();
  auto it = by_extension.find(Lower(extension));
  return it == by_extension.end() ? kTypeOther : it->second;
}

const std::vector<std::string>& ExtensionsOfType(const std::string& type) {
  static const std::vector<std::string> none;
  for (const auto& table : TypeTables()) {
    if (type == table.type) return table.extensions;
  }
  return none;
}

bool IsKnownType(const std::string& type) {
  return type == kTypeAll || type == kTypeFolder || type == kTypeDocument || type == kTypePhoto ||
         type == kTypeVideo || type == kTypeAudio || type == kTypeOther;
}

std::string ExactTerm(const char* prefix, const std::string& value) {
  if (value.size() <= kMaxExactValue) return prefix + value;
  // Two independent 64-bit digests make an accidental clash between two long
  // values of one index practically impossible.
  size_t h1 = std::hash<std::string>()(value);
  size_t h2 = std::hash<std::string>()(value + "\x01" + std::to_string(value.size()));
  char digest[40];
  std::snprintf(digest, sizeof digest, "#%016zx%016zx", h1, h2);
  return prefix + value.substr(0, kMaxExactValue - 40) + digest;
}

std::string ExtensionOfName(const std::string& name, bool is_dir) {
  if (is_dir) return "";
  auto dot = name.rfind('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == name.size()) return "";
  return Lower(name.substr(dot + 1));
}

std::string FileIdentity(const struct stat& st) {
  char text[96];
  std::snprintf(text, sizeof text, "%llu:%llu:%lld.%09ld",
                static_cast<unsigned long long>(st.st_dev),
                static_cast<unsigned long long>(st.st_ino),
                static_cast<long long>(st.st_ctim.tv_sec), static_cast<long>(st.st_ctim.tv_nsec));
  return text;
}

std::string UniqueTerm(const std::string& path) { return ExactTerm(kPrefixUnique, path); }

Xapian::Document MakeDocument(const FileRecord& record) {
  Xapian::Document doc;
  doc.add_value(kSlotPath, record.path);
  doc.add_value(kSlotName, record.name);
  doc.add_value(kSlotExtension, record.extension);
  doc.add_value(kSlotIsDir, record.is_dir ? "1" : "0");
  doc.add_value(kSlotSize, Xapian::sortable_serialise(static_cast<double>(record.size)));
  doc.add_value(kSlotMTime, Xapian::sortable_serialise(static_cast<double>(record.mtime)));
  doc.add_value(kSlotOwner, std::to_string(record.owner_uid));
  if (!record.identity.empty()) doc.add_value(kSlotIdentity, record.identity);

  Xapian::TermGenerator gen;
  gen.set_document(doc);
  gen.index_text(record.name, 1, kPrefixName);
  // A gap keeps phrases from running from the name into the content.
  gen.increase_termpos(100);
  if (!record.text.empty()) gen.index_text(record.text, 1, kPrefixContent);

  doc.add_boolean_term(UniqueTerm(record.path));
  doc.add_boolean_term(ExactTerm(kPrefixExactPath, record.path));
  doc.add_boolean_term(ExactTerm(kPrefixExactName, record.name));
  if (!record.extension.empty()) {
    doc.add_boolean_term(ExactTerm(kPrefixExtension, Lower(record.extension)));
  }
  doc.add_boolean_term(std::string(kPrefixIsDir) + (record.is_dir ? "1" : "0"));
  doc.add_boolean_term(std::string(kPrefixType) +
                       (record.is_dir ? kTypeFolder : FileTypeOfExtension(record.extension)));
  doc.add_boolean_term(kPrefixOwner + std::to_string(record.owner_uid));
  doc.set_data(CutUtf8(record.text, kMaxStoredText));
  return doc;
}

std::string SlotText(const Xapian::Document& doc, Slot slot) { return doc.get_value(slot); }

double SlotNumber(const Xapian::Document& doc, Slot slot) {
  std::string v = doc.get_value(slot);
  return v.empty() ? 0.0 : Xapian::sortable_unserialise(v);
}

}  // namespace index
}  // namespace kestondri
