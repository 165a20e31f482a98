#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CONTEXT_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CONTEXT_H

#include "host/base/secure_allocator.h"
#include "host/ews/ews_b64_data.h"
#include "host/ews/ews_client.h"
#include "host/office365/office365_auth.h"

#include <ace/Thread_Mutex.h>
#include <boost/enable_shared_from_this.hpp>
#include <boost/function.hpp>
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <ctime>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

class EWS_Export_Task;
class Job;
struct Job_Activity;

// What the listing found for one backup path: the EWS id and the times.
struct EWS_Folder_Entry
{
  std::string id;
  time_t mtime = 0;
  time_t ctime = 0;

  EWS_Folder_Entry() = default;
  EWS_Folder_Entry(const std::string& id_, time_t mtime_, time_t ctime_) : id(id_), mtime(mtime_), ctime(ctime_) {}
};

// One element of the export queue: item ids of one mailbox, in listing order,
// with their sizes as listed (item_sizes[i] is the size of item_ids[i]; a size
// that is missing or 0 is unknown). An empty `mailbox` is the end marker.
struct EWS_Export_Args
{
  std::string mailbox;
  std::vector<std::string> item_ids;
  std::vector<long long> item_sizes;

  // The listed size of item `i`, 0 when unknown.
  uint64_t size_of(size_t i) const
  {
    return i < item_sizes.size() && item_sizes[i] > 0 ? static_cast<uint64_t>(item_sizes[i]) : 0;
  }
};

// Backup path -> entries recorded for it, consumed first in, first out.
typedef std::map<std::string, std::deque<EWS_Folder_Entry>> Path_Entries_Map;
typedef std::vector<std::string> Mailboxes;

// Makes an EWS client for the run (the export thread and each stream callback
// make their own). Replaceable so that a run can be driven against any transport.
typedef boost::function<bool(EWS_Client_Ptr&)> EWS_Client_Maker;

// The state one EWS backup run shares between the executor, the stream's
// callbacks and readers (channel threads) and the export thread.
//
// Owned by a boost::shared_ptr held by the executor; the export task holds only
// a weak pointer, callbacks and readers a reference, so the executor must keep
// the context until the stream has returned. Call stop_export_task() from the
// owning thread before the last owner lets go, so that the export thread never
// ends up releasing it.
//
// Locking: map_lock_ guards the path table only; out_lock_ guards the
// failed-mailbox list, out_files_ and out_size_, which channels ending different
// mailboxes append to at the same time. The executor reads them after the
// stream has returned. No operation holds both locks.
class EWS_Backup_Context : public boost::enable_shared_from_this<EWS_Backup_Context>
{
public:
  EWS_Backup_Context(const std::string& username, const Secure_String& password, const std::string& pool_uuid,
                     const std::string& uri, int seq, size_t channels_num, const std::shared_ptr<Office365_Auth>& auth,
                     Job_Activity& act, Job& job);
  ~EWS_Backup_Context();
  EWS_Backup_Context(const EWS_Backup_Context&) = delete;
  EWS_Backup_Context& operator=(const EWS_Backup_Context&) = delete;

  // Creates and starts the export task once; a later call returns true and does
  // nothing. False (errno ENOMEM) when it cannot be allocated.
  bool activate_export_task(Job* job);
  // Stops and joins the export thread (frees what is still queued). Idempotent.
  void stop_export_task();

  // Queue forwarding; each logs and fails when there is no export task.
  // put_item: ownership of `args` passes to the queue on success only.
  bool put_item(EWS_Export_Args* args);
  // Waits for one item's exported contents (see EWS_Export_Task::get_item).
  bool get_item(const std::string& mailbox, const std::string& id, EWS_b64_Data& data);
  // Every failed item gathered so far (taken).
  bool get_failed_items(std::vector<std::string>& out);
  // The failed items of one mailbox (taken); what the mailbox's index records.
  bool get_failed_items(const std::string& mailbox, std::vector<std::string>& out);
  // A mailbox starts or ends in a stream channel: once ended, whatever of it is
  // cached or still queued is dropped, so that no unread item holds the cache.
  void begin_mailbox(const std::string& mailbox);
  void end_mailbox(const std::string& mailbox);
  // Queues the exports of one folder's items of `mailbox`, in their order, in
  // batches that feed every concurrent request of the export thread's client.
  // False when the job is being cancelled or a batch cannot be queued.
  bool queue_exports(const std::string& mailbox, const EWS_Items& items);
  // The stream passed by a folder whose exports were queued: its items will
  // never be read, so they are dropped from the export queue and the cache.
  void drop_exports(const std::string& mailbox, const EWS_Items& items);

  // The path table (thread-safe).
  bool put_entry(const std::string& path, const std::string& id, time_t mtime, time_t ctime);
  // The front entry of `path`, removed when `pop`. Logs "EWS path '%s' not found"
  // and fails when there is none.
  bool get_entry(const std::string& path, bool pop, EWS_Folder_Entry& out);

  // Ignores an empty name.
  bool put_failed_mailbox(const std::string& mailbox);
  // Records an index file written and its stored bytes.
  void add_out_file(const std::string& name, uint64_t stored_bytes);
  const Mailboxes& get_failed_mailboxes() const { return failed_mailboxes_; }

  size_t channels_num() const { return channels_num_; }
  const std::string& username() const { return username_; }
  const Secure_String& password() const { return password_; }
  const std::shared_ptr<Office365_Auth>& auth() const { return auth_; }
  const std::string& pool_uuid() const { return pool_uuid_; }
  const std::string& uri() const { return uri_; }
  int seq() const { return seq_; }
  Job& job() const { return job_; }

  // True exactly while the job's state is "canceling".
  bool is_cancelling() const;
  // The job definition's retry budget in seconds; 0 without a definition.
  int retry_seconds() const;

  // A new EWS client for this run's credentials (the maker's, when one is set).
  bool make_client(EWS_Client_Ptr& out) const;
  void client_maker(const EWS_Client_Maker& maker) { client_maker_ = maker; }

  // The export budget in bytes (set before activate_export_task): exported
  // items held in the cache or by their readers, plus the export call under
  // way. The agent setting "ews.export_cache_mib" (default 192) unless changed
  // here.
  void export_cache_budget(uint64_t bytes) { export_cache_budget_ = bytes; }
  uint64_t export_cache_budget() const { return export_cache_budget_; }
  // How many folders each stream channel lists at once ahead of the stream, on
  // threads and connections of its own (EWS_Listing_Ahead); 0: each folder is
  // listed when the stream reaches it. The agent setting "ews.list_ahead"
  // (default 1, at most 8) unless changed here.
  static constexpr int default_list_ahead = 1;
  static constexpr int max_list_ahead = 8;
  void list_ahead(int listers) { list_ahead_ = listers; }
  int list_ahead() const { return list_ahead_; }
  // The export task, for figures; empty before activation.
  const std::shared_ptr<EWS_Export_Task>& task() const { return task_; }

  // Index files written in this run and their stored bytes (listed in the set's
  // record); appended through add_out_file.
  std::vector<std::string> out_files_;
  int64_t out_size_;
  // Mailboxes in the job's source; set by the executor before the stream runs.
  int mailbox_count_;

private:
  bool no_task() const;

  Job& job_;
  std::string pool_uuid_;
  std::string uri_;
  int seq_;
  std::shared_ptr<Office365_Auth> auth_;
  Path_Entries_Map map_;
  ACE_Thread_Mutex map_lock_;
  std::string username_;
  Secure_String password_;
  size_t channels_num_;
  std::shared_ptr<EWS_Export_Task> task_;
  Mailboxes failed_mailboxes_;
  ACE_Thread_Mutex out_lock_;
  Job_Activity& act_;
  EWS_Client_Maker client_maker_;
  uint64_t export_cache_budget_;
  int list_ahead_;
};

typedef boost::shared_ptr<EWS_Backup_Context> EWS_Backup_Context_Ptr;

#endif
