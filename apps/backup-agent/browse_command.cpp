#include "apps/backup-agent/browse_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/folder_path.h"
#include "apps/backup-agent/rpc_caller.h"
#include "apps/backup-agent/set_access.h"

const char* Browse_Command::usage()
{
  return "usage: backup-agent [--config FILE] browse --set UUID --mailbox ADDRESS [--path \"Inbox/Projects\"] "
         "[--json]\n"
         "Lists a folder of a mailbox as the backup set holds it: its subfolders and items\n"
         "(the mailbox's top-level folders without --path).\n";
}

bool Browse_Command::resolve(RPC_Caller& caller, nlohmann::ordered_json params, const std::string& path,
                             nlohmann::ordered_json& ids, nlohmann::ordered_json& listing, std::string& error)
{
  ids = nlohmann::ordered_json::array();
  params["parent_entry_ids"] = ids;
  if (!caller.call("exchange.browse_set", params, listing, error))
    return false;
  std::string walked;
  for (const std::string& name : split_folder_path(path))
  {
    walked += (walked.empty() ? "" : "/") + name;
    // Folder rows carry "name", item rows "subject".
    const nlohmann::ordered_json* found = nullptr;
    if (listing.contains("rows") && listing["rows"].is_array())
      for (const auto& row : listing["rows"])
        if (row.is_object() && row.contains("name") && row["name"] == name)
        {
          found = &row;
          break;
        }
    if (found == nullptr || !found->contains("entry_id") || !(*found)["entry_id"].is_string())
    {
      error = "the set has no folder " + walked + " in mailbox " + params.value("mailbox", "");
      return false;
    }
    ids.push_back((*found)["entry_id"]);
    params["parent_entry_ids"] = ids;
    nlohmann::ordered_json next;
    if (!caller.call("exchange.browse_set", params, next, error))
      return false;
    listing = next;
  }
  return true;
}

int Browse_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  std::string set, mailbox, path, error;
  bool json = false, help = false;
  bool ok = Flag_Reader(help)
              .value("--set", set)
              .value("--mailbox", mailbox)
              .value("--path", path)
              .flag("--json", json)
              .read(args, error);
  if (ok && !help && (set.empty() || mailbox.empty()))
  {
    error = "--set and --mailbox are required";
    ok = false;
  }
  if (!ok)
  {
    err << "backup-agent browse: " << error << "\n" << usage();
    return 64;
  }
  if (help)
  {
    out << usage();
    return 0;
  }
  Exchange_Backup_Set record;
  RPC_Caller caller(module_);
  nlohmann::ordered_json ids, listing;
  if (!Set_Access::find(set, record, error) || !caller.init(error) ||
      !resolve(caller,
               {{"pool_uuid", record.pool_uuid},
                {"catalog_uuid", record.uuid},
                {"uri", record.uri},
                {"mailbox", mailbox},
                {"rev", record.rev}},
               path, ids, listing, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  if (json)
  {
    nlohmann::ordered_json shown = {{"parent_entry_ids", ids}};
    for (auto& member : listing.items())
      shown[member.key()] = member.value();
    out << shown.dump() << "\n";
    return 0;
  }
  if (listing.contains("rows") && listing["rows"].is_array())
    for (const auto& row : listing["rows"])
    {
      const bool folder = row.contains("name");
      out << (folder ? "folder\t" : "item\t") << row.value(folder ? "name" : "subject", "") << "\t"
          << row.value("entry_id", "") << "\n";
    }
  return 0;
}
