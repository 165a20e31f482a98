#include "apps/backup-agent/sets_command.h"

#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include "host/ews/ews_folders_index.h"
#include "host/http/http_encoding.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"

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

// The mailbox an index file name stands for ("<encoded mailbox>.<rev>.idx").
std::string index_mailbox(const std::string& name)
{
  std::string decoded;
  http_decode_string(name.substr(0, name.rfind('.', name.size() - 5)), 0, decoded);
  return decoded;
}

// Items in the set's indexes; false when they cannot be read.
bool count_set_items(const Exchange_Backup_Set& record, size_t& items)
{
  Pool_Info pool;
  Client_IO_Base::Options options;
  Client_IO_Ex io;
  if (!get_pool_info(record.pool_uuid, nullptr, pool, POOL_ACCESS_READ, 30, nullptr) ||
      !set_options_by_pool(options, pool))
    return false;
  const std::string key = Host_Manager::instance().effective_access_key();
  if (const char* header = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, key))
    options.set_extra_option(header, key);
  if (!io.open(pool.url + "/" + record.uri, options))
    return false;
  items = 0;
  for (const std::string& name : record.index_files)
  {
    std::string text, error;
    EWS_Folders tree;
    std::vector<std::string> failed;
    if (!io.get_contents(name, text) || !load_ews_folders(text, tree, failed, error))
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
  std::string tenant, mailbox;
  bool json = false;
  for (size_t i = 0; i < args.size(); ++i)
  {
    if (args[i] == "--help" || args[i] == "-h")
    {
      out << usage();
      return 0;
    }
    if (args[i] == "--json")
      json = true;
    else if (args[i] == "--tenant" && i + 1 < args.size())
      tenant = args[++i];
    else if (args[i] == "--mailbox" && i + 1 < args.size())
      mailbox = args[++i];
    else
    {
      err << "backup-agent sets: unexpected argument " << args[i] << "\n" << usage();
      return 64;
    }
  }
  std::string query = "/d2/r/v2/sets/restore/sets?module=exchange&sort=backup_start_time&order=desc";
  if (!tenant.empty())
  {
    std::string encoded;
    http_encode_string(tenant, HTTP_ENCODE_SLASH, encoded);
    query += "&resource_uuid=" + encoded;
  }
  nlohmann::ordered_json result;
  if (!read_catalogs(query.c_str(), result, -1, 30) || !result.contains("rows") || !result["rows"].is_array())
  {
    err << "error: the catalog cannot be read\n";
    return 1;
  }
  nlohmann::ordered_json sets = nlohmann::ordered_json::array();
  for (const auto& row : result["rows"])
  {
    Exchange_Backup_Set record;
    std::string error;
    if (!record.from_json(row, error))
      continue;  // a record of another form (not written by this module's backup)
    std::vector<std::string> mailboxes;
    for (const std::string& name : record.index_files)
      mailboxes.push_back(index_mailbox(name));
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
      err << "error: the indexes of set " << record.uuid << " cannot be read\n";
      return 1;
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
                    {"failed_mailboxes", record.failed_mailboxes}});
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
