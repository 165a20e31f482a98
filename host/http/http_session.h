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
  HTTP_TRANSPORT_CONNECT = 1,  // could not connect or resolve
  HTTP_TRANSPORT_DROPPED = 2,  // connection closed or reset before a full answer
  HTTP_TRANSPORT_TIMEOUT = 3,  // the transfer time limit ran out
  HTTP_TRANSPORT_TLS = 4,      // certificate or handshake failure
  HTTP_TRANSPORT_OTHER = 5,
  HTTP_TRANSPORT_ABORTED = 6,  // a body source or sink stopped the transfer
};

// One HTTP connection to one server (scheme, host, port) on libcurl: the only
// place of the host layer that sets up a libcurl transfer. Requests through it are
// serialised by an internal mutex (a streamed transfer holds it until it ends, so
// concurrent streams use sessions of their own) and reuse the connection while
// the server keeps it open. Every request carries user_agent(). TLS peers are
// always verified against the system's trust store plus the settings' CA file.
// perform() logs nothing: its callers report failures.
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
    std::string ca_file;          // PEM certificates trusted in addition to the system's
  };

  // "exchange-online-backup/<version>", sent with every request.
  static const char* user_agent();

  explicit HTTP_Session(const Settings& settings);
  ~HTTP_Session();
  HTTP_Session(const HTTP_Session&) = delete;
  HTTP_Session& operator=(const HTTP_Session&) = delete;

  // Sends `request` and reads the answer into `response` (a streamed body through
  // the request's source and the response's sink). True when an HTTP answer (any
  // status) was read; false on a transport failure, with error() and
  // transport_error() telling why. Error texts never hold header values.
  bool perform(const HTTP_Request& request, HTTP_Response& response);

  const std::string& error() const { return error_; }
  Http_Transport_Error transport_error() const { return transport_error_; }
  // For the last perform() that failed: whether the whole request (headers and
  // every body byte) was handed to the connection, and whether the answer had
  // begun (a status line arrived). http_transport_outcome() reads these.
  bool request_sent() const { return request_sent_; }
  bool answer_started() const { return answer_started_; }
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
  bool request_sent_ = false;
  bool answer_started_ = false;
  long connections_opened_ = 0;
};

typedef std::shared_ptr<HTTP_Session> HTTP_Session_Ptr;

#endif
