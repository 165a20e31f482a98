#include "backup/exchange/core/ews/ews_backup_context.h"

#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/core/ews/paginator.h"
#include "host/base/agent_config.h"
#include "host/base/log.h"
#include "host/ews/ews_params.h"
#include "host/job/job.h"

#include <ace/Guard_T.h>

#include <cerrno>
#include <new>

namespace
{
// Items held plus the process's own memory (some 30-40 MiB with four channels)
// stay under 256 MiB.
const long default_export_cache_mib = 192;

uint64_t configured_export_cache_budget()
{
  long mib = Agent_Config::instance().setting("ews.export_cache_mib", default_export_cache_mib);
  if (mib < 1)
  {
    LOG_MSG(LM_WARNING, "Setting ews.export_cache_mib = %d is below 1, using 1.\n", static_cast<int>(mib));
    mib = 1;
  }
  return static_cast<uint64_t>(mib) * 1024 * 1024;
}

int configured_list_ahead()
{
  const long listers = Agent_Config::instance().setting("ews.list_ahead", EWS_Backup_Context::default_list_ahead);
  if (listers < 0 || listers > EWS_Backup_Context::max_list_ahead)
  {
    const long kept = listers < 0 ? 0 : EWS_Backup_Context::max_list_ahead;
    LOG_MSG(LM_WARNING, "Setting ews.list_ahead = %ld is outside 0-%d, using %ld.\n", listers,
            EWS_Backup_Context::max_list_ahead, kept);
    return static_cast<int>(kept);
  }
  return static_cast<int>(listers);
}
}  // namespace

EWS_Backup_Context::EWS_Backup_Context(const std::string& username, const Secure_String& password,
                                       const std::string& pool_uuid, const std::string& uri, int seq,
                                       size_t channels_num, const std::shared_ptr<Office365_Auth>& auth,
                                       Job_Activity& act, Job& job)
  : out_size_(0),
    mailbox_count_(0),
    job_(job),
    pool_uuid_(pool_uuid),
    uri_(uri),
    seq_(seq),
    auth_(auth),
    username_(username),
    password_(password),
    channels_num_(channels_num),
    act_(act),
    export_cache_budget_(configured_export_cache_budget()),
    list_ahead_(configured_list_ahead())
{
}

EWS_Backup_Context::~EWS_Backup_Context() { stop_export_task(); }

bool EWS_Backup_Context::activate_export_task(Job* job)
{
  if (task_)
    return true;
  EWS_Export_Task* task = new (std::nothrow) EWS_Export_Task(shared_from_this(), job);
  if (task == nullptr)
  {
    errno = ENOMEM;
    return false;
  }
  task->cache_budget(export_cache_budget_);
  task_.reset(task);
  return task_->start();
}

void EWS_Backup_Context::stop_export_task()
{
  if (task_)
    task_->stop();
}

bool EWS_Backup_Context::no_task() const
{
  if (task_)
    return false;
  LOG_UNEXPECTED("task_.get() is NULL");
  return true;
}

bool EWS_Backup_Context::put_item(EWS_Export_Args* args)
{
  if (no_task())
    return false;
  if (!task_->putq(args))
  {
    LOG_MSG(LM_ERROR, "Failed to put end to EWS export queue\n");
    return false;
  }
  return true;
}

bool EWS_Backup_Context::get_item(const std::string& mailbox, const std::string& id, EWS_b64_Data& data)
{
  if (no_task())
    return false;
  return task_->get_item(mailbox, id, data);
}

bool EWS_Backup_Context::get_failed_items(std::vector<std::string>& out)
{
  if (no_task())
    return false;
  return task_->get_failed_items(out);
}

bool EWS_Backup_Context::get_failed_items(const std::string& mailbox, std::vector<std::string>& out)
{
  if (no_task())
    return false;
  return task_->get_failed_items(mailbox, out);
}

void EWS_Backup_Context::begin_mailbox(const std::string& mailbox)
{
  if (task_)
    task_->open_mailbox(mailbox);
}

void EWS_Backup_Context::end_mailbox(const std::string& mailbox)
{
  if (task_)
    task_->release_mailbox(mailbox);
}

bool EWS_Backup_Context::queue_exports(const std::string& mailbox, const EWS_Items& items)
{
  // One queued batch feeds every concurrent ExportItems request of the export
  // thread's client; the export thread cuts it further to fit its byte budget.
  Paginator batches(static_cast<int>(items.size()), EWS_Params::batch_size() * EWS_Params::export_concurrency());
  while (batches.next())
  {
    if (is_cancelling())
    {
      LOG_MSG(LM_ERROR, "EWS items exporting is calceled.\n");
      return false;
    }
    EWS_Export_Args* args = new (std::nothrow) EWS_Export_Args;
    if (args == nullptr)
    {
      errno = ENOMEM;
      return false;
    }
    args->mailbox = mailbox;
    const size_t begin = static_cast<size_t>(batches.offset());
    const size_t end = begin + static_cast<size_t>(batches.limit());
    args->item_ids.reserve(end - begin);
    args->item_sizes.reserve(end - begin);
    for (size_t i = begin; i < end; ++i)
    {
      args->item_ids.push_back(items[i].id);
      args->item_sizes.push_back(items[i].size);
    }
    if (!put_item(args))
    {
      delete args;
      return false;
    }
  }
  return true;
}

void EWS_Backup_Context::drop_exports(const std::string& mailbox, const EWS_Items& items)
{
  if (!task_ || items.empty())
    return;
  std::vector<std::string> ids;
  ids.reserve(items.size());
  for (const EWS_Item& item : items)
    ids.push_back(item.id);
  task_->forget_items(mailbox, ids);
}

bool EWS_Backup_Context::put_entry(const std::string& path, const std::string& id, time_t mtime, time_t ctime)
{
  ACE_Guard<ACE_Thread_Mutex> guard(map_lock_);
  if (!guard.locked())
    return false;
  map_[path].push_back(EWS_Folder_Entry(id, mtime, ctime));
  return true;
}

bool EWS_Backup_Context::get_entry(const std::string& path, bool pop, EWS_Folder_Entry& out)
{
  ACE_Guard<ACE_Thread_Mutex> guard(map_lock_);
  if (!guard.locked())
    return false;
  Path_Entries_Map::iterator it = map_.find(path);
  if (it == map_.end() || it->second.empty())
  {
    LOG_MSG(LM_ERROR, "EWS path '%s' not found\n", path.c_str());
    return false;
  }
  out = it->second.front();
  if (!pop)
    return true;
  // Each item consumes its entry once, so the table shrinks as the stream reads.
  it->second.pop_front();
  if (it->second.empty())
    map_.erase(it);
  return true;
}

bool EWS_Backup_Context::put_failed_mailbox(const std::string& mailbox)
{
  if (mailbox.empty())
    return true;
  ACE_Guard<ACE_Thread_Mutex> guard(out_lock_);
  failed_mailboxes_.push_back(mailbox);
  return true;
}

void EWS_Backup_Context::add_out_file(const std::string& name, uint64_t stored_bytes)
{
  ACE_Guard<ACE_Thread_Mutex> guard(out_lock_);
  out_files_.push_back(name);
  out_size_ += static_cast<int64_t>(stored_bytes);
}

bool EWS_Backup_Context::is_cancelling() const { return act_.state == JOB_STATE_CANCELING; }

int EWS_Backup_Context::retry_seconds() const
{
  Job_Definition_var def = job_.definition_var();
  if (def.get() == nullptr)
    return 0;
  return def->max_seconds_retry();
}

bool EWS_Backup_Context::make_client(EWS_Client_Ptr& out) const
{
  if (client_maker_)
    return client_maker_(out);
  return create_ews_client(username_, password_, auth_, out, Job_log_msg_callback(job_), std::string());
}
