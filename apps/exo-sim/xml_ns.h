#pragma once
// Namespace-aware reading of SOAP requests over pugixml, which itself ignores namespaces: an
// element is matched by its namespace URI (resolved through the xmlns declarations in scope) and
// local name, never by prefix.
#include <string>
#include <vector>

#include <pugixml.hpp>

namespace exo_sim
{

extern const char* const k_ns_soap;
extern const char* const k_ns_messages;
extern const char* const k_ns_types;
extern const char* const k_ns_errors;

std::string xml_local_name(const pugi::xml_node& node);
std::string xml_namespace(const pugi::xml_node& node);
bool xml_is(const pugi::xml_node& node, const char* ns, const char* local);

// First child element with that namespace and local name (an empty node when none).
pugi::xml_node xml_child(const pugi::xml_node& parent, const char* ns, const char* local);
std::vector<pugi::xml_node> xml_children(const pugi::xml_node& parent, const char* ns, const char* local);
// All child elements (any name).
std::vector<pugi::xml_node> xml_elements(const pugi::xml_node& parent);

}  // namespace exo_sim
