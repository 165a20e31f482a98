#include "apps/backup-agent/restore_command.h"

#include "host/base/agent_config.h"
#include "host/base/uuid.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include "host/ews/ews_folders_index.h"
#include "host/http/http_encoding.h"
#include "host/job/job.h"
#include "host/job/job_definition_reader.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace
{
std::atomic<bool> stop_requested(false);

void request_stop(int) { stop_requested = true; }

std::string encoded(const std::string& text)
{
  std::string out;
  http_encode_string(text, HTTP_ENCODE_SLASH, out);
  return out;
}

// The folder path ("a/b") of the folder holding item `id`, searched depth first.
bool find_item(const EWS_Folders& folders, const std::string& prefix, const std::string& id, std::string& path)
{
  for (const EWS_Folder& f : folders)
  {
    const std::string here = prefix.empty() ? f.display_name : prefix + "/" + f.display_name;
    for (const EWS_Item& item : f.items)
      if (item.id == id)
      {
        path = here;
        return true;
      }
    if (find_item(f.subfolders, here, id, path))
      return true;
  }
  return false;
}

// Reads the set's record and the index of `mailbox` in it.
bool read_set(const std::string& set, const std::string& mailbox, Exchange_Backup_Set& record, EWS_Folders& tree,
              std::string& error)
{
  nlohmann::ordered_json result;
  const std::string query = "/d2/r/v2/sets/restore/sets?module=exchange&uuid=" + encoded(set);
  if (!read_catalogs(query.c_str(), result, -1, 30) || !result.contains("rows") || !result["rows"].is_array())
  {
    error = "the catalog cannot be read";
    return false;
  }
  if (result["rows"].empty())
  {
    error = "no backup set " + set;
    return false;
  }
  if (!record.from_json(result["rows"][0], error))
    return false;
  Pool_Info pool;
  Client_IO_Base::Options options;
  Client_IO_Ex io;
  if (!get_pool_info(record.pool_uuid, nullptr, pool, POOL_ACCESS_READ, 30, nullptr) ||
      !set_options_by_pool(options, pool))
  {
    error = "the set's pool " + record.pool_uuid + " is unknown";
    return false;
  }
  const std::string key = Host_Manager::instance().effective_access_key();
  if (const char* header = http_head_string(HTTP_HEAD_ACCESS_KEY, 0, key))
    options.set_extra_option(header, key);
  if (!io.open(pool.url + "/" + record.uri, options))
  {
    error = "the set's storage cannot be opened";
    return false;
  }
  for (const std::string& name : record.index_files)
  {
    std::string decoded;
    http_decode_string(name.substr(0, name.rfind('.', name.size() - 5)), 0, decoded);
    if (decoded != mailbox)
      continue;
    std::string text;
    std::vector<std::string> failed;
    if (!io.get_contents(name, text) || !load_ews_folders(text, tree, failed, error))
    {
      error = "the index of " + mailbox + " cannot be read";
      return false;
    }
    return true;
  }
  error = "the set holds no mailbox " + mailbox;
  return false;
}
}  // namespace

const char* Restore_Command::usage()
{
  return "usage: backup-agent [--config FILE] restore --set UUID --from ADDRESS --to ADDRESS\n"
         "                    (--path \"Inbox/Projects\" | --item ID) [--path P | --item ID...]\n"
         "                    [--relocation FOLDER] [--json]\n"
         "Restores folders (by their path of display names) and items (by id) of a mailbox\n"
         "in a backup set into a mailbox, under the relocation folder when given.\n"
         "Exit status: 0 all restored, 2 done with failed items, 1 failed, 130 cancelled.\n";
}

bool Restore_Command::parse(const std::vector<std::string>& args, Request& request, std::string& error)
{
  for (size_t i = 0; i < args.size(); ++i)
  {
    const std::string& arg = args[i];
    const bool has_value = i + 1 < args.size();
    if (arg == "--help" || arg == "-h")
      request.help = true;
    else if (arg == "--json")
      request.json = true;
    else if (arg == "--set" && has_value)
      request.set = args[++i];
    else if (arg == "--from" && has_value)
      request.from = args[++i];
    else if (arg == "--to" && has_value)
      request.to = args[++i];
    else if (arg == "--path" && has_value)
      request.paths.push_back(args[++i]);
    else if (arg == "--item" && has_value)
      request.items.push_back(args[++i]);
    else if (arg == "--relocation" && has_value)
      request.relocation = args[++i];
    else
    {
      error = "unexpected argument " + arg;
      return false;
    }
  }
  if (request.help)
    return true;
  if (request.set.empty() || request.from.empty() || request.to.empty())
    error = "--set, --from and --to are required";
  else if (request.paths.empty() && request.items.empty())
    error = "name at least one --path or --item";
  return error.empty();
}

bool Restore_Command::path_entry(const EWS_Folders& tree, const std::string& path, std::string& entry,
                                 std::string& error)
{
  const EWS_Folders* level = &tree;
  const EWS_Folder* found = nullptr;
  std::string parent;
  size_t begin = 0;
  while (begin <= path.size())
  {
    size_t end = path.find('/', begin);
    if (end == std::string::npos)
      end = path.size();
    const std::string name = path.substr(begin, end - begin);
    begin = end + 1;
    if (name.empty())
      continue;
    if (found != nullptr)
      parent += (parent.empty() ? "" : "/") + found->display_name;
    found = nullptr;
    for (const EWS_Folder& f : *level)
      if (f.display_name == name)
      {
        found = &f;
        break;
      }
    if (found == nullptr)
    {
      error = "the set has no folder " + path;
      return false;
    }
    level = &found->subfolders;
  }
  if (found == nullptr)
  {
    error = "empty path";
    return false;
  }
  entry = parent.empty() ? encoded(found->id) : encoded(parent) + "/" + encoded(found->id);
  return true;
}

bool Restore_Command::item_entry(const EWS_Folders& tree, const std::string& id, std::string& entry, std::string& error)
{
  std::string folder;
  if (!find_item(tree, "", id, folder))
  {
    error = "the set has no item " + id;
    return false;
  }
  entry = encoded(folder) + "/" + encoded(id);
  return true;
}

int Restore_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  Request request;
  std::string error;
  if (!parse(args, request, error))
  {
    err << "backup-agent restore: " << error << "\n" << usage();
    return 64;
  }
  if (request.help)
  {
    out << usage();
    return 0;
  }
  Exchange_Backup_Set record;
  EWS_Folders tree;
  if (!read_set(request.set, request.from, record, tree, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  nlohmann::ordered_json storages = nlohmann::ordered_json::array();
  for (const std::string& path : request.paths)
  {
    std::string entry;
    if (!path_entry(tree, path, entry, error))
    {
      err << "error: " << error << "\n";
      return 1;
    }
    storages.push_back(entry);
  }
  for (const std::string& id : request.items)
  {
    std::string entry;
    if (!item_entry(tree, id, entry, error))
    {
      err << "error: " << error << "\n";
      return 1;
    }
    storages.push_back(entry);
  }
  const std::string tenant = encoded(record.resource_uuid);
  nlohmann::ordered_json def = {{"type", "restore"},
                                {"uid", uuid_generate_string()},
                                {"id", "restore-" + record.resource_uuid},
                                {"name", "restore of set " + record.uuid},
                                {"host_id", Agent_Config::instance().host_id()},
                                {"module", "exchange"},
                                {"schedule", {{"type", "ondemand"}}},
                                {"options",
                                 {{"relocation", request.relocation},
                                  {"is_office365", true},
                                  {"channels", record.channels > 0 ? record.channels : 1}}},
                                {"source",
                                 {{"id", record.resource_uuid},
                                  {"catalog_id", record.uuid},
                                  {"original", "exchange://" + tenant + "/" + encoded(request.from)},
                                  {"restore_as", "exchange://" + tenant + "/" + encoded(request.to)},
                                  {"storages", storages}}}};
  Job_Definition_var job_def;
  Job_Definition_Reader reader(module_.parser_creators());
  if (!reader.read_text(def.dump(), job_def))
  {
    err << "error: the restore definition was refused: " << reader.error() << "\n";
    return 1;
  }
  Job_var job = module_.job_creator().create(job_def);
  if (job.get() == nullptr)
  {
    err << "error: the module made no restore job\n";
    return 1;
  }
  stop_requested = false;
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
  const auto started = std::chrono::steady_clock::now();
  if (job->start(nullptr) != 0)
  {
    err << "error: the restore could not be started\n";
    return 1;
  }
  bool stopping = false;
  int shown = -1;
  while (!job->wait(200))
  {
    if (job->activity().progress != shown)
    {
      shown = job->activity().progress;
      err << "progress: " << shown << "%\n";
    }
    if (stop_requested && !stopping)
    {
      err << "cancelling the restore\n";
      job->stop(nullptr);
      stopping = true;
    }
  }
  const Job_Activity& act = job->activity();
  if (stopping || act.result == JOB_RESULT_CANCELED)
  {
    err << "restore cancelled\n";
    return 130;
  }
  if (act.result != JOB_RESULT_SUCCESS)
  {
    err << "restore failed" << (act.message[0] ? std::string(": ") + act.message : std::string()) << "\n";
    if (!job->log_path().empty())
      err << "job log: " << job->log_path() << "\n";
    return 1;
  }
  const long seconds = static_cast<long>(
    std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count());
  const std::string failures = act.message;
  nlohmann::ordered_json summary = {
    {"set_uuid", record.uuid},          {"from", request.from},       {"to", request.to},
    {"relocation", request.relocation}, {"entries", storages.size()}, {"bytes", act.size},
    {"duration_seconds", seconds},      {"failures", failures}};
  if (request.json)
    out << summary.dump() << "\n";
  else
  {
    out << "restored " << storages.size() << " selection(s) of set " << record.uuid << " from " << request.from
        << " to " << request.to << (request.relocation.empty() ? "" : " under /" + request.relocation) << "\n"
        << "bytes: " << act.size << ", duration: " << seconds << " s\n";
    if (!failures.empty())
      out << "failures: " << failures << "\n";
  }
  return failures.empty() ? 0 : 2;
}
