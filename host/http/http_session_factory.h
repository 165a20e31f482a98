#ifndef HOST_HTTP_HTTP_SESSION_FACTORY_H
#define HOST_HTTP_HTTP_SESSION_FACTORY_H

#include "host/http/http_session.h"

#include <string>

class ACE_SSL_Context;

// Makes HTTP sessions. Plain http is refused for any host but a loopback address
// unless allow_plain_http(true) was called (from the agent configuration).
class HTTP_Session_Factory
{
public:
  // host, port, ssl: the server. proxy: not supported, must be null or empty.
  // flags, ssl_context, keep_alive_only, reserved, reserved2: accepted for
  // interface compatibility; TLS always uses the system trust store (plus
  // set_ca_file()) with peer verification on. connect_timeout and
  // transfer_timeout are in seconds (0 or less: 120).
  // Returns null (and logs) when the session cannot be made.
  static HTTP_Session_Ptr create(const std::string& host, int port, bool ssl, const char* proxy, int flags,
                                 ACE_SSL_Context* ssl_context, bool keep_alive_only, int connect_timeout,
                                 int transfer_timeout, int reserved, unsigned reserved2);

  // Shorthand for the common case.
  static HTTP_Session_Ptr create(const std::string& host, int port, bool ssl, int connect_timeout = 120,
                                 int transfer_timeout = 120);

  static void allow_plain_http(bool allow);
  // An extra CA bundle trusted by every later session (private CAs, tests).
  static void set_ca_file(const std::string& path);
};

#endif
