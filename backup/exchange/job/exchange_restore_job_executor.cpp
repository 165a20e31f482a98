#include "backup/exchange/job/exchange_restore_job_executor.h"

#include "backup/exchange/core/ews/ews_restore_callback_factory.h"
#include "backup/exchange/core/ews/ews_restore_context.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/core/office365/query_string_builder.h"
#include "backup/exchange/job/ews_mtf_event_handler.h"
#include "backup/exchange/job/exchange_job_utils.h"
#include "host/base/log.h"
#include "host/catalog/read_catalogs.h"
#include "host/job/instance_manager.h"
#include "host/job/job.h"
#include "host/mtf/mtf_restore.h"
#include "host/office365/office365_tenant_registry.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

Exchange_Restore_Job_Executor::Exchange_Restore_Job_Executor(Job& job)
  : Job_Executor_T<Exchange_Restore_Job_Source, Exchange_Restore_Job_Options, Job_Event_Handler>(job)
{
}

void Exchange_Restore_Job_Executor::make_restore_input(Exchange_Restore_Input& input) const
{
  const std::string& original = src_->original();
  const std::string& restore_as = src_->restore_as();
  if (!original.empty())
    parse_entry(original.c_str(), original.size(), &input.source_instance, &input.source_mailbox, nullptr);
  if (!restore_as.empty())
    parse_entry(restore_as.c_str(), restore_as.size(), &input.target_instance, &input.target_mailbox, nullptr);
  if (opts_ != nullptr)
  {
    input.relocation = opts_->relocation();
    input.auto_mount = opts_->auto_mount();
    input.overwrite = opts_->overwrite();
  }
}

bool Exchange_Restore_Job_Executor::execute_i(const Action_Options*)
{
  // The activity carries this run's outcome only (its message names failed
  // items; see ews_restore).
  act_.code = 0;
  act_.set_message("");
  act_.size = 0;
  act_.set_size = 0;
  Exchange_Restore_Input input;
  make_restore_input(input);
  // The set's record is asked for under the job source's id: the tenant, which
  // is the resource the backup recorded the set under.
  std::string error;
  if (!get_backupset_info(src_->id(), src_->catalog_id(), input, error))
  {
    LOG_MSG(LM_ERROR, "Failed to set target by catalog uuid: %s.\n", src_->catalog_id().c_str());
    return false;
  }
  if (backup_method_ != "ews")
  {
    LOG_MSG(LM_ERROR, "Unsupported Exchange restoration type on this platform.\n");
    return false;
  }
  return ews_restore(input);
}

bool Exchange_Restore_Job_Executor::read_record(const nlohmann::ordered_json& record, std::string& error)
{
  // Sets written before the Graph transport existed were all exported over EWS.
  backup_transport_ = "ews";
  const auto transport = record.find("transport");
  if (transport != record.end() && transport->is_string())
    backup_transport_ = transport->get<std::string>();
  return read_json_string(record, "backup_method", backup_method_, error) &&
         read_json_string(record, "pool_uuid", pool_uuid_, error) && read_json_string(record, "uri", uri_, error) &&
         read_json_string(record, "host_uuid", backup_host_id_, error) &&
         read_json_int(record, "rev", backup_rev_, error) && read_json_string(record, "agent", backup_agent_, error) &&
         read_json_int(record, "channels", backup_channels_, error);
}

bool Exchange_Restore_Job_Executor::get_backupset_info(const std::string& id, const std::string& catalog_id,
                                                       Exchange_Restore_Input& input, std::string& error)
{
  std::string query;
  Query_String_Builder builder(query);
  builder.add("module", "exchange", true, true);
  builder.add("resource_uuid", id.c_str(), true, true);
  builder.add("uuid", catalog_id.c_str(), true, true);
  const std::string resource = catalog_sets_query + query;
  nlohmann::ordered_json result;
  if (!read_catalogs(resource.c_str(), result, -1, def_.max_seconds_retry()))
  {
    error = "the catalog cannot be read";
    LOG_MSG(LM_ERROR, "Failed to read catalog from '%s'\n", resource.c_str());
    return false;
  }
  if (!result.is_object())
  {
    error = "the answer is not an object";
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %s:%d, result is not object!\n", __FILE__, __LINE__);
    return false;
  }
  // backupd answers a query with {"total": n, "rows": [...]}; the uuid filter
  // leaves the one record of the set, which must be there.
  const nlohmann::ordered_json* record = &result;
  auto rows = result.find("rows");
  if (rows != result.end())
  {
    if (!rows->is_array() || rows->size() != 1 || !(*rows)[0].is_object())
    {
      error = rows->is_array() && rows->empty() ? "no such backup set" : "the answer does not hold one record";
      LOG_MSG(LM_ERROR, "Unrecognized Exchange catalog(uuid=%s): %s\n", catalog_id.c_str(), error.c_str());
      return false;
    }
    record = &(*rows)[0];
  }
  if (!read_record(*record, error))
  {
    LOG_MSG(LM_ERROR, "Unrecognized Exchange catalog(uuid=%s): %s\n", catalog_id.c_str(), error.c_str());
    return false;
  }
  if (backup_method_ != "ews")
    return true;
  backup_minor_resource_id_.clear();
  auto minor = record->find("minor_resource_id");
  if (minor != record->end() && minor->is_string())
    backup_minor_resource_id_ = minor->get<std::string>();
  std::string ignored;
  if (!read_json_string(*record, "pool_uuid", pool_uuid_, ignored))
  {
    error = "no pool_uuid";
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, pool_uuid is NULL:\n%?\n");
    return false;
  }
  if (!read_json_string(*record, "uri", uri_, ignored))
  {
    error = "no uri";
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, uri is NULL:\n%?\n");
    return false;
  }
  if (!get_pool_info(pool_uuid_, nullptr, input.pool_info, POOL_ACCESS_READ, def_.max_seconds_retry(), nullptr))
  {
    error = "unknown pool";
    LOG_MSG(LM_ERROR, "Failed to get info by pool uuid '%s'\n", pool_uuid_.c_str());
    return false;
  }
  input.location = input.pool_info.url + (uri_.compare(0, 1, "/") == 0 ? "" : "/") + uri_;
  return true;
}

bool Exchange_Restore_Job_Executor::ews_restore(const Exchange_Restore_Input& input)
{
  LOG_MSG(LM_INFO, "Exchange restore from '%s' to '%s', relocation = '%s'\n", input.source_mailbox.c_str(),
          input.target_mailbox.c_str(), input.relocation.c_str());
  std::string username;
  Secure_String password;
  std::shared_ptr<Office365_Auth> auth;
  if (opts_ == nullptr || !opts_->is_office365_)
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
  }
  // Exported data of one API is not uploaded through the other: Microsoft does
  // not document the two streams as interchangeable.
  const std::string transport = auth ? auth->get().transport : "ews";
  if (transport != backup_transport_)
  {
    LOG_MSG(LM_ERROR,
            "Cannot restore backup set %s: its items were exported over the '%s' transport and this tenant "
            "registration uses the '%s' transport; items of one transport are never uploaded through the other. "
            "Restore it through a registration whose transport is '%s'.\n",
            src_->catalog_id().c_str(), backup_transport_.c_str(), transport.c_str(), backup_transport_.c_str());
    const std::string why =
      "the set was written over the '" + backup_transport_ + "' transport, the registration uses '" + transport + "'";
    act_.set_message(why.c_str());
    return false;
  }

  EWS_Restore_Context_Ptr ctx(new (std::nothrow) EWS_Restore_Context());
  if (!ctx)
  {
    errno = ENOMEM;
    return false;
  }
  if (!ctx->init(username, password, input.target_mailbox, auth, Job_log_msg_callback(job_)) ||
      !ctx->create_target_folder(input.relocation) ||
      !ctx->load_src_index(input.source_mailbox, pool_uuid_, uri_, backup_rev_))
    return false;
  LOG_MSG(LM_TRACE, "EWS restoring from agent '%s'.\n", backup_agent_.c_str());
  if (backup_agent_.find("linux") != std::string::npos)
    ctx->set_linux_paths();

  nlohmann::ordered_json selection = nlohmann::ordered_json::array();
  for (const std::string& entry : src_->storages())
  {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    if (!ctx->to_mtf_restore_entry(entry, object))
      return false;
    selection.push_back(object);
  }

  std::unique_ptr<EWS_MTF_Event_Handler> handler(
    new (std::nothrow) EWS_MTF_Event_Handler(evt_handler_, act_, MTF::Event_Handler::PRM_FILE_COUNT));
  std::unique_ptr<EWS_Restore_Callback_Factory> factory(new (std::nothrow) EWS_Restore_Callback_Factory(ctx));
  if (!handler || !factory)
  {
    errno = ENOMEM;
    return false;
  }
  std::unique_ptr<MTF_Restore> stream(new (std::nothrow) MTF_Restore(*handler, Job_log_msg_callback(job_)));
  if (!stream)
  {
    errno = ENOMEM;
    return false;
  }
  // Workers: the restore job's channels when it names them, else as many as
  // the backup wrote with; each worker uploads through a client of its own.
  const unsigned channels = backup_channels_ > 0 ? static_cast<unsigned>(backup_channels_) : 1;
  const unsigned concurrent =
    opts_ != nullptr && opts_->channels_ > 0 ? static_cast<unsigned>(opts_->channels_) : channels;
  stream->callback_factory(factory.get());
  stream->pool_uuid(pool_uuid_);
  stream->pool_url(input.pool_info.url);
  stream->definition_uuid(def_.uid());
  stream->backup_host_uuid(backup_host_id_);
  stream->backup_minor_resource_id(backup_minor_resource_id_);
  stream->seq(backup_rev_);
  stream->incarnation(backup_rev_);
  stream->restore_select(selection);
  stream->channel_num(channels);
  stream->concurrent(concurrent);
  // The stream reads the set at the pool's URL given here, so it takes the
  // pool's own client settings from here too (an object store pool's key).
  if (!set_options_by_pool(stream->extra_client_io_opts(), input.pool_info))
  {
    LOG_MSG(LM_ERROR, "Failed to set IO options by pool, uuid = %s\n", pool_uuid_.c_str());
    return false;
  }
  set_options_by_job_def(stream->extra_client_io_opts(), def_, concurrent);
  set_options_by_host(stream->extra_client_io_opts());

  const int rc = stream->restore();
  act_.size = stream->size();
  act_.set_size = stream->set_size();
  files_restored_ = stream->file_count();
  files_failed_ = stream->failed_count();
  if (rc != 0 || act_.state == JOB_STATE_CANCELING)
    return false;
  if (files_failed_ != 0)
  {
    char text[128];
    snprintf(text, sizeof text, "%llu of %llu items failed to restore", static_cast<unsigned long long>(files_failed_),
             static_cast<unsigned long long>(files_failed_ + files_restored_));
    act_.set_message(text);
    LOG_MSG(LM_WARNING, "%s\n", text);
  }
  return true;
}
