// backup-agent: the host agent. Loads the Exchange module at run time through
// its exported factory pairs and runs its jobs; manages the Office 365 tenant
// registry the jobs take their credentials from; serves the module's JSON-RPC
// handlers and its own methods over HTTP (serve) and calls the same handlers
// in-process for the browsing commands.

#include "apps/backup-agent/agent_options.h"
#include "apps/backup-agent/backup_command.h"
#include "apps/backup-agent/browse_command.h"
#include "apps/backup-agent/folders_command.h"
#include "apps/backup-agent/instances_command.h"
#include "apps/backup-agent/mailboxes_command.h"
#include "apps/backup-agent/check_job_command.h"
#include "apps/backup-agent/module_host.h"
#include "apps/backup-agent/restore_command.h"
#include "apps/backup-agent/run_job_command.h"
#include "apps/backup-agent/serve_command.h"
#include "apps/backup-agent/sets_command.h"
#include "apps/backup-agent/tenant_command.h"
#include "apps/backup-agent/verify_command.h"
#include "host/ews/ews_params.h"
#include "host/base/agent_config.h"
#include "host/office365/office365_tenant_registry.h"
#include "host/storage/host_manager.h"

#include <ace/Log_Msg.h>
#include <algorithm>
#include <fstream>
#include <iostream>

namespace
{
void set_up_logging(bool verbose)
{
  u_long mask = LM_INFO | LM_NOTICE | LM_WARNING | LM_ERROR | LM_CRITICAL | LM_ALERT | LM_EMERGENCY;
  if (verbose)
    mask |= LM_DEBUG | LM_TRACE;
  ACE_LOG_MSG->priority_mask(mask, ACE_Log_Msg::PROCESS);
}

// Sends the agent's log lines to its log file as well as to standard error.
bool open_log_file(const std::string& path, std::ofstream& file)
{
  if (path.empty())
    return true;
  file.open(path, std::ios::app);
  if (!file)
    return false;
  ACE_LOG_MSG->msg_ostream(&file, false);
  ACE_LOG_MSG->set_flags(ACE_Log_Msg::OSTREAM | ACE_Log_Msg::VERBOSE_LITE);
  return true;
}

// Hands the configuration to the host libraries that take theirs from it.
void apply_configuration(const Agent_Config& config)
{
  if (!config.state_dir().empty())
    Office365_Tenant_Registry::set_default_path(Office365_Tenant_Registry::file_in(config.state_dir()));
  EWS_Params::configure(config);

  Host_Manager::Settings backup_server;
  backup_server.backupd_url = config.backup_server_url();
  backup_server.access_key.assign(config.access_key().data(), config.access_key().size());
  backup_server.node_access_key.assign(config.node_access_key().data(), config.node_access_key().size());
  backup_server.host_id = config.host_id();
  backup_server.on_backupd = config.on_backupd();
  Host_Manager::instance().init(backup_server);
}

// A command that runs jobs of the module: the module is loaded first, except
// for --help, which needs none.
template <class Command>
int module_command(const Agent_Options& options)
{
  Module_Host module;
  const bool help = std::find(options.args.begin(), options.args.end(), "--help") != options.args.end() ||
                    std::find(options.args.begin(), options.args.end(), "-h") != options.args.end();
  if (!help && !module.load(options.module_path))
  {
    std::cerr << "backup-agent: " << module.error() << "\n";
    return 1;
  }
  return Command(module).run(options.args, std::cout, std::cerr);
}

int run_job_command(const Agent_Options& options)
{
  if (options.args.size() != 1)
  {
    std::cerr << "backup-agent: " << options.command << " takes one job definition file\n";
    return 64;
  }
  Module_Host module;
  if (!module.load(options.module_path))
  {
    std::cerr << "backup-agent: " << module.error() << "\n";
    return 1;
  }
  if (options.command == "check-job")
    return Check_Job_Command(module).run(options.args[0], std::cout, std::cerr);
  return Run_Job_Command(module).run(options.args[0], std::cout, std::cerr);
}
}  // namespace

int main(int argc, char** argv)
{
  Agent_Options options;
  std::string error;
  if (!options.parse(argc, argv, error))
  {
    std::cerr << "backup-agent: " << error << "\n" << Agent_Options::usage();
    return 64;
  }
  if (options.help)
  {
    std::cout << Agent_Options::usage();
    return 0;
  }
  set_up_logging(options.verbose);
  if (!options.config_path.empty() && !Agent_Config::instance().load_file(options.config_path, error))
  {
    std::cerr << "backup-agent: " << error << "\n";
    return 1;
  }

  std::ofstream log_file;
  if (!open_log_file(Agent_Config::instance().log_file(), log_file))
  {
    std::cerr << "backup-agent: cannot open the log file " << Agent_Config::instance().log_file() << "\n";
    return 1;
  }

  apply_configuration(Agent_Config::instance());

  if (options.command == "check-job" || options.command == "run-job")
    return run_job_command(options);
  if (options.command == "backup")
    return module_command<Backup_Command>(options);
  if (options.command == "sets")
    return Sets_Command().run(options.args, std::cout, std::cerr);
  if (options.command == "restore")
    return module_command<Restore_Command>(options);
  if (options.command == "verify")
    return module_command<Verify_Command>(options);
  if (options.command == "serve")
    return module_command<Serve_Command>(options);
  if (options.command == "mailboxes")
    return module_command<Mailboxes_Command>(options);
  if (options.command == "folders")
    return module_command<Folders_Command>(options);
  if (options.command == "browse")
    return module_command<Browse_Command>(options);
  if (options.command == "instances")
    return module_command<Instances_Command>(options);
  if (options.command == "tenant")
    return Tenant_Command(Office365_Tenant_Registry::default_path(), std::cout, std::cerr).run(options.args);
  std::cerr << "backup-agent: unknown command " << options.command << "\n" << Agent_Options::usage();
  return 64;
}
