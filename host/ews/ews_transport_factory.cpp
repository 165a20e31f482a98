#include "host/ews/ews_transport_factory.h"

#include "host/base/log.h"
#include "host/ews/ews_graph_transport.h"
#include "host/ews/ews_soap_transport.h"
#include "host/http/http_session_factory.h"
#include "host/http/uri_parser.h"

#include <map>
#include <mutex>

namespace
{
std::unique_ptr<EWS_Transport> make_soap(const EWS_Transport_Settings& settings)
{
  URI uri;
  if (!URI_Parser::parse(settings.endpoint.c_str(), uri))
  {
    LOG_MSG(LM_ERROR, "Invalid EWS endpoint '%s'\n", settings.endpoint.c_str());
    return nullptr;
  }
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(uri.host(false), uri.port(), uri.is_ssl(),
                                                          settings.connect_timeout, settings.transfer_timeout);
  if (!session)
    return nullptr;
  std::string path = uri.path();
  if (!uri.query().empty())
    path += "?" + uri.query();
  std::unique_ptr<EWS_Soap_Transport> transport(new EWS_Soap_Transport(session, path, settings.transfer_timeout));
  // Siblings get sessions of their own: one connection each.
  transport->set_sibling_maker([settings] { return make_soap(settings); });
  return std::unique_ptr<EWS_Transport>(transport.release());
}

// Makes a Graph transport and its siblings, which share what they learn of the
// mailboxes (ids, import sessions).
std::unique_ptr<EWS_Transport> make_graph_sharing(const EWS_Transport_Settings& settings,
                                                  const std::shared_ptr<EWS_Graph_Mailbox_Cache>& cache)
{
  URI uri;
  if (!URI_Parser::parse(settings.endpoint.c_str(), uri))
  {
    LOG_MSG(LM_ERROR, "Invalid Microsoft Graph endpoint '%s'\n", settings.endpoint.c_str());
    return nullptr;
  }
  HTTP_Session_Ptr session = HTTP_Session_Factory::create(uri.host(false), uri.port(), uri.is_ssl(),
                                                          settings.connect_timeout, settings.transfer_timeout);
  if (!session)
    return nullptr;
  std::unique_ptr<EWS_Graph_Transport> transport(
    new EWS_Graph_Transport(session, uri.path(), cache, settings.transfer_timeout));
  transport->set_sibling_maker([settings, cache] { return make_graph_sharing(settings, cache); });
  return std::unique_ptr<EWS_Transport>(transport.release());
}

std::unique_ptr<EWS_Transport> make_graph(const EWS_Transport_Settings& settings)
{
  return make_graph_sharing(settings, std::make_shared<EWS_Graph_Mailbox_Cache>());
}

struct Registry
{
  std::mutex lock;
  std::map<std::string, EWS_Transport_Factory::Maker> makers{{EWS_Transport_Factory::default_name, make_soap},
                                                             {"graph", make_graph}};
};

Registry& registry()
{
  static Registry r;
  return r;
}
}  // namespace

const char* const EWS_Transport_Factory::default_name = "ews";

std::unique_ptr<EWS_Transport> EWS_Transport_Factory::create(const std::string& name,
                                                             const EWS_Transport_Settings& settings)
{
  Maker maker;
  {
    std::lock_guard<std::mutex> guard(registry().lock);
    const auto it = registry().makers.find(name);
    if (it != registry().makers.end())
      maker = it->second;
  }
  if (!maker)
  {
    LOG_MSG(LM_ERROR, "Unknown EWS transport '%s'\n", name.c_str());
    return nullptr;
  }
  return maker(settings);
}

bool EWS_Transport_Factory::known(const std::string& name)
{
  std::lock_guard<std::mutex> guard(registry().lock);
  return registry().makers.count(name) > 0;
}

std::vector<std::string> EWS_Transport_Factory::names()
{
  std::lock_guard<std::mutex> guard(registry().lock);
  std::vector<std::string> out;
  for (const auto& m : registry().makers)
    out.push_back(m.first);
  return out;
}

void EWS_Transport_Factory::register_maker(const std::string& name, const Maker& maker)
{
  std::lock_guard<std::mutex> guard(registry().lock);
  registry().makers[name] = maker;
}

void EWS_Transport_Factory::unregister_maker(const std::string& name)
{
  std::lock_guard<std::mutex> guard(registry().lock);
  if (name != default_name)
    registry().makers.erase(name);
}
