#ifndef APPS_BACKUP_AGENT_REGISTRY_LOCK_H
#define APPS_BACKUP_AGENT_REGISTRY_LOCK_H

#include <string>

// Keeps two agent processes from changing the tenant registry at once (each
// would write back its own snapshot and lose the other's change). Held from
// before a change reads the registry until it is written back; released when
// the object goes. Readers need no lock: the registry is replaced by a rename.
// The lock is an flock() on "<registry>.lock" beside the registry (mode 0600,
// left in place).
class Registry_Lock
{
public:
  explicit Registry_Lock(const std::string& registry_path);
  ~Registry_Lock();
  Registry_Lock(const Registry_Lock&) = delete;
  Registry_Lock& operator=(const Registry_Lock&) = delete;

  // Waits for the lock; false (and `error`) when the lock file cannot be opened.
  bool acquire(std::string& error);

private:
  std::string path_;
  int fd_ = -1;
};

#endif
