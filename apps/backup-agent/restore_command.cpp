#include "apps/backup-agent/restore_command.h"

#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/folder_path.h"
#include "apps/backup-agent/set_access.h"

#include "host/base/agent_config.h"
#include "host/base/uuid.h"
#include "host/http/http_encoding.h"
#include "host/job/job.h"
#include "host/job/job_definition_reader.h"

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

// The folder path ("a/b") of the folder holding item `id`, and that folder, searched
// depth first.
const EWS_Folder* find_item(const EWS_Folders& folders, const std::string& prefix, const std::string& id,
                            std::string& path)
{
  for (const EWS_Folder& f : folders)
  {
    const std::string here = prefix.empty() ? f.display_name : prefix + "/" + f.display_name;
    for (const EWS_Item& item : f.items)
      if (item.id == id)
      {
        path = here;
        return &f;
      }
    if (const EWS_Folder* found = find_item(f.subfolders, here, id, path))
      return found;
  }
  return nullptr;
}

// The name an item has in the set: its display name, else its subject.
std::string item_name(const EWS_Item& item)
{
  if (!item.display_name.empty())
    return item.display_name;
  return item.subject.empty() ? "(no subject)" : item.subject;
}

// Reads the set's record and the index of `mailbox` in it.
bool read_set(const std::string& set, const std::string& mailbox, Exchange_Backup_Set& record, EWS_Folders& tree,
              std::string& error)
{
  Client_IO_Ex io;
  if (!Set_Access::find(set, record, error) || !Set_Access::open(record, io, error))
    return false;
  for (const std::string& name : record.index_files)
  {
    if (Set_Access::index_mailbox(name) != mailbox)
      continue;
    std::vector<std::string> failed;
    return Set_Access::read_index(io, name, tree, failed, error);
  }
  error = "the set holds no mailbox " + mailbox;
  return false;
}

// Adds a folder and everything below it to `size`: what restoring it creates and uploads.
void count_subtree(const EWS_Folder& folder, Restore_Command::Selection_Size& size)
{
  ++size.folders;
  size.items += folder.items.size();
  for (const EWS_Folder& sub : folder.subfolders)
    count_subtree(sub, size);
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
  if (!Flag_Reader(request.help)
         .flag("--json", request.json)
         .value("--set", request.set)
         .value("--from", request.from)
         .value("--to", request.to)
         .values("--path", request.paths)
         .values("--item", request.items)
         .value("--relocation", request.relocation)
         .read(args, error))
    return false;
  if (request.help)
    return true;
  if (request.set.empty() || request.from.empty() || request.to.empty())
    error = "--set, --from and --to are required";
  else if (request.paths.empty() && request.items.empty())
    error = "name at least one --path or --item";
  return error.empty();
}

bool Restore_Command::path_entry(const EWS_Folders& tree, const std::string& path, std::string& entry,
                                 std::string& error, Selection_Size* selected)
{
  const EWS_Folders* level = &tree;
  const EWS_Folder* found = nullptr;
  std::string parent;
  for (const std::string& name : split_folder_path(path))
  {
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
  if (selected != nullptr)
    count_subtree(*found, *selected);
  return true;
}

bool Restore_Command::item_entry(const EWS_Folders& tree, const std::string& id, std::string& entry, std::string& error,
                                 Selection_Size* selected)
{
  std::string folder;
  const EWS_Folder* holder = find_item(tree, "", id, folder);
  if (holder == nullptr)
  {
    error = "the set has no item " + id;
    return false;
  }
  entry = encoded(folder) + "/" + encoded(id);
  if (selected != nullptr)
  {
    // Items of one name in one folder share their path in the set and are
    // restored together.
    std::string name;
    for (const EWS_Item& item : holder->items)
      if (item.id == id)
        name = item_name(item);
    for (const EWS_Item& item : holder->items)
      if (item_name(item) == name)
        ++selected->items;
  }
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
  nlohmann::ordered_json storages = nlohmann::ordered_json::array();
  Selection_Size selected;
  if (!select(request, record, storages, selected, error))
  {
    err << "error: " << error << "\n";
    return 1;
  }
  const auto started = std::chrono::steady_clock::now();
  Outcome outcome;
  const int status = restore(record, request.from, request.to, request.relocation, storages, err, outcome);
  if (status != 0)
    return status;
  const long seconds = static_cast<long>(
    std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count());
  print_summary(request, record, selected, outcome, seconds, out);
  return outcome.failures.empty() ? 0 : 2;
}

bool Restore_Command::select(const Request& request, Exchange_Backup_Set& record, nlohmann::ordered_json& storages,
                             Selection_Size& selected, std::string& error)
{
  EWS_Folders tree;
  if (!read_set(request.set, request.from, record, tree, error))
    return false;
  for (const std::string& path : request.paths)
  {
    std::string entry;
    if (!path_entry(tree, path, entry, error, &selected))
      return false;
    storages.push_back(entry);
  }
  for (const std::string& id : request.items)
  {
    std::string entry;
    if (!item_entry(tree, id, entry, error, &selected))
      return false;
    storages.push_back(entry);
  }
  return true;
}

nlohmann::ordered_json Restore_Command::summary(const Request& request, const Exchange_Backup_Set& record,
                                                const Selection_Size& selected, const Outcome& outcome, long seconds)
{
  nlohmann::ordered_json summary = {{"set_uuid", record.uuid},
                                    {"from", request.from},
                                    {"to", request.to},
                                    {"relocation", request.relocation},
                                    {"folders_selected", selected.folders},
                                    {"items_selected", selected.items},
                                    {"items_restored", outcome.items},
                                    {"bytes", outcome.bytes},
                                    {"duration_seconds", seconds},
                                    {"failures", outcome.failures}};
  if (!outcome.failures.empty())
    summary["job_log"] = outcome.log_path;
  return summary;
}

void Restore_Command::print_summary(const Request& request, const Exchange_Backup_Set& record,
                                    const Selection_Size& selected, const Outcome& outcome, long seconds,
                                    std::ostream& out)
{
  if (request.json)
  {
    out << summary(request, record, selected, outcome, seconds).dump() << "\n";
    return;
  }
  out << "restored from set " << record.uuid << ": " << request.from << " to " << request.to
      << (request.relocation.empty() ? "" : " under /" + request.relocation) << "\n"
      << "folders: " << selected.folders << ", items: " << outcome.items << " of " << selected.items
      << " restored, bytes: " << outcome.bytes << ", duration: " << seconds << " s\n";
  if (!outcome.failures.empty())
  {
    out << "failures: " << outcome.failures << "\n";
    if (!outcome.log_path.empty())
      out << "each failed item and its reason: " << outcome.log_path << "\n";
  }
}

int Restore_Command::restore(const Exchange_Backup_Set& record, const std::string& from, const std::string& to,
                             const std::string& relocation, const nlohmann::ordered_json& storages, std::ostream& err,
                             Outcome& outcome)
{
  std::string error;
  Job_var job = make_job(record, from, to, relocation, storages, error);
  if (job.get() == nullptr)
  {
    err << "error: " << error << "\n";
    return 1;
  }
  stop_requested = false;
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
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
  take_outcome(*job, outcome);
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
  return 0;
}

Job_var Restore_Command::make_job(const Exchange_Backup_Set& record, const std::string& from, const std::string& to,
                                  const std::string& relocation, const nlohmann::ordered_json& storages,
                                  std::string& error)
{
  const std::string tenant = encoded(record.resource_uuid);
  nlohmann::ordered_json def = {
    {"type", "restore"},
    {"uid", uuid_generate_string()},
    {"id", "restore-" + record.resource_uuid},
    {"name", "restore of set " + record.uuid},
    {"host_id", Agent_Config::instance().host_id()},
    {"module", "exchange"},
    {"schedule", {{"type", "ondemand"}}},
    {"options",
     {{"relocation", relocation}, {"is_office365", true}, {"channels", record.channels > 0 ? record.channels : 1}}},
    {"source",
     {{"id", record.resource_uuid},
      {"catalog_id", record.uuid},
      {"original", "exchange://" + tenant + "/" + encoded(from)},
      {"restore_as", "exchange://" + tenant + "/" + encoded(to)},
      {"storages", storages}}}};
  Job_Definition_var job_def;
  Job_Definition_Reader reader(module_.parser_creators());
  if (!reader.read_text(def.dump(), job_def))
  {
    error = "the restore definition was refused: " + reader.error();
    return Job_var();
  }
  Job_var job = module_.job_creator().create(job_def);
  if (job.get() == nullptr)
    error = "the module made no restore job";
  return job;
}

void Restore_Command::take_outcome(const Job& job, Outcome& outcome)
{
  const Job_Activity& act = job.activity();
  outcome.items = act.items_done;
  outcome.bytes = act.size;
  outcome.failures = act.message;
  outcome.log_path = job.log_path();
}
