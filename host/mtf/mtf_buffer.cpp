#include "host/mtf/mtf_buffer.h"

#include <cstring>
#include <new>

namespace MTF
{
Buffer::Buffer(size_t capacity, size_t max_size) : capacity_(capacity), max_size_(max_size) { reserve(capacity_); }

// Grows the allocation (at least doubling, never beyond max_size) without
// initialising the new bytes: a reader overwrites them anyway.
bool Buffer::reserve(size_t total)
{
  if (total <= allocated_)
    return true;
  if (total > max_size_)
    return false;
  size_t grown = allocated_ * 2 > total ? allocated_ * 2 : total;
  if (grown > max_size_)
    grown = max_size_;
  std::unique_ptr<char[]> fresh(new (std::nothrow) char[grown]);
  if (!fresh)
    return false;
  if (size_ > 0)
    memcpy(fresh.get(), bytes_.get(), size_);
  bytes_.swap(fresh);
  allocated_ = grown;
  return true;
}

bool Buffer::copy(const void* data, size_t len)
{
  extended_ = 0;
  if (len > max_size_ - size_ || !reserve(size_ + len))
    return false;
  if (len > 0)
    memcpy(bytes_.get() + size_, data, len);
  size_ += len;
  return true;
}

char* Buffer::extend(size_t len)
{
  extended_ = 0;
  if (len > max_size_ - size_ || !reserve(size_ + len))
    return nullptr;
  extended_ = len;
  return bytes_.get() + size_;
}

void Buffer::commit(size_t used)
{
  size_ += used < extended_ ? used : extended_;
  extended_ = 0;
}

void Buffer::shrink()
{
  if (allocated_ <= capacity_)
    return;
  std::unique_ptr<char[]> fresh(new (std::nothrow) char[capacity_]);
  if (!fresh)
    return;
  size_t keep = size_ < capacity_ ? size_ : capacity_;
  if (keep > 0)
    memcpy(fresh.get(), bytes_.get(), keep);
  bytes_.swap(fresh);
  allocated_ = capacity_;
  size_ = keep;
}
}  // namespace MTF
