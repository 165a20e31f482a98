#include "host/mtf/mtf_buffer.h"

#include <new>

namespace MTF
{
Buffer::Buffer(size_t capacity, size_t max_size) : capacity_(capacity), max_size_(max_size)
{
  bytes_.reserve(capacity_);
}

bool Buffer::copy(const void* data, size_t len)
{
  if (len > max_size_ - bytes_.size())
    return false;
  const char* p = static_cast<const char*>(data);
  try
  {
    bytes_.insert(bytes_.end(), p, p + len);
  }
  catch (const std::bad_alloc&)
  {
    return false;
  }
  return true;
}

void Buffer::shrink()
{
  if (bytes_.capacity() <= capacity_)
    return;
  std::vector<char> fresh;
  fresh.reserve(capacity_);
  bytes_.swap(fresh);
}
}  // namespace MTF
