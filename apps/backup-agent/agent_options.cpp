#include "apps/backup-agent/agent_options.h"

#include <cstdlib>

#ifndef EXCHANGE_MODULE_DEFAULT_PATH
#define EXCHANGE_MODULE_DEFAULT_PATH "/usr/lib/backup-agent/libexchange.so"
#endif

bool Agent_Options::parse(int argc, char** argv, std::string& error)
{
  const char* env_module = std::getenv("EXCHANGE_MODULE_PATH");
  module_path = env_module != nullptr ? env_module : EXCHANGE_MODULE_DEFAULT_PATH;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i)
  {
    const std::string arg = argv[i];
    if ((arg == "--config" || arg == "--module") && i + 1 < argc)
      (arg == "--config" ? config_path : module_path) = argv[++i];
    else if (arg == "--verbose" || arg == "-v")
      verbose = true;
    else if (arg == "--help" || arg == "-h")
    {
      help = true;
      return true;
    }
    else
    {
      error = "unknown option " + arg.substr(0, arg.find('='));  // a value after '=' may be a secret
      return false;
    }
  }
  if (i >= argc)
  {
    error = "no command given";
    return false;
  }
  command = argv[i++];
  args.assign(argv + i, argv + argc);
  return true;
}

const char* Agent_Options::usage()
{
  return "usage: backup-agent [--config FILE] [--module PATH] [--verbose] COMMAND [ARGS...]\n"
         "       backup-agent --help | COMMAND --help\n"
         "commands:\n"
         "  check-job FILE   read a job definition through the module and print what it understood\n"
         "  run-job FILE     run a backup or restore job definition and wait for its outcome\n"
         "  backup --tenant UUID --mailbox ADDRESS... --pool UUID [--channels N] [--compression none|zstd] [--json]\n"
         "                   back up mailboxes of a registered tenant (backup-agent backup --help)\n"
         "  sets [--tenant UUID] [--mailbox ADDRESS] [--json]\n"
         "                   list the backup sets in the catalog, newest first\n"
         "  restore --set UUID --from ADDRESS --to ADDRESS (--path P | --item ID)... [--relocation FOLDER] [--json]\n"
         "                   restore folders or items of a backup set (backup-agent restore --help)\n"
         "  verify --set UUID [--mailbox ADDRESS] [--json] [--rehearse-into ADDRESS]\n"
         "                   read a backup set back and check every item (backup-agent verify --help)\n"
         "  serve [--listen 127.0.0.1:PORT] [--allow-remote] [--console-dir DIR] | serve --print-key\n"
         "                   answer JSON-RPC at POST /rpc and serve the web console (backup-agent serve --help)\n"
         "  mailboxes --tenant UUID [--search TEXT] [--page-size N] [--json]\n"
         "                   list the mailboxes of a registered tenant\n"
         "  folders --tenant UUID --mailbox ADDRESS [--entry-id ID] [--json]\n"
         "                   list the live folders of a mailbox\n"
         "  browse --set UUID --mailbox ADDRESS [--path \"Inbox/Projects\"] [--json]\n"
         "                   list a folder of a mailbox as a backup set holds it\n"
         "  instances [--json]\n"
         "                   list the instances the module offers, with their state\n"
         "  tenant add|list|remove|test\n"
         "                   manage the Office 365 tenant registrations (backup-agent tenant for details)\n";
}
