#ifndef HOST_JOB_INSTANCE_MANAGER_H
#define HOST_JOB_INSTANCE_MANAGER_H

#include "host/base/secure_allocator.h"

#include <string>

// The stored accounts of application instances (an on-premises Exchange
// server's service account, say), kept in the agent configuration.
class Instance_Manager
{
public:
  static Instance_Manager& instance();

  // Fills `username` and `password` with the account stored for (module, type,
  // uid). Answers 0, or -1 when there is none. `reserved` must be null.
  int get_account(const std::string& module, const std::string& type, const std::string& uid, std::string& username,
                  Secure_String& password, void* reserved);
};

#endif
