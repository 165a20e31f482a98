#ifndef HOST_MTF_MTF_BUFFER_H
#define HOST_MTF_MTF_BUFFER_H

#include <cstddef>
#include <vector>

namespace MTF
{
// The bytes a file reader hands to the backup stream in one read. The stream owns
// one buffer per channel and empties it before every read. `capacity()` is the
// piece size the stream prefers; `copy` accepts more than that (a reader may hand
// a whole small file at once) up to `max_size()`, and the stream shrinks the
// buffer back after such a file, so a channel's memory stays bounded.
// Used by one channel thread at a time.
class Buffer
{
public:
  explicit Buffer(size_t capacity = 1024 * 1024, size_t max_size = 1024ull * 1024 * 1024);

  // Appends `len` bytes; false (nothing appended) beyond max_size() or without memory.
  bool copy(const void* data, size_t len);

  const char* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  size_t capacity() const { return capacity_; }
  size_t max_size() const { return max_size_; }
  // Room left before the preferred piece size is reached.
  size_t room() const { return bytes_.size() < capacity_ ? capacity_ - bytes_.size() : 0; }

  void clear() { bytes_.clear(); }
  // Gives back memory beyond the preferred capacity.
  void shrink();

private:
  std::vector<char> bytes_;
  size_t capacity_;
  size_t max_size_;
};
}  // namespace MTF

#endif
