#ifndef APPS_BACKUP_AGENT_AGENT_OPTIONS_H
#define APPS_BACKUP_AGENT_AGENT_OPTIONS_H

#include <string>
#include <vector>

// The agent's command line:
//   backup-agent [--config FILE] [--module PATH] [--verbose] COMMAND [ARGS...]
struct Agent_Options
{
  std::string config_path;
  std::string module_path;
  bool verbose = false;
  bool help = false;  // --help before the command: print the usage, nothing else
  std::string command;
  std::vector<std::string> args;

  // False (and `error`) for an unknown option or a missing command.
  bool parse(int argc, char** argv, std::string& error);

  static const char* usage();
};

#endif
