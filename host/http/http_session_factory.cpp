#include "host/http/http_session_factory.h"

#include "host/base/log.h"

#include <atomic>
#include <mutex>

namespace
{
std::atomic<bool> plain_http_allowed{false};
std::mutex ca_lock;
std::string ca_file;

HTTP_Session_Ptr make_session(const std::string& host, int port, bool ssl,
                              const HTTP_Session_Factory::Session_Options& options, std::string& error)
{
  if (host.empty() || port <= 0 || port > 65535)
  {
    error = "invalid HTTP server address '" + host + ":" + std::to_string(port) + "'";
    return HTTP_Session_Ptr();
  }
  if (!ssl && !is_loopback_host(host) && !options.allow_plain_http && !plain_http_allowed)
  {
    error = "plain http is allowed for loopback addresses only, refusing '" + host + "'";
    return HTTP_Session_Ptr();
  }
  HTTP_Session::Settings settings;
  settings.host = host;
  settings.port = port;
  settings.ssl = ssl;
  settings.connect_timeout = options.connect_timeout > 0 ? options.connect_timeout : 120;
  settings.transfer_timeout = options.transfer_timeout > 0 ? options.transfer_timeout : 120;
  {
    std::lock_guard<std::mutex> guard(ca_lock);
    settings.ca_file = ca_file;
  }
  return std::make_shared<HTTP_Session>(settings);
}
}  // namespace

HTTP_Session_Ptr HTTP_Session_Factory::create(const URI& server, const Session_Options& options, std::string& error)
{
  return make_session(server.host(false), server.port(), server.is_ssl(), options, error);
}

HTTP_Session_Ptr HTTP_Session_Factory::create(const std::string& host, int port, bool ssl, const char* proxy, int,
                                              ACE_SSL_Context*, bool, int connect_timeout, int transfer_timeout, int,
                                              unsigned)
{
  if (proxy && *proxy)
  {
    LOG_MSG(LM_ERROR, "HTTP proxies are not supported (server '%s')\n", host.c_str());
    return HTTP_Session_Ptr();
  }
  Session_Options options;
  options.connect_timeout = connect_timeout;
  options.transfer_timeout = transfer_timeout;
  std::string error;
  HTTP_Session_Ptr session = make_session(host, port, ssl, options, error);
  if (!session)
    LOG_MSG(LM_ERROR, "Cannot open an HTTP session: %s\n", error.c_str());
  return session;
}

HTTP_Session_Ptr HTTP_Session_Factory::create(const std::string& host, int port, bool ssl, int connect_timeout,
                                              int transfer_timeout)
{
  return create(host, port, ssl, nullptr, 3, nullptr, false, connect_timeout, transfer_timeout, 0, 0);
}

void HTTP_Session_Factory::allow_plain_http(bool allow) { plain_http_allowed = allow; }

void HTTP_Session_Factory::set_ca_file(const std::string& path)
{
  std::lock_guard<std::mutex> guard(ca_lock);
  ca_file = path;
}
