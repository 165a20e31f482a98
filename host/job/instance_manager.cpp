#include "host/job/instance_manager.h"

#include "host/base/agent_config.h"
#include "host/base/log.h"

Instance_Manager& Instance_Manager::instance()
{
  static Instance_Manager manager;
  return manager;
}

int Instance_Manager::get_account(const std::string& module, const std::string& type, const std::string& uid,
                                  std::string& username, Secure_String& password, void*)
{
  Agent_Config::Account account;
  if (!Agent_Config::instance().find_account(module, type, uid, account))
  {
    LOG_MSG(LM_ERROR, "No account is stored for %s/%s instance '%s'.\n", module.c_str(), type.c_str(), uid.c_str());
    return -1;
  }
  username = account.username;
  password = account.password;
  return 0;
}
