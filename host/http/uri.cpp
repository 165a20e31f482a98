#include "host/http/uri.h"

std::string URI::host(bool brackets) const
{
  if (ipv6_ && brackets)
    return "[" + host_ + "]";
  return host_;
}

std::string URI::origin() const
{
  std::string text = scheme_ + "://" + host(true);
  const int default_port = is_ssl() ? 443 : 80;
  if (port_ != default_port)
    text += ":" + std::to_string(port_);
  return text;
}

bool URI::is_loopback() const
{
  return host_ == "localhost" || host_ == "::1" || host_.compare(0, 4, "127.") == 0;
}
