#include "host/http/uri_parser.h"

#include <cctype>
#include <cstring>

namespace
{
bool lower_scheme(const std::string& text, std::string& scheme)
{
  scheme.clear();
  for (char c : text)
    scheme.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  return scheme == "http" || scheme == "https";
}

bool parse_port(const std::string& text, int& port)
{
  if (text.empty() || text.size() > 5)
    return false;
  int value = 0;
  for (char c : text)
  {
    if (!std::isdigit(static_cast<unsigned char>(c)))
      return false;
    value = value * 10 + (c - '0');
  }
  if (value < 1 || value > 65535)
    return false;
  port = value;
  return true;
}

bool valid_host_char(char c)
{
  return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '.' || c == '_';
}

// Splits "host[:port]" or "[v6]:port" into its parts.
bool parse_authority(const std::string& authority, std::string& host, bool& ipv6, int& port)
{
  std::string port_text;
  if (!authority.empty() && authority[0] == '[')
  {
    const size_t close = authority.find(']');
    if (close == std::string::npos || close == 1)
      return false;
    host = authority.substr(1, close - 1);
    ipv6 = true;
    if (close + 1 < authority.size())
    {
      if (authority[close + 1] != ':')
        return false;
      port_text = authority.substr(close + 2);
      if (!parse_port(port_text, port))
        return false;
    }
    return true;
  }
  const size_t colon = authority.find(':');
  host = authority.substr(0, colon);
  if (host.empty())
    return false;
  for (char c : host)
    if (!valid_host_char(c))
      return false;
  if (colon != std::string::npos && !parse_port(authority.substr(colon + 1), port))
    return false;
  return true;
}
}  // namespace

bool URI_Parser::parse(const char* text, URI& out)
{
  if (text == nullptr)
    return false;
  const std::string url(text);
  const size_t sep = url.find("://");
  if (sep == std::string::npos)
    return false;

  URI uri;
  if (!lower_scheme(url.substr(0, sep), uri.scheme_))
    return false;

  const size_t rest = sep + 3;
  const size_t end_authority = url.find_first_of("/?#", rest);
  const std::string authority = url.substr(rest, end_authority == std::string::npos ? std::string::npos : end_authority - rest);
  if (authority.find('@') != std::string::npos)
    return false;
  uri.port_ = uri.is_ssl() ? 443 : 80;
  if (!parse_authority(authority, uri.host_, uri.ipv6_, uri.port_))
    return false;

  if (end_authority != std::string::npos)
  {
    std::string tail = url.substr(end_authority);
    tail = tail.substr(0, tail.find('#'));
    const size_t question = tail.find('?');
    std::string path = tail.substr(0, question);
    if (question != std::string::npos)
      uri.query_ = tail.substr(question + 1);
    if (!path.empty())
      uri.path_ = path;
  }
  for (char c : url)
    if (static_cast<unsigned char>(c) <= ' ')
      return false;
  out = uri;
  return true;
}
