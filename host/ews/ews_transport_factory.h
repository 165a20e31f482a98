#ifndef HOST_EWS_EWS_TRANSPORT_FACTORY_H
#define HOST_EWS_EWS_TRANSPORT_FACTORY_H

#include "host/ews/ews_transport.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

// What a transport needs to reach its service.
struct EWS_Transport_Settings
{
  std::string endpoint;        // the service URL (for SOAP the EWS URL, for Graph the Graph endpoint)
  int connect_timeout = 120;   // seconds
  int transfer_timeout = 300;  // seconds for a request carrying no item data
};

// Makes transports by name. "ews" (EWS over SOAP) is always known, and so is
// "graph" (Microsoft Graph's mailbox import/export API); other transports
// register a maker under their own name. Thread-safe.
class EWS_Transport_Factory
{
public:
  // Makes the transport, or returns null (and logs) when it cannot be made.
  typedef std::function<std::unique_ptr<EWS_Transport>(const EWS_Transport_Settings&)> Maker;

  static const char* const default_name;  // "ews"

  // Null (logged) for an unknown name or a transport that cannot be made (a bad
  // endpoint).
  static std::unique_ptr<EWS_Transport> create(const std::string& name, const EWS_Transport_Settings& settings);
  static bool known(const std::string& name);
  static std::vector<std::string> names();
  // Adds or replaces the maker of `name` (tests register fakes this way).
  static void register_maker(const std::string& name, const Maker& maker);
  static void unregister_maker(const std::string& name);
};

#endif
