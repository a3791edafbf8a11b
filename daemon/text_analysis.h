// How text becomes words, shared by what writes an index (MakeDocument) and
// by what reads it (the query builder and the highlighter): both sides must
// cut and fold words the same way or a word would not find itself.
//
// - Folding: accents and case do not matter. Text is decomposed (Unicode
//   NFKD, so ligatures and full-width forms become plain letters), marks
//   after Latin, Greek and Cyrillic letters are dropped (a Japanese voicing
//   mark is part of its letter and stays), case is folded (ß is ss, final
//   sigma is sigma), and the result recomposed. Apostrophes separate words
//   ("Chen's" is "chen" and "s"), and bytes that are not UTF-8 are spaces.
// - Names: a file or folder name is cut into its words at CamelCase,
//   underscores, hyphens, dots and between letters and digits, so
//   "QuarterlyReport_2024-Q3.final.pdf" is quarterly report 2024 q 3 final
//   pdf.
// - Word forms: words of letters (no digits or underscores: identifiers are
//   not language) are reduced to their stem by Xapian's stemmer of the
//   index's language.
//
// Everything here is stateless or immutable, and thread-safe.
#ifndef KESTONDRI_DAEMON_TEXT_ANALYSIS_H_
#define KESTONDRI_DAEMON_TEXT_ANALYSIS_H_

#include <xapian.h>

#include <string>
#include <utility>
#include <vector>

namespace kestondri {
namespace index {

// `text` with accents and non-ASCII case folded, apostrophes and invalid
// UTF-8 as spaces. ASCII letters keep their case (Xapian's term generator
// lowers them); text without either is returned as it is.
std::string FoldText(const std::string& text);
// One word folded and lower-cased entirely.
std::string FoldWord(const std::string& word);

// The words of a file or folder name, as they stand in it (not folded),
// and where each lies in it ([begin, end) byte offsets).
std::vector<std::string> NameWords(const std::string& name);
std::vector<std::pair<size_t, size_t>> NameWordSpans(const std::string& name);
// The same joined by spaces and folded: the text a name is indexed as.
std::string NameText(const std::string& name);

// Chinese, Japanese and Korean characters: words of these scripts are not
// separated by spaces and are indexed as character n-grams.
bool IsCjk(unsigned ch);
bool HasCjk(const std::string& utf8);

// Reduces words of letters to their stem in one language: Xapian's
// stemmer plus what it leaves apart in English ("analysis", "analyses").
// Not thread-safe (the stemmer keeps its work space): one per thread.
class Stemmer {
 public:
  Stemmer() = default;  // stems nothing
  // False for a language Xapian has no stemmer for. `language` is a name
  // ("english", "french", ...), a code ("fr") or "none".
  static bool Make(const std::string& language, Stemmer* out);
  // The language's name as Xapian calls it ("english"), "none" for none.
  const std::string& language() const { return language_; }
  // The stem of a folded word, or "" for a word that is not stemmed (digits,
  // underscores, fewer than 3 letters, Chinese, Japanese or Korean).
  std::string operator()(const std::string& folded_word) const;
  // The stem of a word as written, lower case with its accents (which some
  // stemmers need: French "achetées" and "acheter"), folded; "" as above.
  std::string AsWritten(const std::string& lower_word) const;

 private:
  std::string language_ = "none";
  Xapian::Stem stem_;
  bool english_ = false;
};

// The language every index gets unless its share's configuration names
// another.
constexpr const char kDefaultLanguage[] = "english";

// Number of characters (code points) of valid UTF-8.
size_t CharCount(const std::string& utf8);
// The first `chars` characters of `utf8`.
std::string FirstChars(const std::string& utf8, size_t chars);

}  // namespace index
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_TEXT_ANALYSIS_H_
