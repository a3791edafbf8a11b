#include "text_analysis.h"

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/uscript.h>
#include <unicode/utf8.h>

namespace kestondri {
namespace index {
namespace {

bool IsApostrophe(UChar32 c) { return c == 0x2019 || c == 0x02BC || c == 0x2018; }

// Marks after letters of these scripts are accents; elsewhere (Japanese
// voicing marks, Indic vowel signs) they are part of the letter.
bool LosesMarks(UChar32 c) {
  if (!u_isalpha(c)) return false;
  UErrorCode err = U_ZERO_ERROR;
  const UScriptCode script = uscript_getScript(c, &err);
  return U_SUCCESS(err) &&
         (script == USCRIPT_LATIN || script == USCRIPT_GREEK || script == USCRIPT_CYRILLIC);
}

// Letters that carry their accent inside them rather than as a mark.
const char* Plain(UChar32 c) {
  switch (c) {
    case 0x00F8:  // ø
      return "o";
    case 0x0111:  // đ
    case 0x00F0:  // ð
      return "d";
    case 0x0142:  // ł
      return "l";
    case 0x0127:  // ħ
      return "h";
    case 0x0167:  // ŧ
      return "t";
    case 0x00E6:  // æ
      return "ae";
    case 0x0153:  // œ
      return "oe";
    case 0x0131:  // ı
      return "i";
    case 0x00FE:  // þ
      return "th";
    default:
      return nullptr;
  }
}

// Folds one run of non-ASCII characters (valid UTF-8, no apostrophes) onto
// `out`. `strip` says whether marks at its start follow a letter that loses
// them; on return it says the same of the run's last character.
void FoldRun(const icu::UnicodeString& run, bool* strip, std::string* out) {
  UErrorCode err = U_ZERO_ERROR;
  static const icu::Normalizer2* nfkd = icu::Normalizer2::getNFKDInstance(err);
  static const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(err);
  if (!nfkd || !nfc) {
    run.toUTF8String(*out);
    return;
  }
  err = U_ZERO_ERROR;
  icu::UnicodeString decomposed = nfkd->normalize(run, err);
  // Folding may make what decomposes again (İ is i and a dot above).
  decomposed.foldCase(U_FOLD_CASE_DEFAULT);
  decomposed = nfkd->normalize(decomposed, err);
  if (U_FAILURE(err)) {
    run.toUTF8String(*out);
    return;
  }
  icu::UnicodeString kept;
  for (int32_t i = 0; i < decomposed.length();) {
    const UChar32 c = decomposed.char32At(i);
    i += U16_LENGTH(c);
    if (u_charType(c) == U_NON_SPACING_MARK) {
      if (!*strip) kept.append(c);
      continue;
    }
    *strip = LosesMarks(c);
    if (const char* plain = Plain(c)) {
      kept.append(icu::UnicodeString(plain));
    } else {
      kept.append(c);
    }
  }
  icu::UnicodeString composed = nfc->normalize(kept, err);
  (U_SUCCESS(err) ? composed : kept).toUTF8String(*out);
}

// Latin, Greek and Cyrillic letters fold one by one: a table made once by
// FoldRun itself spares the Unicode library's conversions for most
// accented text.
constexpr UChar32 kTableEnd = 0x530;
struct Folded {
  std::string text;
  bool mark = false;   // a combining mark: dropped or kept as FoldRun would
  bool loses = false;  // marks after it are dropped
};
const std::vector<Folded>& FoldTable() {
  static const std::vector<Folded> table = [] {
    std::vector<Folded> t(kTableEnd);
    for (UChar32 c = 0x80; c < kTableEnd; ++c) {
      if (u_charType(c) == U_NON_SPACING_MARK) {
        t[c].mark = true;
        continue;
      }
      bool strip = false;
      FoldRun(icu::UnicodeString(c), &strip, &t[c].text);
      t[c].loses = strip;
    }
    return t;
  }();
  return table;
}

bool IsUpper(unsigned ch) {
  const auto cat = Xapian::Unicode::get_category(ch);
  return cat == Xapian::Unicode::UPPERCASE_LETTER || cat == Xapian::Unicode::TITLECASE_LETTER;
}

bool IsLetter(unsigned ch) {
  switch (Xapian::Unicode::get_category(ch)) {
    case Xapian::Unicode::UPPERCASE_LETTER:
    case Xapian::Unicode::LOWERCASE_LETTER:
    case Xapian::Unicode::TITLECASE_LETTER:
    case Xapian::Unicode::MODIFIER_LETTER:
    case Xapian::Unicode::OTHER_LETTER:
      return true;
    default:
      return false;
  }
}

bool IsMark(unsigned ch) {
  const auto cat = Xapian::Unicode::get_category(ch);
  return cat == Xapian::Unicode::NON_SPACING_MARK || cat == Xapian::Unicode::ENCLOSING_MARK ||
         cat == Xapian::Unicode::COMBINING_SPACING_MARK;
}

bool IsDigit(unsigned ch) {
  const auto cat = Xapian::Unicode::get_category(ch);
  return cat == Xapian::Unicode::DECIMAL_DIGIT_NUMBER || cat == Xapian::Unicode::OTHER_NUMBER ||
         cat == Xapian::Unicode::LETTER_NUMBER;
}

}  // namespace

std::string FoldText(const std::string& text) {
  bool plain = true;
  for (unsigned char c : text) {
    if (c >= 0x80 || c == '\'') {
      plain = false;
      break;
    }
  }
  if (plain) return text;
  std::string out;
  out.reserve(text.size() + text.size() / 8);
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const int32_t n = static_cast<int32_t>(text.size());
  bool strip = false;
  icu::UnicodeString run;
  auto flush = [&] {
    if (run.isEmpty()) return;
    FoldRun(run, &strip, &out);
    run.remove();
  };
  for (int32_t i = 0; i < n;) {
    if (s[i] < 0x80) {
      flush();
      const char c = static_cast<char>(s[i++]);
      out += c == '\'' ? ' ' : c;
      strip = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
      continue;
    }
    const int32_t start = i;
    UChar32 c;
    U8_NEXT(s, i, n, c);
    if (c < 0 || IsApostrophe(c)) {
      flush();
      out += ' ';
      strip = false;
      continue;
    }
    if (c < kTableEnd) {
      flush();
      const Folded& f = FoldTable()[c];
      if (!f.mark) {
        out += f.text;
        strip = f.loses;
      } else if (!strip) {
        out.append(text, static_cast<size_t>(start), static_cast<size_t>(i - start));
      }
      continue;
    }
    run.append(c);
  }
  flush();
  return out;
}

std::string FoldWord(const std::string& word) {
  std::string folded = FoldText(word);
  for (auto& c : folded) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + ('a' - 'A'));
  }
  return folded;
}

bool IsCjk(unsigned ch) {
  return (ch >= 0x1100 && ch <= 0x11FF) ||  // Hangul Jamo
         (ch >= 0x2E80 && ch <= 0x2FDF) ||  // CJK radicals, Kangxi
         (ch >= 0x3000 && ch <= 0x9FFF) ||  // punctuation, kana, CJK, unified ideographs
         (ch >= 0xA960 && ch <= 0xA97F) ||  // Hangul Jamo extended
         (ch >= 0xAC00 && ch <= 0xD7FF) ||  // Hangul syllables
         (ch >= 0xF900 && ch <= 0xFAFF) ||  // compatibility ideographs
         (ch >= 0xFF00 && ch <= 0xFFEF) ||  // half-width and full-width forms
         (ch >= 0x20000 && ch <= 0x3FFFF);  // supplementary ideographs
}

bool HasCjk(const std::string& utf8) {
  for (Xapian::Utf8Iterator it(utf8); it != Xapian::Utf8Iterator(); ++it) {
    if (IsCjk(*it)) return true;
  }
  return false;
}

std::vector<std::pair<size_t, size_t>> NameWordSpans(const std::string& name) {
  enum Kind { kNone, kLower, kUpper, kOther, kDigit, kCjk };
  std::vector<std::pair<size_t, size_t>> spans;
  // The current word: where it began, where its last character began, and
  // the kinds of its last two characters.
  size_t begin = 0, last = 0, end = 0;
  Kind prev = kNone, before = kNone;
  auto flush = [&] {
    if (prev != kNone) spans.emplace_back(begin, end);
    prev = before = kNone;
  };
  const auto* s = reinterpret_cast<const uint8_t*>(name.data());
  const int32_t n = static_cast<int32_t>(name.size());
  for (int32_t i = 0; i < n;) {
    const size_t at = static_cast<size_t>(i);
    UChar32 c;
    U8_NEXT(s, i, n, c);
    if (c < 0) {
      flush();
      continue;
    }
    const unsigned ch = static_cast<unsigned>(c);
    if (IsMark(ch) && prev != kNone) {
      end = static_cast<size_t>(i);
      continue;
    }
    Kind kind = kNone;
    if (IsCjk(ch) && (IsLetter(ch) || IsDigit(ch))) {
      kind = kCjk;
    } else if (IsDigit(ch)) {
      kind = kDigit;
    } else if (IsLetter(ch)) {
      kind = IsUpper(ch)                                                              ? kUpper
             : Xapian::Unicode::get_category(ch) == Xapian::Unicode::LOWERCASE_LETTER ? kLower
                                                                                      : kOther;
    }
    if (kind == kNone) {
      flush();
      continue;
    }
    if (prev != kNone) {
      const bool digit_edge = (kind == kDigit) != (prev == kDigit);
      const bool cjk_edge = (kind == kCjk) != (prev == kCjk);
      if (digit_edge || cjk_edge || (prev == kLower && kind == kUpper)) {
        flush();
      } else if (prev == kUpper && kind == kLower && before == kUpper) {
        // "XMLParser": the last capital starts the next word.
        spans.emplace_back(begin, last);
        begin = last;
        before = kNone;
      }
    }
    if (prev == kNone) begin = at;
    before = prev;
    prev = kind;
    last = at;
    end = static_cast<size_t>(i);
  }
  flush();
  return spans;
}

std::vector<std::string> NameWords(const std::string& name) {
  std::vector<std::string> words;
  for (const auto& span : NameWordSpans(name)) {
    words.push_back(name.substr(span.first, span.second - span.first));
  }
  return words;
}

std::string NameText(const std::string& name) {
  std::string text;
  for (const auto& word : NameWords(name)) {
    if (!text.empty()) text += ' ';
    text += word;
  }
  return FoldText(text);
}

bool Stemmer::Make(const std::string& language, Stemmer* out) {
  Stemmer made;
  if (language != "none" && !language.empty()) {
    try {
      made.stem_ = Xapian::Stem(language);
    } catch (const Xapian::InvalidArgumentError&) {
      return false;
    }
    // "Xapian::Stem(english)": the canonical name, whatever code was given.
    const std::string description = made.stem_.get_description();
    const size_t open = description.find('(');
    made.language_ = open == std::string::npos
                         ? language
                         : description.substr(open + 1, description.size() - open - 2);
    made.english_ = made.language_ == "english";
  }
  *out = made;
  return true;
}

std::string Stemmer::operator()(const std::string& folded_word) const {
  if (stem_.is_none() || folded_word.size() < 3) return "";
  size_t chars = 0;
  for (size_t i = 0; i < folded_word.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(folded_word[i]);
    if (c >= 0x80) {
      // Past ASCII: letters of any script but CJK.
      for (Xapian::Utf8Iterator it(folded_word.data() + i, folded_word.size() - i);
           it != Xapian::Utf8Iterator(); ++it, ++chars) {
        if (!IsLetter(*it) || IsCjk(*it)) return "";
      }
      break;
    }
    if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'))) return "";
    ++chars;
  }
  if (chars < 3) return "";
  // Words ending in -sis make their plural in -ses; the English stemmer
  // keeps the two apart, so such a word is stemmed as its plural.
  if (english_ && folded_word.size() >= 5 &&
      folded_word.compare(folded_word.size() - 3, 3, "sis") == 0) {
    return stem_(folded_word.substr(0, folded_word.size() - 2) + "es");
  }
  return stem_(folded_word);
}

std::string Stemmer::AsWritten(const std::string& lower_word) const {
  const std::string stem = (*this)(lower_word);
  return stem.empty() ? stem : FoldWord(stem);
}

size_t CharCount(const std::string& utf8) {
  size_t n = 0;
  for (unsigned char c : utf8) n += (c & 0xC0) != 0x80;
  return n;
}

std::string FirstChars(const std::string& utf8, size_t chars) {
  size_t i = 0;
  for (size_t seen = 0; i < utf8.size(); ++i) {
    if ((static_cast<unsigned char>(utf8[i]) & 0xC0) != 0x80 && seen++ == chars) break;
  }
  return utf8.substr(0, i);
}

}  // namespace index
}  // namespace kestondri
