#include "host/http/http_request.h"

HTTP_Request::HTTP_Request(int method, const char* path, bool keep_alive)
  : method_(method), path_(path && *path ? path : "/"), keep_alive_(keep_alive)
{
}

std::string HTTP_Request::target() const
{
  if (query_.empty())
    return path_;
  return path_ + "?" + query_;
}
