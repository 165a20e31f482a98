#ifndef HOST_HTTP_URI_PARSER_H
#define HOST_HTTP_URI_PARSER_H

#include "host/http/uri.h"

// Splits absolute http/https URLs: scheme "://" [userinfo "@"] host [":" port]
// [path] ["?" query] ["#" fragment]. User information is refused, since a URL
// with credentials in it must never be accepted (it would end up in logs).
class URI_Parser
{
public:
  // Fills `out` and returns true for a well-formed URL; false (and `out`
  // untouched) for a null or malformed one, an unknown scheme or a bad port.
  static bool parse(const char* text, URI& out);
};

#endif
