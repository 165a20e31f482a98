#include "apps/exo-sim/base64_codec.h"

namespace exo_sim
{

namespace
{
const char k_alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int decode_char(unsigned char c)
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
}  // namespace

std::string base64_encode(const std::string& bytes)
{
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3)
  {
    uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8) | uint8_t(bytes[i + 2]);
    out += k_alphabet[(v >> 18) & 63];
    out += k_alphabet[(v >> 12) & 63];
    out += k_alphabet[(v >> 6) & 63];
    out += k_alphabet[v & 63];
  }
  size_t rest = bytes.size() - i;
  if (rest == 1)
  {
    uint32_t v = uint32_t(uint8_t(bytes[i])) << 16;
    out += k_alphabet[(v >> 18) & 63];
    out += k_alphabet[(v >> 12) & 63];
    out += "==";
  }
  else if (rest == 2)
  {
    uint32_t v = (uint32_t(uint8_t(bytes[i])) << 16) | (uint32_t(uint8_t(bytes[i + 1])) << 8);
    out += k_alphabet[(v >> 18) & 63];
    out += k_alphabet[(v >> 12) & 63];
    out += k_alphabet[(v >> 6) & 63];
    out += '=';
  }
  return out;
}

bool base64_decode(const std::string& text, std::string& bytes)
{
  bytes.clear();
  bytes.reserve(text.size() / 4 * 3);
  uint32_t acc = 0;
  int bits = 0;
  int quads = 0;
  int pad = 0;
  for (unsigned char c : text)
  {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
      continue;
    if (c == '=')
    {
      ++pad;
      ++quads;
      continue;
    }
    if (pad > 0)
      return false;  // data after padding
    int v = decode_char(c);
    if (v < 0)
      return false;
    ++quads;
    acc = (acc << 6) | uint32_t(v);
    bits += 6;
    if (bits >= 8)
    {
      bits -= 8;
      bytes += char((acc >> bits) & 0xff);
    }
  }
  return quads % 4 == 0 && pad <= 2;
}

}  // namespace exo_sim
