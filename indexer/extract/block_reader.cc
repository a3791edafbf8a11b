#include "extract/block_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kestondri {
namespace indexer {

namespace {

// Reads up to `size` bytes, retrying after signals and short reads; returns
// the bytes read (less only at end of file) or -1 on an error.
long ReadFull(int fd, char* buf, size_t size) {
  size_t got = 0;
  while (got < size) {
    const ssize_t n = read(fd, buf + got, size - got);
    if (n < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (n == 0) break;
    got += static_cast<size_t>(n);
  }
  return static_cast<long>(got);
}

}  // namespace

BlockReader::BlockReader(int fd, uint64_t limit) : fd_(fd), left_(limit), block_(kBlockSize) {}

bool BlockReader::Next() {
  size_ = 0;
  if (left_ == 0 || !error_.empty()) return false;
  const size_t want = static_cast<size_t>(std::min<uint64_t>(block_.size(), left_));
  const long n = ReadFull(fd_, block_.data(), want);
  if (n < 0) {
    error_ = std::string("read failed: ") + std::strerror(errno);
    errno = 0;
    return false;
  }
  size_ = static_cast<size_t>(n);
  left_ -= size_;
  return n > 0;
}

bool BlockReader::StoppedAtLimit() {
  if (left_ > 0 || !error_.empty()) return false;
  char probe;
  return ReadFull(fd_, &probe, 1) == 1;
}

}  // namespace indexer
}  // namespace kestondri
