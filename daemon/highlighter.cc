#include "highlighter.h"

#include <kest/json.h>
#include <xapian.h>

#include <algorithm>

namespace kestondri {
namespace daemon {
namespace {

struct Span {
  size_t begin;
  size_t end;
};

struct Fragment {
  size_t begin;
  size_t end;
  std::vector<Span> marks;
};

// Moves `pos` back to the start of the UTF-8 sequence it falls in.
size_t CharStart(const std::string& text, size_t pos) {
  while (pos > 0 && pos < text.size() && (static_cast<unsigned char>(text[pos]) & 0xC0) == 0x80) {
    --pos;
  }
  return pos;
}

bool Matches(const std::string& word, const MarkTerms& terms) {
  if (terms.words.count(word)) return true;
  for (const auto& prefix : terms.prefixes) {
    if (word.compare(0, prefix.size(), prefix) == 0) return true;
  }
  return false;
}

Fragment OpenFragment(const std::string& text, const Span& match, size_t frag_length) {
  Fragment f;
  size_t lead = frag_length / 3;
  size_t begin = match.begin > lead ? match.begin - lead : 0;
  begin = CharStart(text, begin);
  // Start on a word boundary when one is near.
  for (size_t i = begin; begin > 0 && i < match.begin && i < begin + 16; ++i) {
    if (text[i] == ' ' || text[i] == '\n' || text[i] == '\t') {
      begin = i + 1;
      break;
    }
  }
  size_t end = std::max(match.end, std::min(text.size(), begin + frag_length));
  f.begin = begin;
  f.end = end < text.size() ? CharStart(text, end) : text.size();
  if (f.end < match.end) f.end = match.end;
  f.marks.push_back(match);
  return f;
}

std::string Render(const std::string& text, const Fragment& f) {
  std::string out;
  size_t pos = f.begin;
  for (const auto& mark : f.marks) {
    out += EscapeHtml(text.substr(pos, mark.begin - pos));
    out += "<em>";
    out += EscapeHtml(text.substr(mark.begin, mark.end - mark.begin));
    out += "</em>";
    pos = mark.end;
  }
  out += EscapeHtml(text.substr(pos, f.end - pos));
  return out;
}

}  // namespace

std::string EscapeHtml(const std::string& text) {
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  const auto* p = reinterpret_cast<const unsigned char*>(text.data());
  size_t i = 0, n = text.size();
  while (i < n) {
    switch (p[i]) {
      case '&':
        out += "&amp;";
        ++i;
        continue;
      case '<':
        out += "&lt;";
        ++i;
        continue;
      case '>':
        out += "&gt;";
        ++i;
        continue;
      case '"':
        out += "&quot;";
        ++i;
        continue;
      case '\'':
        out += "&#39;";
        ++i;
        continue;
      default:
        break;
    }
    size_t len = Json::utf8SequenceLength(p + i, n - i);
    if (len == 0) {
      out += "\xEF\xBF\xBD";
      ++i;
    } else if (len == 1 && p[i] < 0x20 && p[i] != '\n' && p[i] != '\t' && p[i] != '\r') {
      out += ' ';
      ++i;
    } else {
      out.append(text, i, len);
      i += len;
    }
  }
  return out;
}

std::vector<std::string> HighlightFragments(const std::string& text, const MarkTerms& terms,
                                            const FragmentOptions& options) {
  std::vector<std::string> result;
  if (terms.empty() || options.num_fragments == 0 || text.empty()) return result;
  size_t frag_length = std::clamp(options.frag_length, kMinFragLength, kMaxFragLength);
  size_t limit = std::min(text.size(), options.scan_limit);

  std::vector<Fragment> done;
  bool open = false;
  Fragment current;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::string word;
  size_t i = 0;
  // One character at `i`: its code point and length, ASCII without any
  // decoding (most text is).
  auto next = [&](size_t at, unsigned* ch) -> size_t {
    if (bytes[at] < 0x80) {
      *ch = bytes[at];
      return 1;
    }
    Xapian::Utf8Iterator it(text.data() + at, limit - at);
    *ch = *it;
    size_t len = Json::utf8SequenceLength(bytes + at, limit - at);
    return len ? len : 1;
  };
  auto is_word = [](unsigned ch) {
    if (ch < 0x80) {
      return (ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') ||
             ch == '_';
    }
    return Xapian::Unicode::is_wordchar(ch);
  };
  while (i < limit && done.size() < options.num_fragments) {
    unsigned ch;
    size_t len = next(i, &ch);
    if (!is_word(ch)) {
      i += len;
      continue;
    }
    size_t begin = i;
    word.clear();
    while (i < limit) {
      len = next(i, &ch);
      if (!is_word(ch)) break;
      // Words longer than any term cannot match; stop building them early.
      if (word.size() < 256) {
        if (ch < 0x80) {
          word += static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch + 32 : ch);
        } else {
          Xapian::Unicode::append_utf8(word, Xapian::Unicode::tolower(ch));
        }
      }
      i += len;
    }
    size_t stop = i;
    if (!Matches(word, terms)) continue;
    Span match{begin, stop};
    if (open && match.end <= current.end) {
      current.marks.push_back(match);
      continue;
    }
    if (open) done.push_back(std::move(current));
    if (done.size() >= options.num_fragments) {
      open = false;
      break;
    }
    current = OpenFragment(text, match, frag_length);
    open = true;
  }
  if (open && done.size() < options.num_fragments) done.push_back(std::move(current));
  for (const auto& f : done) result.push_back(Render(text, f));
  return result;
}

}  // namespace daemon
}  // namespace kestondri
