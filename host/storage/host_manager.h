#ifndef HOST_STORAGE_HOST_MANAGER_H
#define HOST_STORAGE_HOST_MANAGER_H

#include <mutex>
#include <string>

// How this agent reaches its backup server. The agent fills it once at start-up
// from its configuration file (backup server URL, access key, host id), through
// `init`; the storage, pool and catalog clients read it on every call.
//
// `on_backupd` says the agent runs on the backup server's own machine; it then
// authenticates with the node access key rather than the agent access key.
// The keys are secrets: they are never logged nor written anywhere.
class Host_Manager
{
public:
  struct Settings
  {
    std::string backupd_url;  // "http://127.0.0.1:8450", no trailing "/"
    std::string access_key;
    std::string node_access_key;
    std::string host_id;  // also published through Host_ID
    bool on_backupd = false;
    bool allow_plain_http = false;  // plain http to hosts other than loopback
  };

  static Host_Manager& instance();

  void init(const Settings& settings);

  std::string backupd_url() const;
  bool on_backupd() const;
  std::string access_key() const;
  std::string node_access_key() const;
  // The key this agent sends: the node key on the backup server's machine.
  std::string effective_access_key() const;
  bool allow_plain_http() const;
  std::string host_id() const;

private:
  Host_Manager() = default;
  mutable std::mutex lock_;
  Settings settings_;
};

#endif
