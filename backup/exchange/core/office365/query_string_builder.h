#ifndef BACKUP_EXCHANGE_CORE_OFFICE365_QUERY_STRING_BUILDER_H
#define BACKUP_EXCHANGE_CORE_OFFICE365_QUERY_STRING_BUILDER_H

#include <string>

// Appends "key=value" pairs to a request's query string buffer. When the buffer
// already holds text, the first pair follows it with "&".
class Query_String_Builder
{
public:
  explicit Query_String_Builder(std::string& buffer);

  // Does nothing for a null or empty key. Otherwise writes "&" (unless this is
  // the first pair of an empty buffer), `prefix` (if any), the key (percent-
  // encoded for a query component when `encode_key`), then, when `value` is not
  // null, "=" and the value (encoded when `encode_value`).
  void add(const char* key, const char* value, bool encode_key, bool encode_value, const char* prefix = nullptr);
  // The value formatted with "%ld" and written unencoded.
  void add(const char* key, long value, bool encode_key, const char* prefix = nullptr);

private:
  void add_key(const char* key, bool encode_key, const char* prefix);

  std::string& buffer_;
};

#endif
