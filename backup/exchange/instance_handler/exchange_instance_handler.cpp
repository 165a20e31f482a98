#include "backup/exchange/instance_handler/exchange_instance_handler.h"

#include "backup/exchange/job/module_exports.h"

#include <memory>

EXCHANGE_OBJECT_EXPORTS(Exchange_Instance_Handler, Exchange_Instance_Handler, Instance_Handler)

namespace
{
const char* const proxy_name = "Exchange_Online_Proxy";
}

Exchange_Instance_Handler::Exchange_Instance_Handler() : Instance_Handler("exchange") {}

Exchange_Instance_Handler::~Exchange_Instance_Handler() {}

int Exchange_Instance_Handler::probe_instances(instances_type& instances)
{
  std::shared_ptr<Instance> instance = std::make_shared<Instance>();
  instance->type = "exchange";
  instance->name = proxy_name;
  instance->options["is_proxy"] = true;
  instances[proxy_name] = instance;
  return 0;
}

std::string& Exchange_Instance_Handler::get_state(const char*, std::string& state)
{
  state = "enabled";
  return state;
}

int Exchange_Instance_Handler::logon(const char*, const char*, const char*) { return 0; }

int Exchange_Instance_Handler::update_options(const char*, const char*, const char*, options_type&) { return 0; }
