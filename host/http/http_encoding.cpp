#include "host/http/http_encoding.h"

#include "host/base/hex.h"

#include <cstring>

namespace
{
struct Kept_Mark
{
  char mark;
  unsigned int flag;
};

const Kept_Mark kept_marks[] = {
  {':', HTTP_KEEP_COLON},     {'(', HTTP_KEEP_LEFT_PAREN},  {')', HTTP_KEEP_RIGHT_PAREN}, {'\'', HTTP_KEEP_APOSTROPHE},
  {'*', HTTP_KEEP_ASTERISK},  {'!', HTTP_KEEP_EXCLAMATION}, {'#', HTTP_KEEP_HASH},        {'$', HTTP_KEEP_DOLLAR},
  {'&', HTTP_KEEP_AMPERSAND}, {'+', HTTP_KEEP_PLUS},        {',', HTTP_KEEP_COMMA},       {';', HTTP_KEEP_SEMICOLON},
  {'=', HTTP_KEEP_EQUALS},    {'?', HTTP_KEEP_QUESTION},    {'@', HTTP_KEEP_AT},
};

bool is_unreserved(unsigned char c)
{
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.';
}

bool is_kept(unsigned char c, unsigned int flags)
{
  if (c == '/')
    return (flags & HTTP_ENCODE_SLASH) == 0;
  for (const Kept_Mark& k : kept_marks)
    if (k.mark == static_cast<char>(c))
      return (flags & k.flag) != 0;
  return false;
}
}  // namespace

bool http_encode_string(const char* text, size_t len, unsigned int flags, std::string& out)
{
  out.clear();
  if (text == nullptr || len == 0)
    return false;

  const char* digits = (flags & HTTP_ENCODE_UPPER_HEX) ? "0123456789ABCDEF" : "0123456789abcdef";
  out.reserve(len);
  for (size_t i = 0; i < len; ++i)
  {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (is_unreserved(c) || is_kept(c, flags))
      out.push_back(static_cast<char>(c));
    else if (c == ' ' && (flags & HTTP_ENCODE_SPACE_AS_PLUS))
      out.push_back('+');
    else
    {
      out.push_back('%');
      out.push_back(digits[c >> 4]);
      out.push_back(digits[c & 0xF]);
    }
  }
  return true;
}

bool http_encode_string(const std::string& text, unsigned int flags, std::string& out)
{
  return http_encode_string(text.data(), text.size(), flags, out);
}

bool http_encode_string_i(const char* text, int mode, std::string& out)
{
  unsigned int flags = 0;
  switch (mode)
  {
  case HTTP_ENCODE_MODE_NAME:
    flags = HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX;
    break;
  case HTTP_ENCODE_MODE_PATH:
    flags = HTTP_ENCODE_UPPER_HEX;
    break;
  case HTTP_ENCODE_MODE_QUERY_COMPONENT:
    flags = HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX;
    break;
  case HTTP_ENCODE_MODE_FORM:
    flags = HTTP_ENCODE_SLASH | HTTP_ENCODE_UPPER_HEX | HTTP_ENCODE_SPACE_AS_PLUS;
    break;
  default:
    out.clear();
    return false;
  }
  return http_encode_string(text, text ? std::strlen(text) : 0, flags, out);
}

bool http_decode_string(const char* begin, const char* end, unsigned int flags, std::string& out)
{
  out.clear();
  if (begin == nullptr || end == nullptr || end <= begin)
    return true;

  out.reserve(static_cast<size_t>(end - begin));
  for (const char* p = begin; p < end; ++p)
  {
    if (*p == '%')
    {
      const int high = (end - p > 2) ? hex_digit_value(p[1]) : -1;
      const int low = (high >= 0) ? hex_digit_value(p[2]) : -1;
      if (low < 0)
        return false;
      out.push_back(static_cast<char>((high << 4) | low));
      p += 2;
    }
    else if (*p == '+' && (flags & HTTP_DECODE_PLUS_AS_SPACE))
      out.push_back(' ');
    else
      out.push_back(*p);
  }
  return true;
}

bool http_decode_string(const std::string& text, unsigned int flags, std::string& out)
{
  return http_decode_string(text.data(), text.data() + text.size(), flags, out);
}
