#ifndef HOST_MTF_MTF_BUFFER_H
#define HOST_MTF_MTF_BUFFER_H

#include <cstddef>
#include <memory>

namespace MTF
{
// The bytes a file reader hands to the backup stream in one read. The stream owns
// one buffer per channel and empties it before every read. `capacity()` is the
// piece size the stream prefers; `copy` accepts more than that (a reader may hand
// a whole small file at once) up to `max_size()`, and the stream shrinks the
// buffer back after such a file, so a channel's memory stays bounded.
// A reader that reads from a file descriptor or socket can fill the buffer in
// place (`extend`, then `commit`) and spare a copy of every byte.
// Used by one channel thread at a time.
class Buffer
{
public:
  explicit Buffer(size_t capacity = 1024 * 1024, size_t max_size = 1024ull * 1024 * 1024);

  // Appends `len` bytes; false (nothing appended) beyond max_size() or without memory.
  bool copy(const void* data, size_t len);

  // Space for `len` more bytes after the current ones, for the caller to fill;
  // nullptr (nothing changed) beyond max_size() or without memory. Only commit()
  // makes filled bytes part of the buffer; the space is valid until the next call.
  char* extend(size_t len);
  // Keeps the first `used` bytes of the last extend() (no more than it asked for).
  void commit(size_t used);

  const char* data() const { return bytes_.get(); }
  size_t size() const { return size_; }
  size_t capacity() const { return capacity_; }
  size_t max_size() const { return max_size_; }
  // Room left before the preferred piece size is reached.
  size_t room() const { return size_ < capacity_ ? capacity_ - size_ : 0; }

  void clear()
  {
    size_ = 0;
    extended_ = 0;
  }
  // Gives back memory beyond the preferred capacity.
  void shrink();

private:
  bool reserve(size_t total);

  std::unique_ptr<char[]> bytes_;
  size_t size_ = 0;
  size_t allocated_ = 0;
  size_t extended_ = 0;  // bytes the last extend() offered
  size_t capacity_;
  size_t max_size_;
};
}  // namespace MTF

#endif
