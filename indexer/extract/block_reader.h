// Reads a file block by block, at most a given number of bytes in all: the
// bounded read of the text-like formats.
//
// Does not own the descriptor. Not thread-safe.
#ifndef KESTONDRI_INDEXER_EXTRACT_BLOCK_READER_H_
#define KESTONDRI_INDEXER_EXTRACT_BLOCK_READER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kestondri {
namespace indexer {

class BlockReader {
 public:
  static constexpr size_t kBlockSize = 64 * 1024;

  BlockReader(int fd, uint64_t limit);
  BlockReader(const BlockReader&) = delete;
  BlockReader& operator=(const BlockReader&) = delete;

  // Reads the next block. False at the end of the file, at the limit, or on
  // a read error (then error() says why); the block is then empty.
  bool Next();
  const char* data() const { return block_.data(); }
  size_t size() const { return size_; }
  // Empty unless a read failed.
  const std::string& error() const { return error_; }
  // After Next() returned false: whether the file goes on past the limit.
  bool StoppedAtLimit();

 private:
  int fd_;
  uint64_t left_;  // bytes the limit still allows
  std::vector<char> block_;
  size_t size_ = 0;
  std::string error_;
};

}  // namespace indexer
}  // namespace kestondri

#endif  // KESTONDRI_INDEXER_EXTRACT_BLOCK_READER_H_
