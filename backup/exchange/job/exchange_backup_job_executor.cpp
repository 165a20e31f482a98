#include "backup/exchange/job/exchange_backup_job_executor.h"

#include "backup/exchange/core/ews/ews_backup_callback_factory.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/core/ews/method_names.h"
#include "backup/exchange/core/office365/query_string_builder.h"
#include "backup/exchange/job/ews_mtf_event_handler.h"
#include "backup/exchange/job/exchange_job_utils.h"
#include "host/base/log.h"
#include "host/base/uuid.h"
#include "host/catalog/catalog_operator.h"
#include "host/catalog/read_catalogs.h"
#include "host/job/instance_manager.h"
#include "host/job/job.h"
#include "host/job/job_alert.h"
#include "host/job/job_mutex.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_metadata.h"
#include "host/office365/office365_tenant_registry.h"
#include "host/storage/host_id.h"
#include "host/storage/pool_info.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <new>

namespace
{
const char* const backup_agent_name = "backup.exchange.linux-x86";

// Alert codes of the backup.
const uint64_t alert_all_mailboxes_failed = 0x7000003050000006ull;
const uint64_t alert_some_mailboxes_failed = 0x5000003050000002ull;
const uint64_t alert_catalog_unreadable = 44;
const uint64_t alert_catalog_not_posted = 45;
const uint64_t alert_pool_unknown = 48;
const uint64_t alert_code2_backupd = 0x100000000000ull;

// Strict reading of one member of a catalog row; `error` says what is wrong.
// The first row of a catalog answer {"rows": [...]}; false with `error` when the
// answer is not of that form. `row` stays empty for no rows.
bool first_row(const nlohmann::ordered_json& result, nlohmann::ordered_json& row, std::string& error)
{
  if (!result.is_object() || !result.contains("rows") || !result["rows"].is_array())
  {
    error = "the answer has no \"rows\" array";
    return false;
  }
  const nlohmann::ordered_json& rows = result["rows"];
  if (rows.empty())
    return true;
  if (!rows[0].is_object())
  {
    error = "the first row is not an object";
    return false;
  }
  row = rows[0];
  return true;
}
}  // namespace

Exchange_Backup_Job_Executor::Exchange_Backup_Job_Executor(Job& job)
  : Job_Executor_T<Default_Backup_Job_Source, Exchange_Backup_Job_Options, Job_Event_Handler>(job), last_rev_(0)
{
}

bool Exchange_Backup_Job_Executor::execute_i(const Action_Options*)
{
  ACE_Guard<ACE_Thread_Mutex> guard(Job_Mutex::get(src_->id()));
  if (!guard.locked())
    return false;
  reset_activity();
  if (!parse_entries())
  {
    LOG_MSG(LM_ERROR, "Failed to parse entries from job source.\n");
    return false;
  }
  if (opts_ == nullptr || opts_->method() != EXCHANGE_BACKUP_METHOD_EWS)
  {
    LOG_MSG(LM_ERROR, "This Exchange backup type is not supported on this system.\n");
    return false;
  }
  return ews_backup();
}

void Exchange_Backup_Job_Executor::reset_activity()
{
  act_.code = 0;
  act_.set_message("");
  act_.size = 0;
  act_.set_size = 0;
  act_.set_storage_size = 0;
}

bool Exchange_Backup_Job_Executor::parse_entries()
{
  entries_.clear();
  for (const std::string& entry : src_->entries())
  {
    std::string instance, mailbox, folder;
    parse_entry(entry.c_str(), entry.size(), &instance, &mailbox, &folder);
    if (instance.empty() || mailbox.empty())
    {
      LOG_MSG(LM_ERROR, "Invalid backup source entry '%s': no instance or mailbox.\n", entry.c_str());
      return false;
    }
    std::vector<std::string>& folders = entries_[instance][mailbox];
    if (!folder.empty())
      folders.push_back(folder);
  }
  return true;
}

bool Exchange_Backup_Job_Executor::get_last_instance_info()
{
  std::string query;
  Query_String_Builder builder(query);
  builder.add("module", "exchange", true, true);
  builder.add("resource_uuid", src_->id().c_str(), true, true);
  builder.add("minor_resource_id", def_.id().c_str(), true, true);
  builder.add("sort", "backup_start_time", true, true);
  builder.add("order", "desc", true, true);
  builder.add("offset", "0", true, true);
  builder.add("limit", "1", true, true);
  const std::string resource = catalog_sets_query + query;

  nlohmann::ordered_json result;
  if (!read_catalogs(resource.c_str(), result, -1, def_.max_seconds_retry()))
  {
    write_job_alert(&job_, 7, alert_catalog_unreadable, alert_code2_backupd, nullptr);
    LOG_MSG(LM_ERROR, "Failed to read catalog from '%s'\n", resource.c_str());
    return false;
  }
  nlohmann::ordered_json row;
  std::string error;
  int rev = 0;
  if (!first_row(result, row, error) || (!row.empty() && !read_json_int(row, "rev", rev, error)))
  {
    LOG_MSG(LM_ERROR, "Unrecognized Exchange catalog: %s\n", error.c_str());
    return false;
  }
  // No earlier set: the new one is revision 1.
  last_rev_ = rev;
  return true;
}

bool Exchange_Backup_Job_Executor::load_catalog(const std::string& source_id, const std::string& instance,
                                                const std::string& database, nlohmann::ordered_json& row,
                                                int max_seconds_retry)
{
  if (instance.empty())
  {
    LOG_UNEXPECTED("instance is NULL or \"\"");
    return false;
  }
  if (database.empty())
  {
    LOG_UNEXPECTED("database is NULL or \"\"");
    return false;
  }
  std::string query;
  Query_String_Builder builder(query);
  builder.add("module", "exchange", true, true);
  builder.add("resource_uuid", source_id.c_str(), true, true);
  builder.add("host_uuid", Host_ID::instance().str().c_str(), true, true);
  builder.add("instance", instance.c_str(), true, true);
  builder.add("database", database.c_str(), true, true);
  builder.add("sort", "backup_start_time", true, true);
  builder.add("order", "desc", true, true);
  builder.add("offset", "0", true, true);
  builder.add("limit", "1", true, true);
  const std::string resource = catalog_sets_query + query;

  nlohmann::ordered_json result;
  if (!read_catalogs(resource.c_str(), result, -1, max_seconds_retry))
  {
    LOG_MSG(LM_ERROR, "Failed to get catalog from '%s'\n", resource.c_str());
    return false;
  }
  std::string error;
  nlohmann::ordered_json first;
  if (!first_row(result, first, error))
  {
    LOG_MSG(LM_ERROR, "Unrecognized exchange catalog format: %s\n", error.c_str());
    return false;
  }
  row = first;
  return true;
}

bool Exchange_Backup_Job_Executor::retrieve_incarnation_info(Exchange_Backup_Input& input)
{
  nlohmann::ordered_json row;
  if (!load_catalog(src_->id(), input.instance, input.database, row, def_.max_seconds_retry()))
  {
    LOG_MSG(LM_ERROR, "Failed to get last backup infomation of '%s:%s' from catalog on backupd.\n",
            input.instance.c_str(), input.database.c_str());
    return false;
  }
  if (row.empty())
  {
    input.type = EXCHANGE_BACKUP_TYPE_FULL;
    LOG_MSG(LM_INFO, "Exchange full backup for '%s' not found, raise to full backup.\n", input.database.c_str());
    return true;
  }
  std::string method, incarnation, pool_uuid, device_uuid, uri, error;
  int rev = 0;
  if (!read_json_string(row, "backup_method", method, error) ||
      !read_json_string(row, "incarnation", incarnation, error) || !read_json_int(row, "rev", rev, error) ||
      !read_json_string(row, "pool_uuid", pool_uuid, error) ||
      !read_json_string(row, "device_uuid", device_uuid, error) || !read_json_string(row, "uri", uri, error))
  {
    LOG_MSG(LM_ERROR, "Exchange catalog error: %s\n", error.c_str());
    return false;
  }
  if (name_to_method(method.c_str(), static_cast<int>(method.size())) != input.method)
  {
    // Never a silent switch to a full backup of another method.
    LOG_MSG(LM_ERROR, "Backup API is not the same with last backup set, current is %s, last is %s\n",
            method_to_name(input.method), method.c_str());
    return false;
  }
  input.incarnation_uuid = incarnation;
  if (pool_uuid != tgt_.id())
  {
    input.type = EXCHANGE_BACKUP_TYPE_FULL;
    LOG_MSG(LM_INFO, "Exchange storage pool for '%s' modified, raise to full backup.\n", input.database.c_str());
    return true;
  }
  input.type = EXCHANGE_BACKUP_TYPE_INCREMENTAL;
  const bool no_device = device_uuid.empty() || device_uuid.find_first_not_of("0-") == std::string::npos;
  if (!get_pool_info(pool_uuid, no_device ? nullptr : device_uuid.c_str(), input.pool_info, POOL_ACCESS_WRITE,
                     def_.max_seconds_retry(), nullptr))
  {
    write_job_alert(&job_, 7, alert_pool_unknown, alert_code2_backupd, nlohmann::ordered_json::array({pool_uuid}));
    LOG_MSG(LM_ERROR, "Failed to get info by pool uuid '%s'\n", pool_uuid.c_str());
    return false;
  }
  input.rev = rev + 1;
  const size_t slash = uri.rfind('/');
  const std::string parent = slash == std::string::npos ? std::string() : uri.substr(0, slash);
  input.location = input.pool_info.url + parent + "/" + std::to_string(input.rev);
  return true;
}

bool Exchange_Backup_Job_Executor::ews_backup()
{
  std::string username;
  Secure_String password;
  std::shared_ptr<Office365_Auth> auth;
  if (!opts_->is_office365_)
  {
    if (Instance_Manager::instance().get_account("exchange", "exchange", def_.uid(), username, password, nullptr) != 0)
      return false;
  }
  else
  {
    Office365_Auth_Entry entry;
    if (!get_office365_auth_entry(src_->id(), entry))
    {
      LOG_MSG(LM_ERROR, "Failed to get Office365 auth entry %s.\n", src_->id().c_str());
      return false;
    }
    auth = std::make_shared<Office365_Auth>(entry, ews_default_scope(entry.ews_endpoint));
    transport_ = entry.transport;
  }

  if (!get_last_instance_info())
  {
    LOG_MSG(LM_ERROR, "Failed to get last instance info.\n");
    return false;
  }
  backup_uri_ = def_.host_id() + "/" + def_.id();
  start_time_ = static_cast<int64_t>(time(nullptr));

  const size_t channels = opts_->channels_ > 0 ? static_cast<size_t>(opts_->channels_) : 1;
  EWS_Backup_Context_Ptr ctx(new (std::nothrow) EWS_Backup_Context(username, password, tgt_.id(), backup_uri_,
                                                                   last_rev_ + 1, channels, auth, act_, job_));
  if (!ctx)
  {
    errno = ENOMEM;
    return false;
  }
  std::unique_ptr<EWS_MTF_Event_Handler> handler(
    new (std::nothrow) EWS_MTF_Event_Handler(evt_handler_, act_, MTF::Event_Handler::PRM_FILE_COUNT));
  if (!handler)
  {
    errno = ENOMEM;
    return false;
  }
  MTF_Metadata metadata;
  metadata.set_agent(backup_agent_name);
  std::unique_ptr<MTF_Backup> stream(new (std::nothrow) MTF_Backup(metadata, *handler, Job_log_msg_callback(job_)));
  std::unique_ptr<EWS_Backup_Callback_Factory> factory(new (std::nothrow) EWS_Backup_Callback_Factory(*ctx));
  if (!stream || !factory)
  {
    errno = ENOMEM;
    return false;
  }
  stream->callback_factory(factory.get());

  size_t mailbox_count = 0;
  for (const auto& instance : entries_)
  {
    mailbox_count += instance.second.size();
    for (const auto& mailbox : instance.second)
    {
      const std::string path = mailbox_to_path(mailbox.first);
      stream->add_source(path, path);
    }
  }
  const bool ok = run_stream(*ctx, *stream, mailbox_count);
  // The export thread ends here, on the job thread, before the context goes.
  ctx->stop_export_task();
  if (!ok)
    return false;

  const Mailboxes& failed = ctx->get_failed_mailboxes();
  if (failed.size() == mailbox_count)
  {
    write_job_alert(&job_, 7, alert_all_mailboxes_failed, 0, nullptr);
    LOG_MSG(LM_ERROR, "All mailbox were failed to backup.\n");
    return false;
  }
  act_.size = stream->size();
  act_.set_size = stream->set_size();
  act_.set_storage_size = stream->set_storage_size() + static_cast<uint64_t>(ctx->out_size_);
  act_.last_run_time = static_cast<int64_t>(time(nullptr));
  if (!post_catalog(*ctx, *stream))
    return false;
  if (failed.empty())
    return true;
  std::string joined;
  for (const std::string& mailbox : failed)
    joined += (joined.empty() ? "" : " | ") + mailbox;
  write_job_alert(&job_, 5, alert_some_mailboxes_failed, 0, nlohmann::ordered_json::array({joined}));
  return true;
}

bool Exchange_Backup_Job_Executor::run_stream(EWS_Backup_Context& ctx, MTF_Backup& stream, size_t mailbox_count)
{
  stream.pool_uuid(tgt_.id());
  stream.minor_resource_id(def_.id());
  stream.host_uuid(def_.host_id());
  stream.compression(compression_to_mtf(opts_->compression()));
  // The stream takes the previous revision and writes seq + 1, the context's.
  stream.seq(last_rev_);
  stream.channel_num(static_cast<unsigned>(ctx.channels_num()));
  stream.compression_level(opts_->compression_level_);
  set_options_by_job_def(stream.extra_client_io_opts(), def_, ctx.channels_num());
  set_options_by_host(stream.extra_client_io_opts());

  ctx.mailbox_count_ = static_cast<int>(mailbox_count);
  if (!ctx.activate_export_task(&job_))
    return false;
  if (stream.backup() != 0 || act_.state == JOB_STATE_CANCELING)
    return false;
  return true;
}

bool Exchange_Backup_Job_Executor::make_ews_backup_set(const std::vector<std::string>& index_files,
                                                       const Mailboxes& failed_mailboxes, const MTF_Backup& stream,
                                                       Exchange_Backup_Set& record)
{
  record.uuid = uuid_generate_string();
  if (record.uuid.empty())
    return false;
  record.module = "exchange";
  record.resource_uuid = src_->id();
  record.minor_resource_id = def_.id();
  record.host_uuid = def_.host_id();
  record.backup_method = method_to_name(EXCHANGE_BACKUP_METHOD_EWS);
  record.transport = transport_;
  record.pool_uuid = tgt_.id();
  record.device_uuid = tgt_.device_id();
  record.uri = backup_uri_;
  record.rev = stream.rev();
  record.definition_name = def_.name();
  record.definition_uid = def_.uid();
  record.subtype = def_.subtype();
  const std::string catalog = stream.catalog_name();
  for (const std::string& file : stream.files())
    (file == catalog ? record.catalogs : record.files).push_back(file);
  record.index_files = index_files;
  record.failed_mailboxes = failed_mailboxes;
  record.size = stream.size();
  record.set_size = stream.set_size();
  record.set_storage_size = act_.set_storage_size;
  record.backup_start_time = start_time_;
  record.backup_end_time = static_cast<int64_t>(time(nullptr));
  return true;
}

bool Exchange_Backup_Job_Executor::post_catalog(EWS_Backup_Context& ctx, MTF_Backup& stream)
{
  Exchange_Backup_Set record;
  bool ok = make_ews_backup_set(ctx.out_files_, ctx.get_failed_mailboxes(), stream, record);
  if (ok)
  {
    record.channels = static_cast<int>(ctx.channels_num());
    record.agent = stream.metadata().get_agent();
    ok = !record.agent.empty() && Catalog_Operator(-1, def_.max_seconds_retry()).commit(record);
  }
  if (!ok)
  {
    write_job_alert(&job_, 7, alert_catalog_not_posted, alert_code2_backupd, nullptr);
    LOG_MSG(LM_ERROR, "Failed to post catalog of backup of Exchange to backupd.\n");
    return false;
  }
  return true;
}
