#include "host/http/uri.h"

#include <arpa/inet.h>
#include <strings.h>

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

bool URI::is_loopback() const { return is_loopback_host(host_); }

bool is_loopback_host(const std::string& host)
{
  std::string address = host;
  if (address.size() > 2 && address.front() == '[' && address.back() == ']')
    address = address.substr(1, address.size() - 2);
  if (strcasecmp(address.c_str(), "localhost") == 0)
    return true;
  in_addr v4;
  if (inet_pton(AF_INET, address.c_str(), &v4) == 1)
    return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6;
  if (inet_pton(AF_INET6, address.c_str(), &v6) == 1)
    return IN6_IS_ADDR_LOOPBACK(&v6);
  return false;
}
