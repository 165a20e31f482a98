#ifndef TESTS_HOST_STORAGE_TEST_DATA_H
#define TESTS_HOST_STORAGE_TEST_DATA_H

#include <cstddef>
#include <cstdint>

// A reproducible byte stream (xorshift64) so large objects can be generated while
// written and checked while read, without keeping them in memory.
class Test_Data
{
public:
  explicit Test_Data(uint64_t seed) : state_(seed | 1) {}

  void fill(char* out, size_t len)
  {
    for (size_t i = 0; i < len; ++i)
    {
      if (left_ == 0)
      {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 7;
        state_ ^= state_ << 17;
        word_ = state_;
        left_ = 8;
      }
      out[i] = static_cast<char>(word_ & 0xff);
      word_ >>= 8;
      --left_;
    }
  }

private:
  uint64_t state_;
  uint64_t word_ = 0;
  int left_ = 0;
};

#endif
