#include "extract/text_sink.h"

#include <cstring>

namespace kestondri {
namespace indexer {

namespace {

constexpr char kReplacement[] = "\xEF\xBF\xBD";

// Decodes one character at `p`. Returns its length, -1 when the first byte
// does not start a valid character, or 0 when the `n` bytes present are a
// valid but incomplete start.
int DecodeOne(const unsigned char* p, size_t n, unsigned* cp) {
  const unsigned char b0 = p[0];
  if (b0 < 0x80) {
    *cp = b0;
    return 1;
  }
  int len;
  unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    len = 2;
    *cp = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    len = 3;
    *cp = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;  // overlong
    if (b0 == 0xED) hi = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    len = 4;
    *cp = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;  // overlong
    if (b0 == 0xF4) hi = 0x8F;  // beyond U+10FFFF
  } else {
    return -1;
  }
  for (int i = 1; i < len; ++i) {
    if (static_cast<size_t>(i) >= n) return 0;
    const unsigned char b = p[i];
    if (i == 1 ? (b < lo || b > hi) : (b < 0x80 || b > 0xBF)) return -1;
    *cp = (*cp << 6) | (b & 0x3F);
  }
  return len;
}

bool IsSpace(unsigned cp) { return cp == ' ' || cp == '\t' || cp == '\n' || cp == '\r'; }

}  // namespace

TextSink::TextSink(size_t capacity, bool collapse_whitespace)
    : capacity_(capacity), collapse_(collapse_whitespace) {}

void TextSink::Append(const char* data, size_t size) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(data);
  size_t i = 0;
  unsigned cp;
  if (pending_len_ > 0 && size > 0) {
    unsigned char tmp[8];
    std::memcpy(tmp, pending_, pending_len_);
    const size_t extra = size < 4 ? size : 4;
    std::memcpy(tmp + pending_len_, p, extra);
    const int len = DecodeOne(tmp, pending_len_ + extra, &cp);
    if (len > 0) {
      PutCodePoint(cp, reinterpret_cast<char*>(tmp), len);
      i = len - pending_len_;
      pending_len_ = 0;
    } else if (len == 0) {
      std::memcpy(pending_ + pending_len_, p, extra);
      pending_len_ += extra;
      return;
    } else {
      // Each byte of the broken head stands for one replacement.
      for (size_t k = 0; k < pending_len_; ++k) PutCodePoint(0xFFFD, kReplacement, 3);
      pending_len_ = 0;
    }
  }
  while (i < size && !full_) {
    // Plain ASCII runs are the common case: copy them in one go.
    if (p[i] >= 0x20 && p[i] < 0x7F && !(collapse_ && p[i] == ' ')) {
      const unsigned char lowest = collapse_ ? 0x21 : 0x20;
      size_t j = i + 1;
      while (j < size && p[j] >= lowest && p[j] < 0x7F) ++j;
      const size_t room = capacity_ - text_.size();
      if (j - i > room) {
        j = i + room;
        full_ = true;
      }
      if (j > i) {
        text_.append(data + i, j - i);
        last_ = data[j - 1];
        last_cr_ = false;
      }
      i = j;
      continue;
    }
    const int len = DecodeOne(p + i, size - i, &cp);
    if (len == 0) {
      pending_len_ = size - i;
      std::memcpy(pending_, p + i, pending_len_);
      return;
    }
    if (len < 0) {
      PutCodePoint(0xFFFD, kReplacement, 3);
      ++i;
      continue;
    }
    PutCodePoint(cp, data + i, len);
    i += len;
  }
}

void TextSink::PutCodePoint(unsigned cp, const char* bytes, size_t len) {
  if (full_) return;
  if (cp == 0xFEFF) return;  // a byte-order mark is no text
  if (cp < 0x20 || cp == 0x7F || (cp >= 0x80 && cp < 0xA0)) {
    if (cp == '\n' || cp == '\r') {
      // "\r\n" is one line end, a lone "\r" too.
      if (cp == '\n' && last_cr_) {
        last_cr_ = false;
        return;
      }
      last_cr_ = cp == '\r';
      if (collapse_) {
        PutSeparator(' ');
      } else {
        PutSeparator('\n');
      }
      return;
    }
    last_cr_ = false;
    PutSeparator(cp == '\t' && !collapse_ ? '\t' : ' ');
    return;
  }
  last_cr_ = false;
  if (collapse_ && IsSpace(cp)) {
    PutSeparator(' ');
    return;
  }
  if (text_.size() + len > capacity_) {
    full_ = true;
    return;
  }
  text_.append(bytes, len);
  last_ = bytes[len - 1];
}

void TextSink::PutSeparator(char c) {
  if (full_) return;
  if (collapse_) {
    if (last_ == '\n' || (last_ == ' ' && c == ' ')) return;
    if (last_ == ' ') {  // a paragraph end wins over a word gap
      text_.back() = '\n';
      last_ = '\n';
      return;
    }
  }
  if (text_.size() + 1 > capacity_) {
    full_ = true;
    return;
  }
  text_.push_back(c);
  last_ = c;
}

void TextSink::Break() {
  last_cr_ = false;
  PutSeparator('\n');
}

void TextSink::Space() {
  last_cr_ = false;
  PutSeparator(' ');
}

void TextSink::Finish() {
  for (size_t k = 0; k < pending_len_; ++k) PutCodePoint(0xFFFD, kReplacement, 3);
  pending_len_ = 0;
  if (collapse_) {
    while (!text_.empty() && (text_.back() == ' ' || text_.back() == '\n')) text_.pop_back();
  }
}

std::string TextSink::Take() {
  Finish();
  std::string out;
  out.swap(text_);
  return out;
}

std::string TextSink::Drain() {
  std::string out;
  out.swap(text_);
  full_ = false;
  return out;
}

std::string SanitizeUtf8(const std::string& s) {
  std::string out;
  out.reserve(s.size());
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t i = 0;
  while (i < s.size()) {
    unsigned cp;
    const int len = DecodeOne(p + i, s.size() - i, &cp);
    if (len > 0) {
      out.append(s, i, len);
      i += len;
    } else {
      out.append(kReplacement);
      ++i;
    }
  }
  return out;
}

bool IsValidUtf8(const std::string& s) {
  const unsigned char* p = reinterpret_cast<const unsigned char*>(s.data());
  size_t i = 0;
  while (i < s.size()) {
    unsigned cp;
    const int len = DecodeOne(p + i, s.size() - i, &cp);
    if (len <= 0) return false;
    i += len;
  }
  return true;
}

}  // namespace indexer
}  // namespace kestondri
