#include "host/storage/http_head.h"

const char* http_head_string(int code, int flags, const std::string& value)
{
  if (flags != 0)
    return nullptr;
  // A value with a line break would let it smuggle further headers.
  if (value.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
    return nullptr;
  switch (code)
  {
  case HTTP_HEAD_HOST_ID:
    return "X-Backupd-Host-Id";
  case HTTP_HEAD_ACCESS_KEY:
    return "X-Backupd-Access-Key";
  default:
    return nullptr;
  }
}
