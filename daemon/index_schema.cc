#include "index_schema.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <functional>
#include <map>
#include <set>

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

size_t MaxBeginning(const std::string& field_prefix) {
  return field_prefix == kPrefixContent ? 3 : 4;
}

std::string BeginningPrefix(const std::string& field_prefix) {
  return kPrefixBeginning + field_prefix.substr(1);
}

std::string FoldersBetween(const std::string& root, const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos || root.empty()) return "";
  std::string base = root;
  while (base.size() > 1 && base.back() == '/') base.pop_back();
  if (path.compare(0, base.size(), base) != 0 || path.size() <= base.size() ||
      (path[base.size()] != '/' && base != "/")) {
    return "";
  }
  const size_t from = base == "/" ? 1 : base.size() + 1;
  return slash > from ? path.substr(from, slash - from) : "";
}

namespace {

// Adds the terms derived from the words of the free-text fields: stems
// where they differ from the word, and the words' beginnings. One walk over
// the document's terms, which are sorted: the fields' words come in runs.
void AddDerivedTerms(Xapian::Document& doc, const Stemmer& stemmer) {
  struct Derived {
    std::string term;
    Xapian::termcount wdf;
  };
  std::vector<Derived> add;
  const std::string fields[] = {kPrefixContent, kPrefixFolder, kPrefixName};
  for (const std::string& prefix : fields) {
    const std::string stems = kStemMark + prefix;
    const std::string beginnings = BeginningPrefix(prefix);
    const size_t longest = MaxBeginning(prefix);
    // Sorted words share their beginnings with their neighbours: each
    // beginning is added once, with the wdf of all its words.
    std::vector<Derived> open(longest + 1);
    auto flush = [&](size_t n) {
      if (!open[n].term.empty()) add.push_back(open[n]);
      open[n].term.clear();
    };
    Xapian::TermIterator t = doc.termlist_begin();
    for (t.skip_to(prefix); t != doc.termlist_end(); ++t) {
      const std::string& term = *t;
      if (term.compare(0, prefix.size(), prefix) != 0) break;
      if (term.size() == prefix.size()) continue;
      const unsigned char first = static_cast<unsigned char>(term[prefix.size()]);
      if (first >= 'A' && first <= 'Z') continue;  // another field's prefix
      const std::string word = term.substr(prefix.size());
      // Chinese, Japanese and Korean text is indexed as n-grams already.
      if (first >= 0xE1 && HasCjk(word)) continue;
      const Xapian::termcount wdf = std::max<Xapian::termcount>(t.get_wdf(), 1);
      const std::string stem = stemmer(word);
      if (!stem.empty() && stem != word) add.push_back({stems + stem, wdf});
      const size_t chars = CharCount(word);
      for (size_t n = kMinBeginning; n <= longest && n < chars; ++n) {
        std::string beginning = beginnings + FirstChars(word, n);
        if (beginning == open[n].term) {
          open[n].wdf += wdf;
        } else {
          flush(n);
          open[n] = {std::move(beginning), wdf};
        }
      }
    }
    for (size_t n = kMinBeginning; n <= longest; ++n) flush(n);
  }
  for (const auto& d : add) doc.add_term(d.term, d.wdf);
}

// For each word of `text` that folding changes: the word as it stands,
// lower case, under `accented` (see kPrefixAccentedContent), and its stem
// as written (Stemmer::AsWritten) where that differs from the folded
// word's, under the field's stem prefix.
void AddWrittenForms(Xapian::Document& doc, const std::string& text, bool name_words,
                     const std::string& prefix, const char* accented, const Stemmer& stemmer) {
  bool ascii = true;
  for (unsigned char c : text) ascii = ascii && c < 0x80;
  if (ascii) return;
  std::vector<std::string> words;
  if (name_words) {
    words = NameWords(text);
  } else {
    Xapian::Utf8Iterator it(text), end;
    while (it != end) {
      if (!Xapian::Unicode::is_wordchar(*it)) {
        ++it;
        continue;
      }
      std::string word;
      for (; it != end && Xapian::Unicode::is_wordchar(*it); ++it) {
        Xapian::Unicode::append_utf8(word, *it);
      }
      words.push_back(std::move(word));
    }
  }
  std::set<std::string> seen;
  for (const auto& written : words) {
    bool plain = true;
    std::string word;
    for (Xapian::Utf8Iterator it(written); it != Xapian::Utf8Iterator(); ++it) {
      plain = plain && *it < 0x80;
      Xapian::Unicode::append_utf8(word, Xapian::Unicode::tolower(*it));
    }
    if (plain || word.size() > 64 || !seen.insert(word).second) continue;
    const std::string folded = FoldWord(word);
    if (folded == word) continue;
    if (accented) doc.add_term(accented + word);
    const std::string stem = stemmer.AsWritten(word);
    if (!stem.empty() && stem != folded && stem != stemmer(folded)) {
      doc.add_term(kStemMark + prefix + stem);
    }
  }
}

}  // namespace

Xapian::Document MakeDocument(const FileRecord& record, const Stemmer& stemmer) {
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
  gen.set_flags(Xapian::TermGenerator::FLAG_CJK_NGRAM);
  gen.set_document(doc);
  gen.index_text(NameText(record.name), 1, kPrefixName);
  // A gap keeps phrases from running from the name into the content.
  gen.increase_termpos(100);
  for (size_t from = 0; from < record.folders.size();) {
    size_t slash = record.folders.find('/', from);
    if (slash == std::string::npos) slash = record.folders.size();
    gen.index_text_without_positions(NameText(record.folders.substr(from, slash - from)), 1,
                                     kPrefixFolder);
    from = slash + 1;
  }
  if (!record.text.empty()) {
    const std::string folded = FoldText(record.text);
    size_t cut = std::min(folded.size(), kMaxPositionalText);
    if (cut < folded.size()) {
      // On a character boundary, and at a blank when there is one near.
      while (cut > 0 && (static_cast<unsigned char>(folded[cut]) & 0xC0) == 0x80) --cut;
      for (size_t back = cut; back + 256 > cut && back > 0; --back) {
        if (folded[back] == ' ' || folded[back] == '\n') {
          cut = back;
          break;
        }
      }
    }
    gen.index_text(Xapian::Utf8Iterator(folded.data(), cut), 1, kPrefixContent);
    if (cut < folded.size()) {
      gen.index_text_without_positions(
          Xapian::Utf8Iterator(folded.data() + cut, folded.size() - cut), 1, kPrefixContent);
    }
    AddWrittenForms(doc, CutUtf8(record.text, kMaxPositionalText), false, kPrefixContent,
                    kPrefixAccentedContent, stemmer);
  }
  AddWrittenForms(doc, record.name, true, kPrefixName, kPrefixAccentedName, stemmer);
  AddWrittenForms(doc, record.folders, true, kPrefixFolder, nullptr, stemmer);
  AddDerivedTerms(doc, stemmer);

  doc.add_boolean_term(UniqueTerm(record.path));
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

Xapian::Document MakeDocument(const FileRecord& record) {
  thread_local const Stemmer stemmer = [] {
    Stemmer made;
    Stemmer::Make(kDefaultLanguage, &made);
    return made;
  }();
  return MakeDocument(record, stemmer);
}

std::string SlotText(const Xapian::Document& doc, Slot slot) { return doc.get_value(slot); }

double SlotNumber(const Xapian::Document& doc, Slot slot) {
  std::string v = doc.get_value(slot);
  return v.empty() ? 0.0 : Xapian::sortable_unserialise(v);
}

}  // namespace index
}  // namespace kestondri
