#include "host/base/uuid.h"

#include "host/base/hex.h"

#include <cstring>
#include <sys/random.h>

#include <cerrno>
#include <stdexcept>

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
  // Backup-set uuids make catalog commits idempotent, so two agents must never draw
  // the same one: take the bytes from the kernel's cryptographic generator.
  unsigned char bytes[16];
  size_t got = 0;
  while (got < sizeof bytes)
  {
    const ssize_t n = getrandom(bytes + got, sizeof bytes - got, 0);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
      throw std::runtime_error("getrandom failed: no random source for a uuid");
    got += static_cast<size_t>(n);
  }
  bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
  bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  return uuid_binary_to_string(bytes);
}
