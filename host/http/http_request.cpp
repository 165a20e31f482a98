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

void HTTP_Request::set_body_source(Body_Source source, int64_t size)
{
  body_source_ = std::move(source);
  body_source_size_ = size;
}

void HTTP_Request::sign_aws_sigv4(const std::string& provider, const std::string& key_id, const std::string& secret)
{
  sigv4_provider_ = provider;
  sigv4_key_id_ = key_id;
  sigv4_secret_ = secret;
}
