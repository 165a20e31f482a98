#ifndef HOST_BASE_AGENT_CONFIG_H
#define HOST_BASE_AGENT_CONFIG_H

#include "host/base/secure_allocator.h"

#include <ace/Thread_Mutex.h>
#include <map>
#include <string>
#include <vector>

// The agent's configuration, one JSON file (layout in docs/agent-config.md).
// Loaded once at start-up by the agent; read by the host libraries from any
// thread afterwards. Secrets (passwords, access keys) are held in wiped memory
// and never logged.
class Agent_Config
{
public:
  struct Account
  {
    std::string module;
    std::string type;
    std::string uid;
    std::string username;
    Secure_String password;
  };

  static Agent_Config& instance();

  // Replaces the configuration with the file's; false (and `error`) when the file
  // cannot be read or is not of the documented form. A failed load changes nothing.
  bool load_file(const std::string& path, std::string& error);
  bool load_text(const std::string& text, std::string& error);

  // Where the agent keeps job activity records, job logs, alerts and the tenant
  // registry. Empty means: activity records live in memory only.
  std::string state_dir() const;
  void state_dir(const std::string& dir);

  std::string host_id() const;
  std::string log_file() const;
  std::string backup_server_url() const;
  Secure_String access_key() const;
  Secure_String node_access_key() const;
  bool on_backupd() const;

  // An integer setting of a host library ("ews.paging_size"), or `fallback`.
  // load_file()/load_text() refuse a setting that is not an integer.
  long setting(const std::string& name, long fallback) const;

  // The stored account of (module, type, uid); false when there is none.
  bool find_account(const std::string& module, const std::string& type, const std::string& uid, Account& out) const;

private:
  Agent_Config();

  mutable ACE_Thread_Mutex lock_;
  std::string state_dir_;
  std::string host_id_;
  std::string log_file_;
  std::string backup_server_url_;
  Secure_String access_key_;
  Secure_String node_access_key_;
  bool on_backupd_;
  std::map<std::string, long> settings_;
  std::vector<Account> accounts_;
};

#endif
