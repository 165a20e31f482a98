#ifndef BACKUP_EXCHANGE_CORE_OFFICE365_SNPRINTF_T_H
#define BACKUP_EXCHANGE_CORE_OFFICE365_SNPRINTF_T_H

#include <cstdarg>
#include <cstdio>
#include <memory>

// printf into an inline buffer of N characters; a text that does not fit is
// formatted again into a heap buffer of exactly its length plus one, so the
// result is never truncated. c_str() gives whichever buffer holds the text.
template <size_t N>
class snprintf_t
{
public:
  snprintf_t(const char* format, ...) __attribute__((format(printf, 2, 3)))
  {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int needed = std::vsnprintf(inline_, N, format, args);
    va_end(args);
    if (needed < 0)
      inline_[0] = '\0';
    else if (static_cast<size_t>(needed) >= N)
    {
      heap_.reset(new char[static_cast<size_t>(needed) + 1]);
      std::vsnprintf(heap_.get(), static_cast<size_t>(needed) + 1, format, again);
    }
    length_ = needed < 0 ? 0 : static_cast<size_t>(needed);
    va_end(again);
  }
  snprintf_t(const snprintf_t&) = delete;
  snprintf_t& operator=(const snprintf_t&) = delete;

  const char* c_str() const { return heap_ ? heap_.get() : inline_; }
  size_t length() const { return length_; }
  bool on_heap() const { return heap_ != nullptr; }

private:
  char inline_[N];
  std::unique_ptr<char[]> heap_;
  size_t length_ = 0;
};

#endif
