#include "backup/exchange/core/office365/query_string_builder.h"

#include "backup/exchange/core/office365/snprintf_t.h"
#include "host/http/http_encoding.h"

Query_String_Builder::Query_String_Builder(std::string& buffer) : buffer_(buffer) {}

void Query_String_Builder::add_key(const char* key, bool encode_key, const char* prefix)
{
  if (!buffer_.empty())
    buffer_ += '&';
  if (prefix)
    buffer_ += prefix;
  if (encode_key)
  {
    std::string encoded;
    http_encode_string_i(key, HTTP_ENCODE_MODE_QUERY_COMPONENT, encoded);
    buffer_ += encoded;
  }
  else
    buffer_ += key;
}

void Query_String_Builder::add(const char* key, const char* value, bool encode_key, bool encode_value,
                               const char* prefix)
{
  if (key == nullptr || *key == '\0')
    return;
  add_key(key, encode_key, prefix);
  if (value == nullptr)
    return;
  buffer_ += '=';
  if (encode_value)
  {
    std::string encoded;
    http_encode_string_i(value, HTTP_ENCODE_MODE_QUERY_COMPONENT, encoded);
    buffer_ += encoded;
  }
  else
    buffer_ += value;
}

void Query_String_Builder::add(const char* key, long value, bool encode_key, const char* prefix)
{
  if (key == nullptr || *key == '\0')
    return;
  add_key(key, encode_key, prefix);
  snprintf_t<21> text("%ld", value);
  buffer_ += '=';
  buffer_ += text.c_str();
}
