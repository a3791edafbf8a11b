// Cuts fragments of a text around the words of a keyword, each match wrapped
// in <em>..</em> and everything else HTML-escaped. A word matches as the
// index matches it (accents and case folded, any form of the word, a
// beginning), and is marked as it stands in the text.
//
// Bounded work whatever the text's size: the scan stops once the wanted
// fragments are complete or after `scan_limit` bytes, and each fragment is
// at most about `frag_length` bytes. Stateless and thread-safe.
#ifndef KESTONDRI_DAEMON_HIGHLIGHTER_H_
#define KESTONDRI_DAEMON_HIGHLIGHTER_H_

#include <string>
#include <vector>

#include "query_builder.h"

namespace kestondri {
namespace daemon {

struct FragmentOptions {
  size_t frag_length = 100;
  size_t num_fragments = 3;
  size_t scan_limit = 1u << 20;
  // The text is a name or a path: its words are cut as names are
  // (index::NameWords), "QuarterlyReport" marks "Report".
  bool name_words = false;
};

// Limits applied to what a request asks for.
constexpr size_t kMinFragLength = 20;
constexpr size_t kMaxFragLength = 2000;
constexpr size_t kMaxNumFragments = 50;

std::vector<std::string> HighlightFragments(const std::string& text, const MarkTerms& terms,
                                            const FragmentOptions& options);

// `text` HTML-escaped; invalid UTF-8 becomes U+FFFD so that the reply stays
// valid JSON text.
std::string EscapeHtml(const std::string& text);

}  // namespace daemon
}  // namespace kestondri

#endif  // KESTONDRI_DAEMON_HIGHLIGHTER_H_
