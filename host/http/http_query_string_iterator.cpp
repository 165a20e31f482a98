#include "host/http/http_query_string_iterator.h"

#include "host/http/http_encoding.h"

#include <cstring>

HTTP_Query_String_Iterator::HTTP_Query_String_Iterator(const char* query) : next_(nullptr), rest_(query) { advance(); }

HTTP_Query_String_Iterator& HTTP_Query_String_Iterator::operator++()
{
  advance();
  return *this;
}

void HTTP_Query_String_Iterator::advance()
{
  next_ = nullptr;
  pair_ = value_type();
  while (rest_ && *rest_)
  {
    const char* begin = rest_;
    const char* end = std::strchr(begin, '&');
    if (end == nullptr)
      end = begin + std::strlen(begin);
    rest_ = *end ? end + 1 : end;
    if (end == begin)
      continue;
    const char* eq = static_cast<const char*>(std::memchr(begin, '=', static_cast<size_t>(end - begin)));
    const char* key_end = eq ? eq : end;
    if (!http_decode_string(begin, key_end, HTTP_DECODE_PLUS_AS_SPACE, pair_.first))
      continue;
    if (eq && !http_decode_string(eq + 1, end, HTTP_DECODE_PLUS_AS_SPACE, pair_.second))
      continue;
    next_ = begin;
    return;
  }
}
