#include "host/ews/ews_b64_data.h"

#include <cstring>
#include <vector>

namespace
{
const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int sextet(char c)
{
  if (c >= 'A' && c <= 'Z')
    return c - 'A';
  if (c >= 'a' && c <= 'z')
    return c - 'a' + 26;
  if (c >= '0' && c <= '9')
    return c - '0' + 52;
  if (c == '+')
    return 62;
  if (c == '/')
    return 63;
  return -1;
}

bool is_space(char c)
{
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}
}  // namespace

EWS_b64_Data EWS_b64_Data::copy_of(const unsigned char* bytes, size_t len)
{
  EWS_b64_Data data;
  data.ptr.reset(new unsigned char[len ? len : 1], std::default_delete<unsigned char[]>());
  if (len)
    std::memcpy(data.ptr.get(), bytes, len);
  data.size = static_cast<int>(len);
  return data;
}

bool EWS_b64_Data::decode(const char* text, size_t len, EWS_b64_Data& out)
{
  std::vector<unsigned char> bytes;
  bytes.reserve(len / 4 * 3);
  unsigned int acc = 0;
  int bits = 0;
  int padding = 0;
  size_t symbols = 0;
  for (size_t i = 0; i < len; ++i)
  {
    const char c = text[i];
    if (is_space(c))
      continue;
    ++symbols;
    if (c == '=')
    {
      ++padding;
      continue;
    }
    const int v = sextet(c);
    if (v < 0 || padding > 0)
      return false;
    acc = (acc << 6) | static_cast<unsigned int>(v);
    bits += 6;
    if (bits >= 8)
    {
      bits -= 8;
      bytes.push_back(static_cast<unsigned char>((acc >> bits) & 0xFF));
    }
  }
  if (symbols % 4 != 0 || padding > 2)
    return false;
  out = copy_of(bytes.data(), bytes.size());
  return true;
}

std::string EWS_b64_Data::encode(const unsigned char* bytes, size_t len)
{
  std::string text;
  text.reserve((len + 2) / 3 * 4);
  for (size_t i = 0; i < len; i += 3)
  {
    const unsigned int b0 = bytes[i];
    const unsigned int b1 = i + 1 < len ? bytes[i + 1] : 0;
    const unsigned int b2 = i + 2 < len ? bytes[i + 2] : 0;
    const unsigned int triple = (b0 << 16) | (b1 << 8) | b2;
    text.push_back(alphabet[(triple >> 18) & 0x3F]);
    text.push_back(alphabet[(triple >> 12) & 0x3F]);
    text.push_back(i + 1 < len ? alphabet[(triple >> 6) & 0x3F] : '=');
    text.push_back(i + 2 < len ? alphabet[triple & 0x3F] : '=');
  }
  return text;
}
