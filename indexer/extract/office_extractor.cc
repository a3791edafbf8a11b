// OOXML (docx, xlsx, pptx) and ODF documents: zip archives whose XML members
// hold the text. libarchive decompresses one member at a time straight into
// libxml2's streaming reader, so memory stays small whatever the member's
// size, and every decompressed byte counts against max_input_bytes (a zip
// bomb stops there).
#include <archive.h>
#include <archive_entry.h>
#include <libxml/xmlreader.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "extract/document_extractors.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

namespace {

constexpr size_t kMaxTitle = 1024;

// How the text of one kind of XML member is found. Names are local names
// (without the namespace prefix).
struct XmlRules {
  bool all_text;                  // every character counts (ODF)
  std::set<std::string> text;     // elements whose characters count
  std::set<std::string> breaks;   // elements that end a line
  std::set<std::string> spaces;   // elements that separate words
  std::set<std::string> skipped;  // subtrees that are not text
  bool spreadsheet_cells;         // <c t="s"><v> holds an index, not text
};

const XmlRules kWordRules{false, {"t"}, {"p", "br", "cr", "tr"}, {"tab", "tc"}, {}, false};
const XmlRules kSharedStringRules{false, {"t"}, {"si"}, {}, {"rPh"}, false};
const XmlRules kSheetRules{false, {"t", "v"}, {"row"}, {"c"}, {"f"}, true};
const XmlRules kSlideRules{false, {"t"}, {"p", "br"}, {"tc"}, {}, false};
const XmlRules kOdfRules{true,
                         {},
                         {"p", "h", "line-break", "list-item", "table-row", "frame"},
                         {"s", "tab", "table-cell"},
                         {"tracked-changes"},
                         false};
const XmlRules kTitleRules{false, {"title"}, {}, {}, {}, false};

// A member to read, its place in the text, and its rules.
struct Member {
  int rank;  // the document's order of members
  const XmlRules* rules;
  bool is_title;
};

// Which members of each format hold text, and in which order they come.
struct MemberRow {
  DocFormat format;
  const char* name;  // the whole name, or its beginning when `prefix`
  bool prefix;
  Member member;
};

const MemberRow kMemberTable[] = {
    {DocFormat::kDocx, "word/document.xml", false, {0, &kWordRules, false}},
    {DocFormat::kDocx, "word/header", true, {1, &kWordRules, false}},
    {DocFormat::kDocx, "word/footer", true, {2, &kWordRules, false}},
    {DocFormat::kDocx, "word/footnotes.xml", false, {3, &kWordRules, false}},
    {DocFormat::kDocx, "word/endnotes.xml", false, {4, &kWordRules, false}},
    {DocFormat::kDocx, "word/comments.xml", false, {5, &kWordRules, false}},
    {DocFormat::kDocx, "docProps/core.xml", false, {0, &kTitleRules, true}},
    {DocFormat::kXlsx, "xl/sharedStrings.xml", false, {0, &kSharedStringRules, false}},
    {DocFormat::kXlsx, "xl/worksheets/sheet", true, {1, &kSheetRules, false}},
    {DocFormat::kXlsx, "docProps/core.xml", false, {0, &kTitleRules, true}},
    {DocFormat::kPptx, "ppt/slides/slide", true, {0, &kSlideRules, false}},
    {DocFormat::kPptx, "ppt/notesSlides/notesSlide", true, {1, &kSlideRules, false}},
    {DocFormat::kPptx, "docProps/core.xml", false, {0, &kTitleRules, true}},
    {DocFormat::kOdf, "content.xml", false, {0, &kOdfRules, false}},
    {DocFormat::kOdf, "meta.xml", false, {0, &kTitleRules, true}},
};

bool EndsWith(const std::string& s, const char* suffix) {
  const size_t n = std::strlen(suffix);
  return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

bool Classify(DocFormat format, const std::string& name, Member* member) {
  if (!EndsWith(name, ".xml")) return false;
  for (const MemberRow& row : kMemberTable) {
    if (row.format != format) continue;
    if (row.prefix ? name.compare(0, std::strlen(row.name), row.name) == 0 : name == row.name) {
      *member = row.member;
      return true;
    }
  }
  return false;
}

// The number in a member's name ("slide12.xml" -> 12), for ordering.
long NumberIn(const std::string& name) {
  long n = 0;
  bool any = false;
  for (char c : name) {
    if (std::isdigit(static_cast<unsigned char>(c))) {
      if (n < 100000000) n = n * 10 + (c - '0');
      any = true;
    } else if (any) {
      break;
    }
  }
  return n;
}

// Feeds libxml2's reader from the archive's current member.
struct MemberInput {
  struct archive* archive;
  uint64_t* total;  // decompressed bytes of every member so far
  uint64_t limit;
  bool over_limit = false;
  bool read_error = false;
  const TextSink* sink;  // stop feeding once it is full
};

int ReadMember(void* context, char* buffer, int len) {
  MemberInput* in = static_cast<MemberInput*>(context);
  if (in->sink->full()) return 0;
  if (*in->total >= in->limit) {
    in->over_limit = true;
    return 0;
  }
  const uint64_t room = in->limit - *in->total;
  const size_t want = static_cast<size_t>(std::min<uint64_t>(static_cast<uint64_t>(len), room));
  const la_ssize_t n = archive_read_data(in->archive, buffer, want);
  if (n < 0) {
    in->read_error = true;
    return -1;
  }
  *in->total += static_cast<uint64_t>(n);
  return static_cast<int>(n);
}

int CloseMember(void*) { return 0; }

struct ReaderDeleter {
  void operator()(xmlTextReaderPtr r) const { xmlFreeTextReader(r); }
};
struct ArchiveDeleter {
  void operator()(struct archive* a) const { archive_read_free(a); }
};

enum class MemberOutcome { kDone, kMalformed, kOverLimit, kReadError };

MemberOutcome ReadXmlMember(MemberInput* input, const XmlRules& rules, TextSink* sink) {
  std::unique_ptr<xmlTextReader, ReaderDeleter> reader(
      xmlReaderForIO(ReadMember, CloseMember, input, nullptr, nullptr,
                     XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING));
  if (!reader) throw std::bad_alloc();
  int text_depth = 0;   // open elements whose characters count
  int skip_level = -1;  // depth of the skipped subtree we are in
  bool shared_cell = false;
  bool in_value = false;
  int rc;
  while ((rc = xmlTextReaderRead(reader.get())) == 1 && !sink->full()) {
    const int type = xmlTextReaderNodeType(reader.get());
    const int depth = xmlTextReaderDepth(reader.get());
    const char* local = reinterpret_cast<const char*>(xmlTextReaderConstLocalName(reader.get()));
    const std::string name = local != nullptr ? local : "";
    if (skip_level >= 0) {
      if (type == XML_READER_TYPE_END_ELEMENT && depth == skip_level) skip_level = -1;
      continue;
    }
    switch (type) {
      case XML_READER_TYPE_ELEMENT: {
        const bool empty = xmlTextReaderIsEmptyElement(reader.get()) == 1;
        if (rules.skipped.count(name)) {
          if (!empty) skip_level = depth;
          break;
        }
        if (rules.spreadsheet_cells && name == "c") {
          xmlChar* t = xmlTextReaderGetAttribute(reader.get(), BAD_CAST "t");
          shared_cell = t != nullptr && std::strcmp(reinterpret_cast<char*>(t), "s") == 0;
          xmlFree(t);
        }
        if (rules.text.count(name) && !empty) {
          ++text_depth;
          if (name == "v") in_value = true;
        }
        if (empty) {
          if (rules.breaks.count(name)) sink->Break();
          if (rules.spaces.count(name)) sink->Space();
        }
        break;
      }
      case XML_READER_TYPE_END_ELEMENT:
        if (rules.text.count(name) && text_depth > 0) --text_depth;
        if (name == "v") in_value = false;
        if (rules.breaks.count(name)) sink->Break();
        if (rules.spaces.count(name)) sink->Space();
        break;
      case XML_READER_TYPE_TEXT:
      case XML_READER_TYPE_CDATA:
      case XML_READER_TYPE_SIGNIFICANT_WHITESPACE:
        if ((rules.all_text || text_depth > 0) && !(in_value && shared_cell)) {
          const xmlChar* value = xmlTextReaderConstValue(reader.get());
          if (value != nullptr)
            sink->Append(reinterpret_cast<const char*>(value), xmlStrlen(value));
        }
        break;
      default:
        break;
    }
  }
  if (input->over_limit) return MemberOutcome::kOverLimit;
  if (input->read_error) return MemberOutcome::kReadError;
  if (rc < 0 && !sink->full()) return MemberOutcome::kMalformed;
  return MemberOutcome::kDone;
}

struct PartText {
  int rank;
  long number;
  std::string text;
};

}  // namespace

void ExtractOffice(int fd, DocFormat format, const ExtractLimits& limits, ExtractResult* result) {
  result->format = DocFormatName(format);
  std::unique_ptr<struct archive, ArchiveDeleter> archive(archive_read_new());
  if (!archive) throw std::bad_alloc();
  // The central directory, not the local headers: members written with data
  // descriptors are found and the names are the authoritative ones.
  archive_read_support_format_zip_seekable(archive.get());
  if (archive_read_open_fd(archive.get(), fd, 64 * 1024) != ARCHIVE_OK) {
    result->status = ExtractStatus::kMalformed;
    result->detail = std::string("not a zip archive: ") + archive_error_string(archive.get());
    return;
  }
  std::vector<PartText> parts;
  size_t used = 0;  // text bytes in `parts`, separators included
  uint64_t decompressed = 0;
  bool truncated = false;
  bool found = false;
  std::string problem;
  ExtractStatus status = ExtractStatus::kOk;
  struct archive_entry* entry;
  unsigned entries = 0;
  int rc;
  while ((rc = archive_read_next_header(archive.get(), &entry)) == ARCHIVE_OK ||
         rc == ARCHIVE_WARN) {
    if (++entries > limits.max_archive_entries) {
      problem = "too many archive members";
      truncated = true;
      break;
    }
    const char* raw_name = archive_entry_pathname(entry);
    Member member;
    if (raw_name == nullptr || !Classify(format, raw_name, &member)) continue;
    if (archive_entry_is_encrypted(entry)) {
      status = ExtractStatus::kEncrypted;
      problem = "encrypted member";
      break;
    }
    found = true;
    const size_t room = used < limits.max_text_bytes ? limits.max_text_bytes - used : 0;
    TextSink sink(member.is_title ? kMaxTitle : room, true);
    MemberInput input{archive.get(), &decompressed, limits.max_input_bytes, false, false, &sink};
    const MemberOutcome outcome = ReadXmlMember(&input, *member.rules, &sink);
    const bool full = sink.full();
    if (member.is_title) {
      result->title = sink.Take();
    } else {
      std::string text = sink.Take();
      if (!text.empty()) {
        used += text.size() + 1;
        parts.push_back(PartText{member.rank, NumberIn(raw_name), std::move(text)});
      }
      if (full) {
        truncated = true;
        break;
      }
    }
    if (outcome == MemberOutcome::kOverLimit) {
      truncated = true;
      problem = "input limit reached";
      break;
    }
    if (outcome == MemberOutcome::kReadError) {
      status = ExtractStatus::kMalformed;
      problem = std::string("archive read failed: ") + archive_error_string(archive.get());
      break;
    }
    if (outcome == MemberOutcome::kMalformed) {
      status = ExtractStatus::kMalformed;
      problem = std::string("malformed XML in ") + raw_name;
      break;
    }
  }
  if (rc == ARCHIVE_FATAL && status == ExtractStatus::kOk && !truncated) {
    status = ExtractStatus::kMalformed;
    problem = std::string("archive read failed: ") + archive_error_string(archive.get());
  }
  if (status == ExtractStatus::kOk && !found && problem.empty()) {
    problem = "no text members";
  }
  std::stable_sort(parts.begin(), parts.end(), [](const PartText& a, const PartText& b) {
    return a.rank != b.rank ? a.rank < b.rank : a.number < b.number;
  });
  for (PartText& part : parts) {
    if (!result->text.empty()) result->text.push_back('\n');
    result->text += part.text;
  }
  // A separator may have pushed the joined text one byte over.
  if (result->text.size() > limits.max_text_bytes) {
    TextSink cut(limits.max_text_bytes);
    cut.Append(result->text);
    result->text = cut.Take();
    truncated = true;
  }
  result->truncated = truncated;
  result->status = status;
  result->detail = problem;
  if (status == ExtractStatus::kEncrypted) result->text.clear();
}

}  // namespace indexer
}  // namespace kestondri
