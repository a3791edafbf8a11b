#include "extract/charset.h"

#include <uchardet/uchardet.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace kestondri {
namespace indexer {

namespace {

struct UchardetDeleter {
  void operator()(uchardet_t ud) const { uchardet_delete(ud); }
};

bool StartsWith(const char* data, size_t size, const char* prefix, size_t len) {
  return size >= len && std::memcmp(data, prefix, len) == 0;
}

// Valid UTF-8 except perhaps for a character cut off by the sample's end.
bool IsUtf8Sample(const char* data, size_t size) {
  std::string s(data, size);
  size_t cut = s.size();
  // Drop at most three trailing bytes of a started but unfinished character.
  for (size_t k = 1; k <= 3 && k <= s.size(); ++k) {
    const unsigned char c = s[s.size() - k];
    if ((c & 0xC0) == 0xC0) {
      cut = s.size() - k;
      break;
    }
    if ((c & 0xC0) != 0x80) break;
  }
  s.resize(cut);
  return IsValidUtf8(s);
}

bool IsWide(const std::string& charset) {
  return charset.compare(0, 6, "UTF-16") == 0 || charset.compare(0, 6, "UTF-32") == 0;
}

}  // namespace

std::string DetectCharset(const char* data, size_t size) {
  if (StartsWith(data, size, "\xEF\xBB\xBF", 3)) return "UTF-8";
  if (StartsWith(data, size, "\xFF\xFE\x00\x00", 4)) return "UTF-32LE";
  if (StartsWith(data, size, "\x00\x00\xFE\xFF", 4)) return "UTF-32BE";
  if (StartsWith(data, size, "\xFF\xFE", 2)) return "UTF-16LE";
  if (StartsWith(data, size, "\xFE\xFF", 2)) return "UTF-16BE";
  // uchardet easily mistakes short or plain-ASCII UTF-8 for something else.
  if (IsUtf8Sample(data, size)) return "UTF-8";
  std::unique_ptr<std::remove_pointer<uchardet_t>::type, UchardetDeleter> ud(uchardet_new());
  std::string charset;
  if (ud && uchardet_handle_data(ud.get(), data, size) == 0) {
    uchardet_data_end(ud.get());
    const char* guess = uchardet_get_charset(ud.get());
    if (guess != nullptr) charset = guess;
  }
  if (charset.empty() || charset == "ASCII") return "WINDOWS-1252";
  return charset;
}

bool LooksBinary(const char* data, size_t size, const std::string& charset) {
  if (IsWide(charset)) return false;
  return std::memchr(data, '\0', size) != nullptr;
}

Utf8Converter::Utf8Converter(const std::string& charset) {
  if (charset != "UTF-8") cd_ = iconv_open("UTF-8", charset.c_str());
}

Utf8Converter::~Utf8Converter() {
  if (cd_ != reinterpret_cast<iconv_t>(-1)) iconv_close(cd_);
}

void Utf8Converter::Convert(const char* data, size_t size, TextSink* sink) {
  if (cd_ == reinterpret_cast<iconv_t>(-1)) {
    sink->Append(data, size);
    return;
  }
  std::string input;
  const char* in_data = data;
  if (!carry_.empty()) {
    input = carry_;
    input.append(data, size);
    carry_.clear();
    in_data = input.data();
    size = input.size();
  }
  char* in = const_cast<char*>(in_data);
  size_t in_left = size;
  char out_buf[16384];
  while (in_left > 0 && !sink->full()) {
    char* out = out_buf;
    size_t out_left = sizeof(out_buf);
    const size_t rc = iconv(cd_, &in, &in_left, &out, &out_left);
    const int err = errno;
    sink->Append(out_buf, out - out_buf);
    if (rc != static_cast<size_t>(-1)) continue;
    if (err == E2BIG) continue;
    if (err == EINVAL) {  // a character cut by the chunk's end
      carry_.assign(in, in_left);
      break;
    }
    // EILSEQ or anything else: one bad byte, one replacement.
    sink->Append("\xEF\xBF\xBD", 3);
    ++in;
    --in_left;
    iconv(cd_, nullptr, nullptr, nullptr, nullptr);
  }
  errno = 0;
}

void Utf8Converter::Finish(TextSink* sink) {
  if (!carry_.empty()) sink->Append("\xEF\xBF\xBD", 3);
  carry_.clear();
}

}  // namespace indexer
}  // namespace kestondri
