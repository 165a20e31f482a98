#ifndef APPS_BACKUP_AGENT_SERVE_COMMAND_H
#define APPS_BACKUP_AGENT_SERVE_COMMAND_H

#include "apps/backup-agent/module_host.h"

#include <ostream>
#include <string>
#include <vector>

// `serve [--listen HOST:PORT] [--allow-remote] [--console-dir DIR] [--threads N]`
// and `serve --print-key`: the agent's JSON-RPC endpoint and web console
// (Agent_Http_Server, methods in RPC_Method_Table, docs/json-rpc.md).
// The API key is made on first use in the state directory (Agent_API_Key);
// --print-key prints it (making it when missing) and exits. The listen address
// must be a loopback one unless --allow-remote is given. Serves until SIGINT or
// SIGTERM, then stops taking requests, finishes those in work, cancels the
// background jobs still running and waits for them. Exit status 0 after a clean
// stop, 1 when the module, the key or the address fails, 64 for a bad
// invocation.
class Serve_Command
{
public:
  explicit Serve_Command(Module_Host& module) : module_(module) {}

  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

  static const char* usage();

  struct Request
  {
    std::string host = "127.0.0.1";
    int port = 8470;
    bool allow_remote = false;
    std::string console_dir;
    int threads = 8;
    bool print_key = false;
    bool help = false;
  };
  // False with `error` for an invalid invocation: an unknown flag, a listen
  // address that is not HOST:PORT, or a host that is not a loopback address
  // without --allow-remote.
  static bool parse(const std::vector<std::string>& args, Request& request, std::string& error);

private:
  Module_Host& module_;
};

#endif
