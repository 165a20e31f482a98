#include "apps/backup-agent/backup_command.h"

#include "apps/backup-agent/backup_progress.h"
#include "apps/backup-agent/flag_reader.h"
#include "apps/backup-agent/graph_users_lister.h"
#include "apps/backup-agent/set_access.h"
#include "host/office365/office365_tenant_registry.h"

#include "host/base/agent_config.h"
#include "host/base/uuid.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include "host/http/http_encoding.h"
#include "host/job/job.h"

#include <ace/Log_Msg.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <unistd.h>

namespace
{
std::atomic<bool> stop_requested(false);

void request_stop(int) { stop_requested = true; }

// Folders and items of an index tree.
void count_tree(const EWS_Folders& folders, size_t& folder_count, size_t& item_count)
{
  for (const EWS_Folder& f : folders)
  {
    ++folder_count;
    item_count += f.items.size();
    count_tree(f.subfolders, folder_count, item_count);
  }
}
}  // namespace

const char* Backup_Command::usage()
{
  return "usage: backup-agent [--config FILE] backup --tenant UUID (--mailbox "
         "ADDRESS [--mailbox ADDRESS...] |\n"
         "                    --all-mailboxes) --pool UUID [--channels N] "
         "[--compression none|zstd] [--json]\n"
         "Backs up the mailboxes of a registered tenant into a new backup set "
         "on the pool;\n"
         "--all-mailboxes takes every mailbox of the tenant's Microsoft Graph "
         "users listing.\n"
         "Exit status: 0 all backed up, 2 done with failed mailboxes or items, "
         "1 failed,\n"
         "130 cancelled (Ctrl-C).\n";
}

bool Backup_Command::parse(const std::vector<std::string>& args, Request& request, std::string& error)
{
  if (!Flag_Reader(request.help)
         .flag("--json", request.json)
         .flag("--all-mailboxes", request.all_mailboxes)
         .value("--tenant", request.tenant)
         .values("--mailbox", request.mailboxes)
         .value("--pool", request.pool)
         .number("--channels", request.channels, 1, 64)
         .choice("--compression", request.compression, {"none", "zstd"})
         .read(args, error))
    return false;
  if (request.help)
    return true;
  if (request.all_mailboxes && !request.mailboxes.empty())
  {
    error = "--mailbox and --all-mailboxes exclude each other";
    return false;
  }
  if (request.tenant.empty() || request.pool.empty() || (request.mailboxes.empty() && !request.all_mailboxes))
  {
    error =
      "--tenant, --pool and at least one --mailbox (or --all-mailboxes) "
      "are required";
    return false;
  }
  return true;
}

std::string Backup_Command::definition(const Request& request, const std::string& host_id)
{
  nlohmann::ordered_json entries = nlohmann::ordered_json::array();
  for (const std::string& mailbox : request.mailboxes)
  {
    std::string tenant, encoded;
    http_encode_string(request.tenant, HTTP_ENCODE_SLASH, tenant);
    http_encode_string(mailbox, HTTP_ENCODE_SLASH, encoded);
    entries.push_back("exchange://" + tenant + "/" + encoded);
  }
  nlohmann::ordered_json def = {
    {"type", "backup"},
    {"uid", uuid_generate_string()},
    {"id", "backup-" + request.tenant},
    {"name", "backup of tenant " + request.tenant},
    {"host_id", host_id},
    {"module", "exchange"},
    {"schedule", {{"type", "ondemand"}}},
    {"target", {{"id", request.pool}}},
    {"options",
     {{"method", "ews"}, {"is_office365", true}, {"channels", request.channels}, {"compression", request.compression}}},
    {"source", {{"id", request.tenant}, {"name", request.tenant}, {"entries", entries}}}};
  return def.dump();
}

int Backup_Command::run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err)
{
  Request request;
  std::string error;
  if (!parse(args, request, error))
  {
    err << "backup-agent backup: " << error << "\n" << usage();
    return 64;
  }
  if (request.help)
  {
    out << usage();
    return 0;
  }
  if (request.all_mailboxes)
  {
    if (!list_all_mailboxes(request, error))
    {
      err << "error: " << error << "\n";
      return 1;
    }
    if (!request.json)
      err << "backing up the tenant's " << request.mailboxes.size() << " mailboxes\n";
  }
  Job_var job = make_job(request, error);
  if (job.get() == nullptr)
  {
    err << "error: " << error << "\n";
    return 1;
  }
  stop_requested = false;
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
  // Made before the start so that it reads every line of this run.
  Backup_Progress progress(request.mailboxes.size(), job->log_path());
  const auto started = std::chrono::steady_clock::now();
  if (job->start(nullptr) != 0)
  {
    err << "error: the backup could not be started\n";
    return 1;
  }
  const int cancelled = wait(*job, progress, err);
  const long seconds = static_cast<long>(
    std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count());
  const Job_Activity& act = job->activity();
  if (cancelled != 0)
  {
    err << "backup cancelled; no backup set was recorded\n";
    return 130;
  }
  if (act.result != JOB_RESULT_SUCCESS)
  {
    err << "backup failed" << (act.message[0] ? std::string(": ") + act.message : std::string()) << "\n";
    if (!job->log_path().empty())
      err << "job log: " << job->log_path() << "\n";
    return 1;
  }
  nlohmann::ordered_json summary;
  if (!summarize(request, *job, progress, seconds, summary))
  {
    err << "error: the backup ran but its set could not be read back for the summary\n";
    return 1;
  }
  if (request.json)
    out << summary.dump() << "\n";
  else
  {
    out << "backup set " << summary["set_uuid"].get<std::string>() << " (revision " << summary["rev"] << ")\n"
        << "mailboxes: " << summary["mailboxes"] << ", folders: " << summary["folders"]
        << ", items: " << summary["items"] << "\n"
        << "bytes: " << summary["bytes"] << ", stored: " << summary["bytes_stored"]
        << ", duration: " << summary["duration_seconds"] << " s\n";
    for (const auto& mailbox : summary["failed_mailboxes"])
      out << "failed mailbox: " << mailbox.get<std::string>() << "\n";
    for (const auto& item : summary["failed_items"])
      out << "failed item: " << item["mailbox"].get<std::string>() << " " << item["id"].get<std::string>() << ": "
          << item["reason"].get<std::string>() << "\n";
  }
  return complete(summary) ? 0 : 2;
}

bool Backup_Command::list_all_mailboxes(Request& request, std::string& error)
{
  Office365_Auth_Entry entry;
  if (!get_office365_auth_entry(request.tenant, entry))
  {
    error = "tenant " + request.tenant + " is not registered (see backup-agent tenant list)";
    return false;
  }
  Graph_Users_Lister lister(entry);
  request.mailboxes.clear();
  if (!lister.list(request.mailboxes, error))
    return false;
  if (request.mailboxes.empty())
  {
    error = "the tenant has no mailbox to back up";
    return false;
  }
  return true;
}

Job_var Backup_Command::make_job(const Request& request, std::string& error)
{
  Job_Definition_var def;
  Job_Definition_Reader reader(module_.parser_creators());
  if (!reader.read_text(definition(request, Agent_Config::instance().host_id()), def))
  {
    error = "the backup definition was refused: " + reader.error();
    return Job_var();
  }
  Job_var job = module_.job_creator().create(def);
  if (job.get() == nullptr)
    error = "the module made no backup job";
  return job;
}

bool Backup_Command::complete(const nlohmann::ordered_json& summary)
{
  return summary["failed_mailboxes"].empty() && summary["failed_items"].empty();
}

int Backup_Command::wait(Job& job, Backup_Progress& progress, std::ostream& err)
{
  const bool terminal = isatty(2) != 0;
  const auto started = std::chrono::steady_clock::now();
  // Log lines on the terminal would break the live line: while it shows, they
  // go to the job's log (and the agent's log file) only.
  const bool quiet = terminal && !job.log_path().empty() && ACE_LOG_MSG->flags() & ACE_Log_Msg::STDERR;
  if (quiet)
  {
    err << "job log: " << job.log_path() << "\n";
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
  }
  size_t width = 0;  // of the live line shown, to blank what a shorter one leaves
  bool stopping = false;
  for (bool over = false; !over;)
  {
    over = job.wait(terminal ? 250 : 1000);
    const Job_Activity& act = job.activity();
    const uint64_t items = act.items_done, bytes = act.bytes_done;
    std::string finished;
    progress.poll(items, bytes, finished);
    if (terminal)
    {
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
      std::string text = progress.line(items, bytes, seconds);
      const size_t length = text.size();
      if (length < width)
        text.append(width - length, ' ');
      width = length;
      err << "\r" << text << std::flush;
    }
    else
      err << finished << std::flush;
    if (stop_requested && !stopping && !over)
    {
      err << (terminal ? "\n" : "") << "cancelling the backup\n";
      job.stop(nullptr);
      stopping = true;
    }
  }
  if (terminal)
    err << "\n";
  if (quiet)
    ACE_LOG_MSG->set_flags(ACE_Log_Msg::STDERR);
  return job.activity().result == JOB_RESULT_CANCELED || stopping ? 1 : 0;
}

bool Backup_Command::summarize(const Request& request, const Job& job, const Backup_Progress& progress, long seconds,
                               nlohmann::ordered_json& summary)
{
  std::string query = "/d2/r/v2/sets/restore/sets?module=exchange&minor_resource_id=";
  std::string id;
  http_encode_string(job.definition().id(), HTTP_ENCODE_SLASH, id);
  query += id + "&sort=rev&order=desc&limit=1";
  nlohmann::ordered_json result;
  Exchange_Backup_Set record;
  std::string error;
  if (!read_catalogs(query.c_str(), result, -1, 30) || !result.contains("rows") || !result["rows"].is_array() ||
      result["rows"].empty() || !record.from_json(result["rows"][0], error))
    return false;

  Client_IO_Ex io;
  if (!Set_Access::open(record, io, error))
    return false;
  size_t folders = 0, items = 0;
  nlohmann::ordered_json failed_items = nlohmann::ordered_json::array();
  for (const std::string& name : record.index_files)
  {
    EWS_Folders tree;
    std::vector<std::string> failed;
    if (!Set_Access::read_index(io, name, tree, failed, error))
      return false;
    count_tree(tree, folders, items);
    const std::string decoded = Set_Access::index_mailbox(name);
    for (const std::string& id_failed : failed)
    {
      // The index keeps the ids only; the service's code comes from the job
      // log.
      const auto logged = progress.item_errors().find(id_failed);
      const std::string reason = logged == progress.item_errors().end() || logged->second.empty()
                                   ? std::string("export failed")
                                   : "export failed: " + logged->second;
      failed_items.push_back({{"mailbox", decoded}, {"id", id_failed}, {"reason", reason}});
    }
  }
  summary = {{"set_uuid", record.uuid},
             {"rev", record.rev},
             {"mailboxes", request.mailboxes.size()},
             {"folders", folders},
             {"items", items},
             {"bytes", record.size},
             {"bytes_stored", record.set_storage_size},
             {"duration_seconds", seconds},
             {"failed_mailboxes", record.failed_mailboxes},
             {"failed_items", failed_items}};
  return true;
}
