#include "highlighter.h"

#include <kest/json.h>
#include <xapian.h>

#include <algorithm>

#include "text_analysis.h"

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

// Whether a folded word is one of `terms`; `lower` is the word as written
// in lower case when that differs from it (its stem may differ too).
bool Matches(const std::string& word, const MarkTerms& terms, const std::string& lower = "") {
  if (terms.words.count(word)) return true;
  for (const auto& prefix : terms.prefixes) {
    if (word.compare(0, prefix.size(), prefix) == 0) return true;
  }
  for (size_t s = 0; s < terms.stems.size(); ++s) {
    for (const auto& stem : terms.stems[s]) {
      // Stemmers change only a word's ending: a word that does not share
      // the stem's beginning is not worth stemming.
      const size_t head = stem.size() > 1 ? stem.size() - 1 : stem.size();
      if (word.compare(0, head, stem, 0, head) != 0) continue;
      if (terms.stems[s].count(terms.stemmers[s](word))) return true;
      if (!lower.empty() && terms.stems[s].count(terms.stemmers[s].AsWritten(lower))) return true;
      break;
    }
  }
  return false;
}

std::string Lower(const std::string& word) {
  std::string lower;
  for (Xapian::Utf8Iterator it(word); it != Xapian::Utf8Iterator(); ++it) {
    Xapian::Unicode::append_utf8(lower, Xapian::Unicode::tolower(*it));
  }
  return lower;
}

// The spans of [begin, end) of `text` to mark: one word of the text as the
// scan cut it.
void MarksIn(const std::string& text, size_t begin, size_t end, bool ascii,
             const std::string& lower, const MarkTerms& terms, bool name_words,
             std::vector<Span>* out) {
  if (!ascii && !terms.cjk.empty() && index::HasCjk(text.substr(begin, end - begin))) {
    // No spaces between the words: look for the keyword's strings in it.
    for (const auto& cjk : terms.cjk) {
      for (size_t at = text.find(cjk, begin); at != std::string::npos && at + cjk.size() <= end;
           at = text.find(cjk, at + cjk.size())) {
        out->push_back({at, at + cjk.size()});
      }
    }
    std::sort(out->begin(), out->end(),
              [](const Span& a, const Span& b) { return a.begin < b.begin; });
    // Marks may not overlap: the first of two overlapping ones stays.
    size_t kept = 0;
    for (size_t k = 0; k < out->size(); ++k) {
      if (kept > 0 && (*out)[k].begin < (*out)[kept - 1].end) continue;
      (*out)[kept++] = (*out)[k];
    }
    out->resize(kept);
    return;
  }
  if (end - begin > 256) return;  // longer than any word of a keyword
  const std::string whole = text.substr(begin, end - begin);
  if (ascii ? Matches(lower, terms) : Matches(index::FoldWord(whole), terms, Lower(whole))) {
    out->push_back({begin, end});
    return;
  }
  if (!name_words) return;
  for (const auto& part : index::NameWordSpans(whole)) {
    if (part.first == 0 && part.second == whole.size()) continue;
    if (Matches(index::FoldWord(whole.substr(part.first, part.second - part.first)), terms)) {
      out->push_back({begin + part.first, begin + part.second});
    }
  }
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
  std::vector<Span> spans;
  while (i < limit && done.size() < options.num_fragments) {
    unsigned ch;
    size_t len = next(i, &ch);
    if (!is_word(ch)) {
      i += len;
      continue;
    }
    size_t begin = i;
    bool ascii = true;
    word.clear();
    while (i < limit) {
      len = next(i, &ch);
      if (!is_word(ch)) break;
      ascii = ascii && ch < 0x80;
      // Words longer than any term cannot match; stop building them early.
      if (word.size() < 256 && ch < 0x80) {
        word += static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch + 32 : ch);
      }
      i += len;
    }
    spans.clear();
    MarksIn(text, begin, i, ascii, word, terms, options.name_words, &spans);
    for (const Span& match : spans) {
      if (open && match.end <= current.end) {
        current.marks.push_back(match);
        continue;
      }
      if (open) done.push_back(std::move(current));
      open = false;
      if (done.size() >= options.num_fragments) break;
      current = OpenFragment(text, match, frag_length);
      open = true;
    }
  }
  if (open && done.size() < options.num_fragments) done.push_back(std::move(current));
  for (const auto& f : done) result.push_back(Render(text, f));
  return result;
}

}  // namespace daemon
}  // namespace kestondri
