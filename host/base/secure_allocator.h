#ifndef HOST_BASE_SECURE_ALLOCATOR_H
#define HOST_BASE_SECURE_ALLOCATOR_H

#include <cstddef>
#include <memory>
#include <string>

// An allocator that wipes memory before giving it back, for passwords and client
// secrets: a secret held in a Secure_String leaves no copy behind in freed heap.
template <typename T>
struct secure_allocator
{
  using value_type = T;

  secure_allocator() noexcept = default;
  template <typename U>
  secure_allocator(const secure_allocator<U>&) noexcept
  {
  }

  T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }

  void deallocate(T* p, std::size_t n) noexcept
  {
    volatile unsigned char* bytes = reinterpret_cast<volatile unsigned char*>(p);
    for (std::size_t i = 0; i < n * sizeof(T); ++i)
      bytes[i] = 0;
    std::allocator<T>().deallocate(p, n);
  }

  template <typename U>
  bool operator==(const secure_allocator<U>&) const noexcept
  {
    return true;
  }
  template <typename U>
  bool operator!=(const secure_allocator<U>&) const noexcept
  {
    return false;
  }
};

using Secure_String = std::basic_string<char, std::char_traits<char>, secure_allocator<char>>;

#endif
