#include "apps/exo-sim/xml_ns.h"

#include <cstring>

namespace exo_sim
{

const char* const k_ns_soap = "http://schemas.xmlsoap.org/soap/envelope/";
const char* const k_ns_messages = "http://schemas.microsoft.com/exchange/services/2006/messages";
const char* const k_ns_types = "http://schemas.microsoft.com/exchange/services/2006/types";
const char* const k_ns_errors = "http://schemas.microsoft.com/exchange/services/2006/errors";

std::string xml_local_name(const pugi::xml_node& node)
{
  const char* name = node.name();
  const char* colon = std::strchr(name, ':');
  return colon ? colon + 1 : name;
}

std::string xml_namespace(const pugi::xml_node& node)
{
  std::string name = node.name();
  auto colon = name.find(':');
  std::string attr = colon == std::string::npos ? "xmlns" : "xmlns:" + name.substr(0, colon);
  for (pugi::xml_node n = node; n && n.type() == pugi::node_element; n = n.parent())
  {
    pugi::xml_attribute a = n.attribute(attr.c_str());
    if (a)
      return a.value();
  }
  return "";
}

bool xml_is(const pugi::xml_node& node, const char* ns, const char* local)
{
  return node.type() == pugi::node_element && xml_local_name(node) == local && xml_namespace(node) == ns;
}

pugi::xml_node xml_child(const pugi::xml_node& parent, const char* ns, const char* local)
{
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
    if (xml_is(c, ns, local))
      return c;
  return pugi::xml_node();
}

std::vector<pugi::xml_node> xml_children(const pugi::xml_node& parent, const char* ns, const char* local)
{
  std::vector<pugi::xml_node> out;
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
    if (xml_is(c, ns, local))
      out.push_back(c);
  return out;
}

std::vector<pugi::xml_node> xml_elements(const pugi::xml_node& parent)
{
  std::vector<pugi::xml_node> out;
  for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
    if (c.type() == pugi::node_element)
      out.push_back(c);
  return out;
}

}  // namespace exo_sim
