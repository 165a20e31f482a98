#ifndef HOST_HTTP_HTTP_SESSION_FACTORY_H
#define HOST_HTTP_HTTP_SESSION_FACTORY_H

#include "host/http/http_session.h"
#include "host/http/uri.h"

#include <string>

class ACE_SSL_Context;

// Makes the HTTP sessions of every host client. Plain http is refused for any
// host but a loopback address (is_loopback_host) unless allowed, process-wide by
// allow_plain_http(true) or for one session by its options. Every session trusts
// the system's CAs plus the file given to set_ca_file().
class HTTP_Session_Factory
{
public:
  struct Session_Options
  {
    int connect_timeout = 120;   // seconds; 0 or less: 120
    int transfer_timeout = 120;  // seconds; 0 or less: 120
    bool allow_plain_http = false;
  };

  // A session to the server of `server` (its scheme, host and port). Null, with
  // `error` saying why, when it cannot be made; logs nothing.
  static HTTP_Session_Ptr create(const URI& server, const Session_Options& options, std::string& error);

  // host, port, ssl: the server. proxy: not supported, must be null or empty.
  // flags, ssl_context, keep_alive_only, reserved, reserved2: accepted for
  // interface compatibility. connect_timeout and transfer_timeout are in seconds
  // (0 or less: 120). Returns null (and logs) when the session cannot be made.
  static HTTP_Session_Ptr create(const std::string& host, int port, bool ssl, const char* proxy, int flags,
                                 ACE_SSL_Context* ssl_context, bool keep_alive_only, int connect_timeout,
                                 int transfer_timeout, int reserved, unsigned reserved2);

  // Shorthand for the common case; logs a refusal.
  static HTTP_Session_Ptr create(const std::string& host, int port, bool ssl, int connect_timeout = 120,
                                 int transfer_timeout = 120);

  static void allow_plain_http(bool allow);
  // A PEM file of CAs trusted, besides the system's, by every later session
  // (a private CA); empty for the system's alone.
  static void set_ca_file(const std::string& path);
};

#endif
