#include "apps/backup-agent/instances_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/rpc_caller.h"

const char* Instances_Command::usage()
{
  return "usage: backup-agent [--config FILE] instances [--json]\n"
         "Lists the instances the module offers for protection, with their state.\n";
}

int Instances_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  std::string error;
  bool json = false, help = false;
  if (!Flag_Reader(help).flag("--json", json).read(args, error))
  {
    err << "backup-agent instances: " << error << "\n" << usage();
    return 64;
  }
  if (help)
  {
    out << usage();
    return 0;
  }
  RPC_Caller caller(module_);
  nlohmann::ordered_json result;
  if (!caller.init(error) || !caller.call("agent.instances", nlohmann::ordered_json::object(), result, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  if (json)
  {
    out << result.dump() << "\n";
    return 0;
  }
  for (const auto& row : result["rows"])
    out << row.value("name", "") << "\t" << row.value("type", "") << "\t" << row.value("state", "") << "\n";
  return 0;
}
