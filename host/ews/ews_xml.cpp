#include "host/ews/ews_xml.h"

#include <cstdio>
#include <cstring>

namespace ews_xml
{
const char* const soap_ns = "http://schemas.xmlsoap.org/soap/envelope/";
const char* const messages_ns = "http://schemas.microsoft.com/exchange/services/2006/messages";
const char* const types_ns = "http://schemas.microsoft.com/exchange/services/2006/types";
const char* const errors_ns = "http://schemas.microsoft.com/exchange/services/2006/errors";

std::string local_name(const pugi::xml_node& node)
{
  const char* name = node.name();
  const char* colon = std::strchr(name, ':');
  return colon ? colon + 1 : name;
}

std::string namespace_uri(const pugi::xml_node& node)
{
  const std::string name = node.name();
  const size_t colon = name.find(':');
  const std::string attr = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
  for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent())
  {
    const pugi::xml_attribute a = n.attribute(attr.c_str());
    if (a)
      return a.value();
  }
  return std::string();
}

pugi::xml_node child(const pugi::xml_node& parent, const char* local)
{
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
    if (c.type() == pugi::node_element && local_name(c) == local)
      return c;
  return pugi::xml_node();
}

pugi::xml_node child(const pugi::xml_node& parent, const char* ns, const char* local)
{
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
    if (c.type() == pugi::node_element && local_name(c) == local && namespace_uri(c) == ns)
      return c;
  return pugi::xml_node();
}

time_t parse_time(const char* text)
{
  if (text == nullptr)
    return 0;
  int y = 0, mo = 0, d = 0, h = 0, mi = 0, s = 0, used = 0;
  if (std::sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &used) != 6)
    return 0;
  const char* rest = text + used;
  if (*rest == '.')
    for (++rest; *rest >= '0' && *rest <= '9'; ++rest)
      ;
  long offset = 0;
  if (*rest == '+' || *rest == '-')
  {
    int oh = 0, om = 0;
    if (std::sscanf(rest + 1, "%2d:%2d", &oh, &om) != 2)
      return 0;
    offset = (oh * 3600L + om * 60L) * (*rest == '+' ? 1 : -1);
  }
  else if (*rest != 'Z' && *rest != '\0')
    return 0;
  struct tm tm = {};
  tm.tm_year = y - 1900;
  tm.tm_mon = mo - 1;
  tm.tm_mday = d;
  tm.tm_hour = h;
  tm.tm_min = mi;
  tm.tm_sec = s;
  return timegm(&tm) - offset;
}

std::string format_time(time_t t)
{
  struct tm tm = {};
  gmtime_r(&t, &tm);
  char text[32];
  std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}
}  // namespace ews_xml
