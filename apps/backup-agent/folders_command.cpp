#include "apps/backup-agent/folders_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/rpc_caller.h"

const char* Folders_Command::usage()
{
  return "usage: backup-agent [--config FILE] folders --tenant UUID --mailbox ADDRESS [--entry-id ID] [--json]\n"
         "Lists the folders of a mailbox as they are now: its top-level folders, or the\n"
         "subfolders of the folder with that entry id.\n";
}

int Folders_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  std::string tenant, mailbox, entry_id, error;
  bool json = false, help = false;
  bool ok = Flag_Reader(help)
              .value("--tenant", tenant)
              .value("--mailbox", mailbox)
              .value("--entry-id", entry_id)
              .flag("--json", json)
              .read(args, error);
  if (ok && !help && (tenant.empty() || mailbox.empty()))
  {
    error = "--tenant and --mailbox are required";
    ok = false;
  }
  if (!ok)
  {
    err << "backup-agent folders: " << error << "\n" << usage();
    return 64;
  }
  if (help)
  {
    out << usage();
    return 0;
  }
  RPC_Caller caller(module_);
  nlohmann::ordered_json result;
  if (!caller.init(error) ||
      !caller.call("exchange.list_folders", {{"uuid", tenant}, {"mailbox", mailbox}, {"entry_id", entry_id}}, result,
                   error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  if (json)
  {
    out << result.dump() << "\n";
    return 0;
  }
  if (result.contains("rows") && result["rows"].is_array())
    for (const auto& row : result["rows"])
      out << row.value("name", "") << "\t" << row.value("entry_id", "") << "\n";
  return 0;
}
