#include "apps/backup-agent/sets_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/set_access.h"

#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include "host/http/http_encoding.h"

#include <nlohmann/json.hpp>

#include <ctime>

namespace
{
size_t count_items(const EWS_Folders& folders)
{
  size_t n = 0;
  for (const EWS_Folder& f : folders)
    n += f.items.size() + count_items(f.subfolders);
  return n;
}

// Items in the set's indexes; false when they cannot be read.
bool count_set_items(const Exchange_Backup_Set& record, size_t& items)
{
  Client_IO_Ex io;
  std::string error;
  if (!Set_Access::open(record, io, error))
    return false;
  items = 0;
  for (const std::string& name : record.index_files)
  {
    EWS_Folders tree;
    std::vector<std::string> failed;
    if (!Set_Access::read_index(io, name, tree, failed, error))
      return false;
    items += count_items(tree);
  }
  return true;
}
}  // namespace

const char* Sets_Command::usage()
{
  return "usage: backup-agent [--config FILE] sets [--tenant UUID] [--mailbox ADDRESS] [--json]\n"
         "Lists the Exchange backup sets in the catalog, newest first.\n";
}

int Sets_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  std::string tenant, mailbox, error;
  bool json = false, help = false;
  if (!Flag_Reader(help).flag("--json", json).value("--tenant", tenant).value("--mailbox", mailbox).read(args, error))
  {
    err << "backup-agent sets: " << error << "\n" << usage();
    return 64;
  }
  if (help)
  {
    out << usage();
    return 0;
  }
  nlohmann::ordered_json sets;
  if (!list(tenant, mailbox, sets, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  if (json)
  {
    out << sets.dump() << "\n";
    return 0;
  }
  for (const auto& s : sets)
  {
    out << s["set_uuid"].get<std::string>() << "  " << s["time"].get<std::string>() << "  rev " << s["rev"]
        << "  mailboxes " << s["mailboxes"].size() << "  items " << s["items"] << "  bytes " << s["bytes"];
    if (!s["failed_mailboxes"].empty())
      out << "  failed: " << s["failed_mailboxes"].size();
    out << "\n";
  }
  return 0;
}

bool Sets_Command::list(const std::string& tenant, const std::string& mailbox, nlohmann::ordered_json& sets,
                        std::string& error)
{
  std::string query = std::string(catalog_sets_query) + "module=exchange&sort=backup_start_time&order=desc";
  if (!tenant.empty())
  {
    std::string encoded;
    http_encode_string(tenant, HTTP_ENCODE_SLASH, encoded);
    query += "&resource_uuid=" + encoded;
  }
  nlohmann::ordered_json result;
  if (!read_catalogs(query.c_str(), result, -1, 30) || !result.contains("rows") || !result["rows"].is_array())
  {
    error = "the catalog cannot be read";
    return false;
  }
  sets = nlohmann::ordered_json::array();
  for (const auto& row : result["rows"])
  {
    Exchange_Backup_Set record;
    std::string skipped;
    if (!record.from_json(row, skipped))
      continue;  // a record of another form (not written by this module's backup)
    std::vector<std::string> mailboxes;
    for (const std::string& name : record.index_files)
      mailboxes.push_back(Set_Access::index_mailbox(name));
    bool wanted = mailbox.empty();
    for (const std::string& m : mailboxes)
      wanted = wanted || m == mailbox;
    for (const std::string& m : record.failed_mailboxes)
      wanted = wanted || m == mailbox;
    if (!wanted)
      continue;
    size_t items = 0;
    if (!count_set_items(record, items))
    {
      error = "the indexes of set " + record.uuid + " cannot be read";
      return false;
    }
    char when[32] = "";
    const time_t start = static_cast<time_t>(record.backup_start_time);
    struct tm tm_utc;
    if (gmtime_r(&start, &tm_utc) != nullptr)
      strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm_utc);
    sets.push_back({{"set_uuid", record.uuid},
                    {"time", when},
                    {"rev", record.rev},
                    {"tenant", record.resource_uuid},
                    {"mailboxes", mailboxes},
                    {"items", items},
                    {"bytes", record.size},
                    {"failed_mailboxes", record.failed_mailboxes},
                    {"pool_uuid", record.pool_uuid},
                    {"catalog_uuid", record.uuid},
                    {"uri", record.uri}});
  }
  return true;
}
