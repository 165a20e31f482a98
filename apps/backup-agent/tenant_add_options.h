#ifndef APPS_BACKUP_AGENT_TENANT_ADD_OPTIONS_H
#define APPS_BACKUP_AGENT_TENANT_ADD_OPTIONS_H

#include "host/office365/office365_auth_entry.h"

#include <string>
#include <vector>

// The arguments of `tenant add`:
//   --tenant-id ID --client-id ID --tenant-email ADDRESS
//   [--login-endpoint URL] [--graph-endpoint URL] [--ews-endpoint URL]
//   [--transport ews|graph] [--secret-file FILE] [--uuid UUID]
// (each also as --name=VALUE).
// The client secret is never an argument (every user of the host can read a
// process's arguments): it comes from --secret-file or standard input.
struct Tenant_Add_Options
{
  static const char* const default_login_endpoint;
  static const char* const default_graph_endpoint;
  static const char* const default_ews_endpoint;

  // Everything but the client secret; endpoints without trailing slashes.
  Office365_Auth_Entry entry;
  // The registration to replace (lower case); empty for a new one.
  std::string uuid;
  // Where the client secret is read from; empty for standard input.
  std::string secret_file;

  // Reads the arguments after "add". False (and `error`) for an unknown option,
  // a missing required field or a value of the wrong form.
  bool parse(const std::vector<std::string>& args, std::string& error);

private:
  // Where an option's value goes; null for an unknown option.
  std::string* option_value(const std::string& name);
  bool check(std::string& error);
};

#endif
