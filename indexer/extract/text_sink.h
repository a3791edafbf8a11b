// A bounded collector of extracted text. Whatever bytes are appended, what
// comes out is valid UTF-8 of at most the capacity: invalid sequences become
// U+FFFD, control characters other than tab and newline become spaces, and
// the text is cut at a character boundary once the capacity is reached.
//
// Not thread-safe; owned by the one extraction that fills it.
#ifndef KESTONDRI_INDEXER_EXTRACT_TEXT_SINK_H_
#define KESTONDRI_INDEXER_EXTRACT_TEXT_SINK_H_

#include <cstddef>
#include <string>

namespace kestondri {
namespace indexer {

class TextSink {
 public:
  // With `collapse_whitespace`, runs of white space become one space and
  // runs of Break() one newline: markup formats, whose layout white space
  // means nothing. Without it the text keeps its own lines (plain text).
  explicit TextSink(size_t capacity, bool collapse_whitespace = false);
  TextSink(const TextSink&) = delete;
  TextSink& operator=(const TextSink&) = delete;

  // Appends UTF-8 (or what claims to be). A character split across two
  // calls is joined; Finish() flushes a dangling partial one as U+FFFD.
  void Append(const char* data, size_t size);
  void Append(const std::string& s) { Append(s.data(), s.size()); }
  // Ends a paragraph (collapsing mode) or appends a newline.
  void Break();
  // Separates two words (collapsing mode) or appends a space.
  void Space();
  void Finish();

  // True once more text arrived than fits: extractors stop reading then.
  bool full() const { return full_; }
  const std::string& text() const { return text_; }
  std::string Take();
  // Hands over the text so far without Finish(): a character split at the
  // end stays pending for the next Append, and the capacity counts anew.
  // For streams converted chunk by chunk.
  std::string Drain();

 private:
  void PutCodePoint(unsigned cp, const char* bytes, size_t len);
  void PutSeparator(char c);

  size_t capacity_;
  bool collapse_;
  bool full_ = false;
  std::string text_;
  char pending_[4];  // the head of a character split across Append calls
  size_t pending_len_ = 0;
  char last_ = '\n';      // the last byte kept, to collapse separators
  bool last_cr_ = false;  // the last character was "\r"
};

// Replaces every invalid UTF-8 sequence of `s` by U+FFFD.
std::string SanitizeUtf8(const std::string& s);
bool IsValidUtf8(const std::string& s);

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_TEXT_SINK_H_
