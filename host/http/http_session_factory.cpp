#include "host/http/http_session_factory.h"

#include "host/base/log.h"

#include <atomic>
#include <mutex>

namespace
{
std::atomic<bool> plain_http_allowed{false};
std::mutex ca_lock;
std::string ca_file;

bool is_loopback(const std::string& host)
{
  return host == "localhost" || host == "::1" || host.compare(0, 4, "127.") == 0;
}
}  // namespace

HTTP_Session_Ptr HTTP_Session_Factory::create(const std::string& host, int port, bool ssl, const char* proxy,
                                              int, ACE_SSL_Context*, bool, int connect_timeout,
                                              int transfer_timeout, int, unsigned)
{
  if (host.empty() || port <= 0 || port > 65535)
  {
    LOG_MSG(LM_ERROR, "Invalid HTTP server address '%s:%d'\n", host.c_str(), port);
    return HTTP_Session_Ptr();
  }
  if (proxy && *proxy)
  {
    LOG_MSG(LM_ERROR, "HTTP proxies are not supported (server '%s')\n", host.c_str());
    return HTTP_Session_Ptr();
  }
  if (!ssl && !is_loopback(host) && !plain_http_allowed)
  {
    LOG_MSG(LM_ERROR, "Refusing plain http to '%s': only https is allowed for remote servers\n", host.c_str());
    return HTTP_Session_Ptr();
  }
  HTTP_Session::Settings settings;
  settings.host = host;
  settings.port = port;
  settings.ssl = ssl;
  settings.connect_timeout = connect_timeout > 0 ? connect_timeout : 120;
  settings.transfer_timeout = transfer_timeout > 0 ? transfer_timeout : 120;
  {
    std::lock_guard<std::mutex> guard(ca_lock);
    settings.ca_file = ca_file;
  }
  return std::make_shared<HTTP_Session>(settings);
}

HTTP_Session_Ptr HTTP_Session_Factory::create(const std::string& host, int port, bool ssl, int connect_timeout,
                                              int transfer_timeout)
{
  return create(host, port, ssl, nullptr, 3, nullptr, false, connect_timeout, transfer_timeout, 0, 0);
}

void HTTP_Session_Factory::allow_plain_http(bool allow)
{
  plain_http_allowed = allow;
}

void HTTP_Session_Factory::set_ca_file(const std::string& path)
{
  std::lock_guard<std::mutex> guard(ca_lock);
  ca_file = path;
}
