#ifndef HOST_HTTP_CGI_BASE_H
#define HOST_HTTP_CGI_BASE_H

#include "host/http/http_headers.h"

#include <string>

// What requests and responses share: header fields and a body.
class CGI_Base
{
public:
  virtual ~CGI_Base() = default;

  HTTP_Headers& headers() { return headers_; }
  const HTTP_Headers& headers() const { return headers_; }
  std::string& body() { return body_; }
  const std::string& body() const { return body_; }

protected:
  HTTP_Headers headers_;
  std::string body_;
};

#endif
