#ifndef HOST_JOB_INSTANCE_H
#define HOST_JOB_INSTANCE_H

#include <nlohmann/json.hpp>

#include <map>
#include <string>

// One protectable instance that a module offers the agent (a database server, a
// tenant proxy, ...): its module type, its name (unique within the module), its
// uuid (empty when the module has none to give), its options and the logon values
// the agent keeps for it. A plain record, copied and shared freely.
struct Instance
{
  typedef std::map<std::string, nlohmann::ordered_json> options_type;
  typedef std::map<std::string, std::string> logon_options_type;

  std::string type;
  std::string name;
  std::string uuid;
  options_type options;
  logon_options_type logon_options;

  // {"type", "name", "uuid", "options": {...}}. Logon values may hold credentials
  // and are never written.
  nlohmann::ordered_json to_json() const;
};

#endif
