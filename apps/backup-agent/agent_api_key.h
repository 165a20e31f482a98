#ifndef APPS_BACKUP_AGENT_AGENT_API_KEY_H
#define APPS_BACKUP_AGENT_AGENT_API_KEY_H

#include "host/base/secure_allocator.h"

#include <string>

// The API key that every JSON-RPC request to `backup-agent serve` must carry as
// "Authorization: Bearer <key>". It is 32 bytes from the kernel's random source
// (getrandom), written as 64 lower-case hex digits into `<state_dir>/api_key`
// (mode 0600, created exclusively on first use, never rewritten) and read from
// there afterwards. The key never goes into a log line or an error message;
// `backup-agent serve --print-key` is the one way it is shown.
// A loaded key is read-only: accepts() may be called from any thread.
class Agent_API_Key
{
public:
  static const size_t KEY_BYTES = 32;

  // The key file of an agent whose state directory is `state_dir`.
  static std::string file_in(const std::string& state_dir);

  // Reads the key file at `path`, creating it with a new key when missing.
  // False with `error` when it cannot be created or read, is readable or
  // writable by others than its owner, or does not hold a key of the form above.
  bool load_or_create(const std::string& path, std::string& error);

  const Secure_String& key() const { return key_; }

  // True when the value of an Authorization header is "Bearer <key>" (the
  // scheme in any case). The key is compared in time that does not depend on
  // where a wrong one differs.
  bool accepts(const std::string& authorization) const;

private:
  bool read(const std::string& path, std::string& error);

  Secure_String key_;
};

#endif
