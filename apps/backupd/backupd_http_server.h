#ifndef APPS_BACKUPD_BACKUPD_HTTP_SERVER_H
#define APPS_BACKUPD_BACKUPD_HTTP_SERVER_H

#include <httplib.h>

// cpp-httplib's server with backupd's connection rules. It runs each accepted
// connection itself:
// - TCP_NODELAY on every accepted socket, so small answers are not held back;
// - keep-alive up to the configured request count and idle time;
// - a connection whose request could not be parsed, or whose request body was
//   not read to its end (a request refused before its body was read, an upload
//   cut off), is ended after the answer: the unread bytes are never taken for a
//   next request. The answer says "Connection: close", and the server then
//   discards what the client still sends for a short while before closing, so
//   that the client can finish sending and read the answer.
// A handler that reads a request body marks it with read_body(); everything else
// is automatic. The static functions act on the request being served by the
// calling worker thread, and may only be called from a handler.
class Backupd_Http_Server : public httplib::Server
{
public:
  Backupd_Http_Server();

  // True when the request being served carries a body (a Content-Length above 0
  // or a Transfer-Encoding).
  static bool request_has_body();
  // Ends the connection after the answer to the request being served, for a
  // request whose end cannot be told for sure.
  static void close_after_reply();
  // Reads the request body through `reader` into `receiver`; true when it was
  // read to its end, which lets the connection serve further requests.
  static bool read_body(const httplib::ContentReader& reader, httplib::ContentReceiver receiver);

private:
  bool process_and_close_socket(socket_t sock) override;
};

#endif
