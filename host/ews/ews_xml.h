#ifndef HOST_EWS_EWS_XML_H
#define HOST_EWS_EWS_XML_H

#include <pugixml.hpp>

#include <ctime>
#include <string>

// Namespace-aware helpers over pugixml, which itself ignores namespaces. EWS
// answers use varying prefixes, so elements are matched by namespace URI and
// local name, never by prefix.
namespace ews_xml
{
extern const char* const soap_ns;      // http://schemas.xmlsoap.org/soap/envelope/
extern const char* const messages_ns;  // .../exchange/services/2006/messages
extern const char* const types_ns;     // .../exchange/services/2006/types
extern const char* const errors_ns;    // .../exchange/services/2006/errors

// The element name without its prefix.
std::string local_name(const pugi::xml_node& node);
// The namespace URI the element's prefix (or the default namespace) is bound to.
std::string namespace_uri(const pugi::xml_node& node);
// The first child element with this local name (any namespace), or an empty node.
pugi::xml_node child(const pugi::xml_node& parent, const char* local);
// The first child element with this namespace and local name, or an empty node.
pugi::xml_node child(const pugi::xml_node& parent, const char* ns, const char* local);

// "2024-05-01T10:20:30Z", with optional fractional seconds and a "+hh:mm" or
// "-hh:mm" offset, as UTC seconds. 0 for text that is not such a time.
time_t parse_time(const char* text);
// The UTC form "YYYY-MM-DDTHH:MM:SSZ".
std::string format_time(time_t t);
}  // namespace ews_xml

#endif
