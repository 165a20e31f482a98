#include "host/job/uuid.h"

#include "host/http/http_encoding.h"

#include <cstring>
#include <random>

namespace
{
bool is_dash_position(size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }
}  // namespace

int uuid_string_to_binary(const char* text, unsigned char* out)
{
  std::memset(out, 0, 16);
  if (text == nullptr || std::strlen(text) != 36)
    return -1;
  unsigned char bytes[16];
  size_t n = 0;
  for (size_t i = 0; i < 36; ++i)
  {
    if (is_dash_position(i))
    {
      if (text[i] != '-')
        return -1;
      continue;
    }
    const int high = hex_digit_value(text[i]);
    const int low = hex_digit_value(text[++i]);
    if (high < 0 || low < 0 || is_dash_position(i))
      return -1;
    bytes[n++] = static_cast<unsigned char>((high << 4) | low);
  }
  std::memcpy(out, bytes, 16);
  return 0;
}

std::string uuid_binary_to_string(const unsigned char* bytes)
{
  static const char digits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < 16; ++i)
  {
    if (i == 4 || i == 6 || i == 8 || i == 10)
      text.push_back('-');
    text.push_back(digits[bytes[i] >> 4]);
    text.push_back(digits[bytes[i] & 0xF]);
  }
  return text;
}

std::string uuid_generate_string()
{
  static thread_local std::mt19937_64 engine{std::random_device{}()};
  unsigned char bytes[16];
  for (size_t i = 0; i < 16; i += 8)
  {
    const uint64_t r = engine();
    std::memcpy(bytes + i, &r, 8);
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  return uuid_binary_to_string(bytes);
}
