#pragma once
// Command-line configuration of exo-sim: listen address, data profile, tenant registration,
// basic accounts, state directory and the initial fault settings.
#include <cstdint>
#include <string>
#include <vector>

#include "apps/exo-sim/fault_injector.h"

namespace exo_sim
{

// Shape of the generated mailboxes.
struct Data_Profile
{
  std::string name = "small";
  int mailboxes = 5;
  int depth = 2;                // levels of generated folders below Inbox
  int fanout = 2;               // subfolders per generated folder
  int items = 12;               // mean items per generated folder
  int page_size = 100;          // size of the "Exactly one page" folder
  int large_items = 1;          // items in the "Large items" folder
  int large_item_mib = 3;       // size of each of them
  int large_item_max_mib = 0;   // when larger: sizes spread from large_item_mib up to this
  int renamed_users = 0;        // extra users whose user principal name is not their primary SMTP address
  bool hidden_folders = false;  // hidden system folders under the message folder root
};

// Fills `profile` with the named preset; false for an unknown name.
bool data_profile_preset(const std::string& name, Data_Profile& profile);

struct Registration
{
  std::string client_id;
  std::string client_secret;
};

struct Basic_Account
{
  std::string user;  // a mailbox address
  std::string password;
};

struct Tenant_Config
{
  std::string tenant_id = "8d7a4f52-6c1b-4e0a-9f3d-2b5c7e9a1d04";
  std::string domain = "demo.exosim.test";
  // The tenant's initial domain: every mailbox has a proxy address there, and some users
  // sign in with a user principal name in it.
  std::string initial_domain = "exosimdemo.onmicrosoft.com";
  std::vector<Registration> registrations;
  std::vector<Basic_Account> basic_accounts;
};

struct Sim_Options
{
  std::string listen = "127.0.0.1";
  int port = 0;
  uint64_t seed = 1;
  Data_Profile profile;
  int token_lifetime = 3599;
  Tenant_Config tenant;
  std::string state_dir;
  std::string request_log;  // empty = stderr, "-" = stdout
  int threads = 32;
  // Kept-alive connections: a connection serves up to this many requests and is closed after
  // this many idle seconds. Each open connection holds one worker thread while it lives.
  int keep_alive_max = 100000;
  int keep_alive_timeout = 15;
  int import_session_lifetime = 3600;  // seconds a Graph import session (its importUrl) stays valid
  Fault_Settings faults;
};

// Parses argv into `options`. False with `error` set on a bad or unknown flag.
bool parse_sim_options(int argc, const char* const* argv, Sim_Options& options, std::string& error);

// The usage text printed for --help or a bad flag.
const char* sim_usage();

}  // namespace exo_sim
