#include "host/mtf/mtf_format.h"

namespace MTF_Format
{
void put16(char* p, uint16_t v)
{
  p[0] = static_cast<char>(v & 0xff);
  p[1] = static_cast<char>(v >> 8);
}

void put32(char* p, uint32_t v)
{
  put16(p, static_cast<uint16_t>(v & 0xffff));
  put16(p + 2, static_cast<uint16_t>(v >> 16));
}

void put64(char* p, uint64_t v)
{
  put32(p, static_cast<uint32_t>(v & 0xffffffffu));
  put32(p + 4, static_cast<uint32_t>(v >> 32));
}

uint16_t get16(const char* p)
{
  const unsigned char* u = reinterpret_cast<const unsigned char*>(p);
  return static_cast<uint16_t>(u[0] | (u[1] << 8));
}

uint32_t get32(const char* p) { return get16(p) | (static_cast<uint32_t>(get16(p + 2)) << 16); }

uint64_t get64(const char* p) { return get32(p) | (static_cast<uint64_t>(get32(p + 4)) << 32); }

uint16_t xor_checksum(const char* p, size_t words)
{
  uint16_t sum = 0;
  for (size_t i = 0; i < words; ++i)
    sum ^= get16(p + 2 * i);
  return sum;
}

// yyyyyyyy yyyyyymm mmdddddh hhhhmmmm mmssssss
void put_date(char* p, time_t t)
{
  uint64_t v = 0;
  struct tm tm;
  if (t != 0 && gmtime_r(&t, &tm) != nullptr)
  {
    v = (static_cast<uint64_t>(tm.tm_year + 1900) << 26) | (static_cast<uint64_t>(tm.tm_mon + 1) << 22) |
        (static_cast<uint64_t>(tm.tm_mday) << 17) | (static_cast<uint64_t>(tm.tm_hour) << 12) |
        (static_cast<uint64_t>(tm.tm_min) << 6) | static_cast<uint64_t>(tm.tm_sec);
  }
  for (int i = 4; i >= 0; --i)
  {
    p[i] = static_cast<char>(v & 0xff);
    v >>= 8;
  }
}

time_t get_date(const char* p)
{
  uint64_t v = 0;
  for (int i = 0; i < 5; ++i)
    v = (v << 8) | static_cast<unsigned char>(p[i]);
  if (v == 0)
    return 0;
  struct tm tm = {};
  tm.tm_year = static_cast<int>(v >> 26) - 1900;
  tm.tm_mon = static_cast<int>((v >> 22) & 0xf) - 1;
  tm.tm_mday = static_cast<int>((v >> 17) & 0x1f);
  tm.tm_hour = static_cast<int>((v >> 12) & 0x1f);
  tm.tm_min = static_cast<int>((v >> 6) & 0x3f);
  tm.tm_sec = static_cast<int>(v & 0x3f);
  return timegm(&tm);
}

static void put_unit(std::string& out, uint16_t u)
{
  out.push_back(static_cast<char>(u & 0xff));
  out.push_back(static_cast<char>(u >> 8));
}

bool utf8_to_utf16le(const std::string& in, std::string& out)
{
  out.clear();
  const unsigned char* s = reinterpret_cast<const unsigned char*>(in.data());
  size_t n = in.size();
  for (size_t i = 0; i < n;)
  {
    uint32_t c = s[i];
    size_t len = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
    if (len == 0 || i + len > n)
      return false;
    if (len > 1)
    {
      c &= 0xff >> (len + 1);
      for (size_t k = 1; k < len; ++k)
      {
        if ((s[i + k] & 0xc0) != 0x80)
          return false;
        c = (c << 6) | (s[i + k] & 0x3f);
      }
      static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
      if (c < least[len] || c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff))
        return false;
    }
    i += len;
    if (c >= 0x10000)
    {
      c -= 0x10000;
      put_unit(out, static_cast<uint16_t>(0xd800 + (c >> 10)));
      put_unit(out, static_cast<uint16_t>(0xdc00 + (c & 0x3ff)));
    }
    else
      put_unit(out, static_cast<uint16_t>(c));
  }
  return true;
}

bool utf16le_to_utf8(const std::string& in, std::string& out)
{
  out.clear();
  if (in.size() % 2 != 0)
    return false;
  for (size_t i = 0; i < in.size(); i += 2)
  {
    uint32_t c = get16(in.data() + i);
    if (c >= 0xd800 && c <= 0xdbff)
    {
      if (i + 2 >= in.size())
        return false;
      uint32_t low = get16(in.data() + i + 2);
      if (low < 0xdc00 || low > 0xdfff)
        return false;
      c = 0x10000 + ((c - 0xd800) << 10) + (low - 0xdc00);
      i += 2;
    }
    else if (c >= 0xdc00 && c <= 0xdfff)
      return false;
    if (c < 0x80)
      out.push_back(static_cast<char>(c));
    else if (c < 0x800)
    {
      out.push_back(static_cast<char>(0xc0 | (c >> 6)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
    else if (c < 0x10000)
    {
      out.push_back(static_cast<char>(0xe0 | (c >> 12)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
    else
    {
      out.push_back(static_cast<char>(0xf0 | (c >> 18)));
      out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3f)));
      out.push_back(static_cast<char>(0x80 | (c & 0x3f)));
    }
  }
  return true;
}
}  // namespace MTF_Format
