#include "host/storage/byte_pipe.h"

#include <algorithm>
#include <cstring>

Byte_Pipe::Byte_Pipe(size_t capacity) : capacity_(capacity) {}

bool Byte_Pipe::push(const char* data, size_t len)
{
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return cancelled_ || queued_ < capacity_; });
  if (cancelled_)
    return false;
  chunks_.emplace_back(data, len);
  queued_ += len;
  changed_.notify_all();
  return true;
}

size_t Byte_Pipe::pop(char* out, size_t len)
{
  std::unique_lock<std::mutex> guard(lock_);
  changed_.wait(guard, [this] { return cancelled_ || closed_ || queued_ > 0; });
  if (cancelled_)
    return 0;
  size_t taken = 0;
  while (taken < len && !chunks_.empty())
  {
    std::string& front = chunks_.front();
    size_t n = std::min(len - taken, front.size() - front_offset_);
    memcpy(out + taken, front.data() + front_offset_, n);
    taken += n;
    front_offset_ += n;
    if (front_offset_ == front.size())
    {
      chunks_.pop_front();
      front_offset_ = 0;
    }
  }
  queued_ -= taken;
  changed_.notify_all();
  return taken;
}

void Byte_Pipe::close()
{
  std::lock_guard<std::mutex> guard(lock_);
  closed_ = true;
  changed_.notify_all();
}

void Byte_Pipe::cancel()
{
  std::lock_guard<std::mutex> guard(lock_);
  cancelled_ = true;
  changed_.notify_all();
}

bool Byte_Pipe::cancelled() const
{
  std::lock_guard<std::mutex> guard(lock_);
  return cancelled_;
}
