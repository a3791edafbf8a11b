// HTML through libxml2's push parser with SAX callbacks: text of the body,
// the title apart, script and style dropped, entities decoded by the parser.
// The input is converted to UTF-8 first (declared charset, else detected), so
// the parser is told to ignore the document's own encoding hints.
#include <iconv.h>
#include <libxml/HTMLparser.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

#include "extract/block_reader.h"
#include "extract/charset.h"
#include "extract/document_extractors.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

namespace {

constexpr size_t kMaxTitle = 1024;

// Elements whose content is not text for a reader.
constexpr const char* kSkipped[] = {"script", "style", "noscript", "template", "svg", "object"};
// Elements that end a line of text.
constexpr const char* kBlocks[] = {"address", "article", "aside",   "blockquote", "br",     "dd",
                                   "div",     "dl",      "dt",      "figcaption", "footer", "form",
                                   "h1",      "h2",      "h3",      "h4",         "h5",     "h6",
                                   "header",  "hr",      "li",      "main",       "nav",    "ol",
                                   "p",       "pre",     "section", "table",      "tr",     "ul"};
constexpr const char* kCells[] = {"td", "th"};

template <size_t N>
bool In(const char* const (&list)[N], const xmlChar* name) {
  const char* n = reinterpret_cast<const char*>(name);
  for (const char* item : list) {
    if (strcasecmp(item, n) == 0) return true;
  }
  return false;
}

struct HtmlState {
  explicit HtmlState(size_t capacity) : sink(capacity, true), title_sink(kMaxTitle, true) {}
  TextSink sink;
  TextSink title_sink;
  int skip_depth = 0;
  bool in_title = false;
};

void OnStart(void* ctx, const xmlChar* name, const xmlChar**) {
  HtmlState* s = static_cast<HtmlState*>(ctx);
  if (In(kSkipped, name)) {
    ++s->skip_depth;
  } else if (strcasecmp(reinterpret_cast<const char*>(name), "title") == 0) {
    s->in_title = true;
  } else if (In(kBlocks, name)) {
    s->sink.Break();
  } else if (In(kCells, name)) {
    s->sink.Space();
  }
}

void OnEnd(void* ctx, const xmlChar* name) {
  HtmlState* s = static_cast<HtmlState*>(ctx);
  if (In(kSkipped, name)) {
    if (s->skip_depth > 0) --s->skip_depth;
  } else if (strcasecmp(reinterpret_cast<const char*>(name), "title") == 0) {
    s->in_title = false;
  } else if (In(kBlocks, name)) {
    s->sink.Break();
  } else if (In(kCells, name)) {
    s->sink.Space();
  }
}

void OnText(void* ctx, const xmlChar* text, int len) {
  HtmlState* s = static_cast<HtmlState*>(ctx);
  if (s->skip_depth > 0) return;
  if (s->in_title) {
    s->title_sink.Append(reinterpret_cast<const char*>(text), len);
  } else {
    s->sink.Append(reinterpret_cast<const char*>(text), len);
  }
}

// The charset named by a <meta charset=...> or http-equiv declaration in the
// document's head, if iconv knows it.
std::string DeclaredCharset(const char* data, size_t size) {
  std::string head(data, std::min<size_t>(size, 4096));
  std::transform(head.begin(), head.end(), head.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  size_t pos = 0;
  while ((pos = head.find("charset", pos)) != std::string::npos) {
    pos += 7;
    size_t i = pos;
    while (i < head.size() &&
           (head[i] == ' ' || head[i] == '=' || head[i] == '"' || head[i] == '\''))
      ++i;
    size_t j = i;
    while (j < head.size() &&
           (std::isalnum(static_cast<unsigned char>(head[j])) || head[j] == '-' || head[j] == '_' ||
            head[j] == ':' || head[j] == '.'))
      ++j;
    if (j == i || j - i > 40) continue;
    std::string name = head.substr(i, j - i);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    if (name == "UTF8") name = "UTF-8";
    iconv_t cd = iconv_open("UTF-8", name.c_str());
    if (cd == reinterpret_cast<iconv_t>(-1)) continue;
    iconv_close(cd);
    return name;
  }
  errno = 0;
  return std::string();
}

struct ParserDeleter {
  void operator()(htmlParserCtxtPtr ctxt) const { htmlFreeParserCtxt(ctxt); }
};

}  // namespace

void ExtractHtml(int fd, const ExtractLimits& limits, ExtractResult* result) {
  result->format = "html";
  BlockReader reader(fd, limits.max_input_bytes);
  if (!reader.Next() && !reader.error().empty()) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = reader.error();
    return;
  }
  std::string charset = DetectCharset(reader.data(), reader.size());
  // A byte-order mark outranks a declaration; a declaration outranks a guess.
  const bool has_bom = charset.compare(0, 3, "UTF") == 0 &&
                       (charset != "UTF-8" ||
                        (reader.size() >= 3 && std::memcmp(reader.data(), "\xEF\xBB\xBF", 3) == 0));
  if (!has_bom) {
    const std::string declared = DeclaredCharset(reader.data(), reader.size());
    if (!declared.empty()) charset = declared;
  }
  if (LooksBinary(reader.data(), reader.size(), charset)) {
    result->status = ExtractStatus::kBinary;
    result->detail = "binary content";
    return;
  }

  HtmlState state(limits.max_text_bytes);
  htmlSAXHandler sax;
  std::memset(&sax, 0, sizeof(sax));
  sax.startElement = OnStart;
  sax.endElement = OnEnd;
  sax.characters = OnText;
  sax.cdataBlock = OnText;
  std::unique_ptr<htmlParserCtxt, ParserDeleter> ctxt(
      htmlCreatePushParserCtxt(&sax, &state, nullptr, 0, nullptr, XML_CHAR_ENCODING_UTF8));
  if (!ctxt) throw std::bad_alloc();
  htmlCtxtUseOptions(ctxt.get(), HTML_PARSE_RECOVER | HTML_PARSE_NOERROR | HTML_PARSE_NOWARNING |
                                     HTML_PARSE_NONET | HTML_PARSE_IGNORE_ENC);

  // The parser gets UTF-8: converted here into a sink that only validates.
  // Single-byte charsets grow at most threefold in UTF-8.
  Utf8Converter converter(charset);
  TextSink utf8(4 * BlockReader::kBlockSize);
  do {
    converter.Convert(reader.data(), reader.size(), &utf8);
    const std::string chunk = utf8.Drain();
    htmlParseChunk(ctxt.get(), chunk.data(), static_cast<int>(chunk.size()), 0);
  } while (!state.sink.full() && reader.Next());
  if (!reader.error().empty()) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = reader.error();
    return;
  }
  result->truncated = state.sink.full() || reader.StoppedAtLimit();
  if (!result->truncated) {
    converter.Finish(&utf8);
    const std::string tail = utf8.Take();
    htmlParseChunk(ctxt.get(), tail.data(), static_cast<int>(tail.size()), 0);
  }
  htmlParseChunk(ctxt.get(), nullptr, 0, 1);
  result->charset = charset;
  result->text = state.sink.Take();
  result->title = state.title_sink.Take();
  result->status = ExtractStatus::kOk;
}

}  // namespace indexer
}  // namespace kestondri
