#ifndef HOST_OFFICE365_OFFICE365_TENANT_REGISTRY_H
#define HOST_OFFICE365_OFFICE365_TENANT_REGISTRY_H

#include "host/office365/office365_auth_entry.h"

#include <string>
#include <utility>
#include <vector>

// The tenant registrations of one agent, kept in a JSON file in the agent's state
// directory:
//   {"format_version": 1, "tenants": {"<uuid>": {<Office365_Auth_Entry keys>}, ...}}
// The file holds client secrets: it is always written with mode 0600 (through a
// temporary file renamed over the old one) and is the only place a secret is stored.
//
// An object is a snapshot: load() reads the file, add()/remove() change the
// snapshot, save() writes it. Not thread-safe; the agent's CLI uses one object at
// a time, and get_office365_auth_entry() reads the file afresh on each call.
class Office365_Tenant_Registry
{
public:
  typedef std::pair<std::string, Office365_Auth_Entry> Tenant;

  explicit Office365_Tenant_Registry(const std::string& path);

  // Reads the file; a missing file is an empty registry. False with `error` for an
  // unreadable or malformed file, a file readable by others than its owner, or an
  // entry that lacks a field.
  bool load(std::string& error);
  // Writes the registry with mode 0600. False with `error` when it cannot.
  bool save(std::string& error) const;

  // Adds or replaces the registration `uuid`. False for an empty uuid.
  bool add(const std::string& uuid, const Office365_Auth_Entry& entry);
  // False when there is no such registration.
  bool remove(const std::string& uuid);
  bool find(const std::string& uuid, Office365_Auth_Entry& entry) const;
  const std::vector<Tenant>& tenants() const { return tenants_; }

  // One line per registration for `backup-agent tenant list`: uuid, tenant id,
  // client id, administrator mailbox and endpoints; never the secret.
  std::string describe() const;

  // The token scopes the module asks for with a registration: Microsoft Graph's
  // ("{ms_graph_endpoint}/.default") and EWS's (the scheme, host and port of
  // ews_endpoint followed by "/.default"). The EWS one is left out when
  // ews_endpoint is not a URL.
  static std::vector<std::string> token_scopes(const Office365_Auth_Entry& entry);

  // Checks a registration: asks the login endpoint for a token of each of
  // token_scopes(). False with the failing scope and the service's reason in
  // `error`; an EWS endpoint that is not a URL fails too.
  static bool test(const Office365_Auth_Entry& entry, std::string& error);

  // The registry file of an agent whose state directory is `state_dir`.
  static std::string file_in(const std::string& state_dir);

  // The registry file that get_office365_auth_entry() reads (set by the agent
  // from its configuration).
  static void set_default_path(const std::string& path);
  static std::string default_path();

private:
  std::string path_;
  std::vector<Tenant> tenants_;
};

// Looks registration `uuid` up in the default registry file. False (logged) when
// the file cannot be read or has no such registration.
bool get_office365_auth_entry(const std::string& uuid, Office365_Auth_Entry& entry);

#endif
