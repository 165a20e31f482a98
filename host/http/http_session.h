#ifndef HOST_HTTP_HTTP_SESSION_H
#define HOST_HTTP_HTTP_SESSION_H

#include "host/http/http_request.h"

#include <memory>
#include <mutex>
#include <string>

typedef void CURL;

// How a request ended when no HTTP answer was read.
enum Http_Transport_Error
{
  HTTP_TRANSPORT_OK = 0,
  HTTP_TRANSPORT_CONNECT = 1,   // could not connect or resolve
  HTTP_TRANSPORT_DROPPED = 2,   // connection closed or reset before a full answer
  HTTP_TRANSPORT_TIMEOUT = 3,   // the transfer time limit ran out
  HTTP_TRANSPORT_TLS = 4,       // certificate or handshake failure
  HTTP_TRANSPORT_OTHER = 5,
};

// One HTTP connection to one server (scheme, host, port) on libcurl. Requests
// through it are serialised by an internal mutex and reuse the connection while
// the server keeps it open. TLS peers are always verified.
class HTTP_Session
{
public:
  struct Settings
  {
    std::string host;
    int port = 0;
    bool ssl = false;
    long connect_timeout = 120;   // seconds to establish the connection
    long transfer_timeout = 120;  // seconds for a whole request and answer
    std::string ca_file;          // extra trust anchors (tests); empty: the system's
  };

  explicit HTTP_Session(const Settings& settings);
  ~HTTP_Session();
  HTTP_Session(const HTTP_Session&) = delete;
  HTTP_Session& operator=(const HTTP_Session&) = delete;

  // Sends `request` and reads the answer into `response`. True when an HTTP answer
  // (any status) was read; false on a transport failure, with error() and
  // transport_error() telling why. Error texts never hold header values.
  bool perform(const HTTP_Request& request, HTTP_Response& response);

  const std::string& error() const { return error_; }
  Http_Transport_Error transport_error() const { return transport_error_; }
  // "http[s]://host:port", the base every request path is appended to.
  const std::string& base_url() const { return base_url_; }
  // Connections opened so far (1 while the server keeps the connection alive).
  long connections_opened() const { return connections_opened_; }

private:
  void set_error(int code);

  Settings settings_;
  std::string base_url_;
  std::mutex lock_;
  CURL* curl_ = nullptr;
  std::string error_;
  Http_Transport_Error transport_error_ = HTTP_TRANSPORT_OK;
  long connections_opened_ = 0;
};

typedef std::shared_ptr<HTTP_Session> HTTP_Session_Ptr;

#endif
