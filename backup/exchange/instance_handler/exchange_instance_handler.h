#ifndef BACKUP_EXCHANGE_INSTANCE_HANDLER_EXCHANGE_INSTANCE_HANDLER_H
#define BACKUP_EXCHANGE_INSTANCE_HANDLER_EXCHANGE_INSTANCE_HANDLER_H

#include "host/job/instance_handler.h"

// The module's instances for the agent: exactly one, the Exchange Online proxy
// ("Exchange_Online_Proxy", options {"is_proxy": true}), which needs no
// discovery, no logon and no options; it is always "enabled". Keeps no state.
// Made and released through the _make_Exchange_Instance_Handler /
// _gobble_Exchange_Instance_Handler pair.
class Exchange_Instance_Handler : public Instance_Handler
{
public:
  Exchange_Instance_Handler();
  ~Exchange_Instance_Handler() override;

  // Stores the proxy instance under its name, replacing an earlier entry. 0.
  int probe_instances(instances_type& instances) override;
  // "enabled", whatever the name.
  std::string& get_state(const char* name, std::string& state) override;
  // Accepted as they are: 0.
  int logon(const char* name, const char* user, const char* password) override;
  // Nothing to change: 0.
  int update_options(const char* type, const char* name, const char* uuid, options_type& options) override;
};

#endif
