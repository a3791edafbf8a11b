// PDF through poppler's C++ interface. The file is mapped, not read: poppler
// touches only the objects it needs, and the mapping counts against the
// worker's address-space limit, so a file too large for it fails cleanly.
#include <poppler/cpp/poppler-document.h>
#include <poppler/cpp/poppler-global.h>
#include <poppler/cpp/poppler-page.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>

#include "extract/document_extractors.h"
#include "extract/text_sink.h"

namespace kestondri {
namespace indexer {

namespace {

constexpr size_t kMaxTitle = 1024;

class Mapping {
 public:
  Mapping(int fd, size_t size) : size_(size) {
    void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    data_ = p == MAP_FAILED ? nullptr : static_cast<const char*>(p);
  }
  ~Mapping() {
    if (data_ != nullptr) munmap(const_cast<char*>(data_), size_);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  const char* data() const { return data_; }

 private:
  const char* data_;
  size_t size_;
};

std::string ToUtf8(const poppler::ustring& s) {
  const poppler::byte_array bytes = s.to_utf8();
  return std::string(bytes.begin(), bytes.end());
}

}  // namespace

void ExtractPdf(int fd, const ExtractLimits& limits, ExtractResult* result) {
  result->format = "pdf";
  struct stat st;
  if (fstat(fd, &st) != 0) {
    result->status = ExtractStatus::kUnreadable;
    result->detail = std::string("fstat failed: ") + std::strerror(errno);
    return;
  }
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size > limits.max_input_bytes || size > static_cast<uint64_t>(INT_MAX)) {
    result->status = ExtractStatus::kTooLarge;
    result->detail = "larger than the input limit";
    return;
  }
  if (size == 0) {
    result->status = ExtractStatus::kMalformed;
    result->detail = "empty file";
    return;
  }
  Mapping map(fd, static_cast<size_t>(size));
  if (map.data() == nullptr) {
    result->status = errno == ENOMEM ? ExtractStatus::kMemoryLimit : ExtractStatus::kUnreadable;
    result->detail = std::string("mmap failed: ") + std::strerror(errno);
    return;
  }
  std::unique_ptr<poppler::document> doc(
      poppler::document::load_from_raw_data(map.data(), static_cast<int>(size)));
  if (!doc) {
    result->status = ExtractStatus::kMalformed;
    result->detail = "not a readable PDF";
    return;
  }
  if (doc->is_locked()) {
    result->status = ExtractStatus::kEncrypted;
    result->detail = "password-protected";
    return;
  }
  TextSink title(kMaxTitle, true);
  title.Append(ToUtf8(doc->get_title()));
  result->title = title.Take();

  TextSink sink(limits.max_text_bytes, true);
  const int pages = doc->pages();
  for (int i = 0; i < pages && !sink.full(); ++i) {
    std::unique_ptr<poppler::page> page(doc->create_page(i));
    if (!page) continue;
    sink.Append(ToUtf8(page->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout)));
    sink.Break();
  }
  result->truncated = sink.full();
  result->text = sink.Take();
  result->status = ExtractStatus::kOk;
}

}  // namespace indexer
}  // namespace kestondri
