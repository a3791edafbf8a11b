// The keyword syntax of a search (docs/index-format.md), read into a tree
// that the query builder turns into a Xapian query and the highlighter
// into the words it marks.
//
//   words          all must match (or any, with "default_search_op" "OR")
//   "a phrase"     the words in this order, exact forms (accents folded)
//   word*          a word beginning with "word"
//   AND OR XOR NOT operators in capitals; ( ) group
//   +word -word    the word must / must not match
//   name: file: content: folder: ext:   where the next word or phrase must match
//
// A keyword is read as far as it is complete, since a search runs while
// the user types: an operator with nothing after it ("saffron OR") or
// before it ("AND"), an unclosed bracket, a lone + or - are ignored or
// closed at the end, never an error; an unclosed quote is a phrase whose
// last word is being typed. A lone * matches everything.
//
// Stateless and thread-safe.
#ifndef KESTONDRI_DAEMON_KEYWORD_H_
#define KESTONDRI_DAEMON_KEYWORD_H_

#include <string>
#include <vector>

namespace kestondri {
namespace daemon {

enum class KeywordField { kAny, kName, kContent, kFolder, kExtension };

struct KeywordNode {
  enum Kind {
    kNothing,   // nothing complete: matches nothing
    kAll,       // a lone *: matches everything
    kWord,      // `text`, a beginning when `prefix`
    kPhrase,    // `text`, the words between the quotes; its last word a
                // beginning when `prefix` (the quote was not closed)
    kAnd,       // all children
    kOr,        // any child
    kXor,       // an odd number of children
    kAndNot,    // the first child without the others
    kAndMaybe,  // the first child, ranked up by the others
  };
  Kind kind = kNothing;
  std::string text;
  KeywordField field = KeywordField::kAny;
  bool prefix = false;
  std::vector<KeywordNode> children;
};

// Reads `keyword`; never fails. Bytes that are not UTF-8 are blanks.
// `default_or`: words without an operator between them are alternatives.
KeywordNode ParseKeywordTree(const std::string& keyword, bool default_or);

// Number of word and phrase leaves of a tree.
size_t KeywordLeaves(const KeywordNode& node);

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_KEYWORD_H_
