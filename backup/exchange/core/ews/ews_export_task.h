#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_EXPORT_TASK_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_EXPORT_TASK_H

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/job_thread_helper.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_export_request.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Message_Queue_T.h>
#include <ace/Synch_Traits.h>
#include <ace/Thread_Mutex.h>
#include <ace/Time_Value.h>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

// Mailbox -> item id -> exported contents not yet read.
typedef std::map<std::string, std::map<std::string, EWS_b64_Data>> Mailbox_Data_Map;

// Fetches item contents ahead of the backup stream on one thread, "EWSExport".
//
// The listers queue batches of item ids (putq); the thread exports each batch
// with its own EWS client and parks the contents in a cache; readers take one
// item each (get_item), waiting on a condition until it has come. Items that
// EWS could not export are cached without data, so their reader learns at once,
// and are gathered as failed items of their mailbox.
//
// Memory: the queue bounds how many batches wait; the items held are bounded
// by a byte budget. An item is held from its export until its reader lets go
// of it: in the cache, then lent to the reader (get_item hands out a buffer
// whose last copy, when dropped, gives its bytes back to the budget), so an
// item being written to the backup set still counts. A queued batch is cut
// into export calls by the items' listed sizes: a call carries the items that
// fit beside what is held, so held plus in-flight bytes stay within the budget;
// an item larger than the budget goes alone once nothing is held (items of
// unknown size count as nothing, so a batch of them goes whole once the held
// bytes are within the budget).
// Before each call the thread waits until its first item fits, woken by reads,
// by a mailbox being released, and by stop; cancellation is noticed within one
// 8-second wait. Batches already queued behind the one taken (other folders,
// other channels' mailboxes) join its call when all their items have listed
// sizes, up to ews.batch_size x ews.export_concurrency ids, and the client runs
// the call's batches side by side (EWS_Params::export_concurrency). The
// budget yields while the queue is full: a lister queues all batches of a folder
// before its items are read, so a folder of more than 16384 batches passes the
// budget by what does not fit the queue rather than stall the run. A
// mailbox ended in the stream is released: its cached items are dropped and its
// still-queued batches skipped, and items of a folder the stream passed by are
// forgotten the same way, so items no reader will take never hold the budget.
//
// Owned by the backup context (shared pointer); it reaches the context only
// through a weak pointer. putq, get_item, get_failed_items, open_mailbox and
// release_mailbox may be called from any thread; start and stop from the
// owner's. The destructor stops the thread.
class EWS_Export_Task
{
public:
  typedef ACE_Message_Queue_Ex<EWS_Export_Args, ACE_MT_SYNCH> Queue;

  EWS_Export_Task(const boost::shared_ptr<EWS_Backup_Context>& ctx, Job* job);
  ~EWS_Export_Task();
  EWS_Export_Task(const EWS_Export_Task&) = delete;
  EWS_Export_Task& operator=(const EWS_Export_Task&) = delete;

  // Starts the export thread. False (errno ENOMEM) when its condition cannot be made.
  bool start();
  // Stops and joins the thread, then frees every element still queued. Always true.
  bool stop();
  // Queues a batch or the end marker; on success the queue owns `args`, on
  // failure the caller keeps it. Waits in 8-second steps while the queue is
  // full, giving up when the job is being cancelled or the thread has ended.
  bool putq(EWS_Export_Args* args);
  // Takes item `id` of `mailbox` out of the cache, waiting for it as long as the
  // thread runs. False when it was exported without data, when the thread ended
  // without it, or when the wait failed. The contents stay counted in the
  // budget until the last copy of `data.ptr` is dropped; that copy may outlive
  // the task. Whatever `data` held before is dropped first.
  bool get_item(const std::string& mailbox, const std::string& id, EWS_b64_Data& data);
  // Takes every failed item gathered so far (`out` is swapped with them).
  bool get_failed_items(std::vector<std::string>& out);
  // Takes the failed items of one mailbox, in the order met.
  bool get_failed_items(const std::string& mailbox, std::vector<std::string>& out);
  // A mailbox begins (again): its batches are exported.
  void open_mailbox(const std::string& mailbox);
  // A mailbox has ended: its cached contents are dropped, its queued batches
  // skipped from now on, and its failed items forgotten.
  void release_mailbox(const std::string& mailbox);
  // Items of `mailbox` that no reader will take (the stream passed by their
  // folder after their exports were queued): dropped from the cache, and from
  // queued batches and calls under way when they come, so that they do not hold
  // the budget.
  void forget_items(const std::string& mailbox, const std::vector<std::string>& ids);

  void cache_budget(uint64_t bytes) { budget_ = bytes; }
  // Bytes of exported contents waiting in the cache, and the most ever held.
  uint64_t cache_bytes() const;
  uint64_t peak_cache_bytes() const;
  // Bytes handed out by get_item that their readers still hold.
  uint64_t lent_bytes() const;
  // The most ever held in the cache, lent to readers and in the export call
  // under way together (the call counted by its items' listed sizes).
  uint64_t peak_held_bytes() const;
  bool running() const { return thread_.running(); }

private:
  // Where lent contents give their bytes back; outlives the task when a reader
  // still holds an item, and then forgets it.
  struct Lender
  {
    std::mutex lock;
    EWS_Export_Task* task = nullptr;
    void give_back(uint64_t bytes);
  };

public:
  // The deleter of a buffer lent by get_item (std::get_deleter finds it). The
  // reader, the only one to read the contents, may give back what it has
  // handed on before it is done: give_front(upto) returns the whole memory
  // pages below `upto` to the system and those bytes to the budget. The last
  // copy dropped frees the contents and gives back the rest.
  struct Lent_Item
  {
    std::shared_ptr<unsigned char> owned;
    std::shared_ptr<Lender> lender;
    uint64_t size;
    std::shared_ptr<std::atomic<uint64_t>> given;
    void operator()(unsigned char*);
    void give_front(uint64_t upto);
  };

private:
  void svc();
  // A buffer sharing `bytes` whose last copy, when dropped, frees them and
  // then gives `size` (less what was given back before) to the budget.
  std::shared_ptr<unsigned char> lend(const std::shared_ptr<unsigned char>& bytes, uint64_t size);
  void give_back(uint64_t size);
  bool get_item_i(const std::string& mailbox, const std::string& id, EWS_b64_Data& data);
  // Caches each request's data under its mailbox (items of released mailboxes
  // are dropped) and wakes the readers.
  bool cache_items(EWS_Export_Requests& requests);
  // Waits until item `begin` (of listed sizes `sizes`) fits beside the cache,
  // then sets `end` so that items [begin, end) make the next export call and
  // counts them in flight. False when the thread must leave (stop,
  // cancellation, lost context).
  bool wait_for_room(const std::vector<uint64_t>& sizes, size_t begin, size_t& end);
  // Adds to `taken` (one dequeued batch) the batches queued behind it, up to
  // ews.batch_size x ews.export_concurrency ids, when all have listed sizes.
  void gather(std::vector<std::unique_ptr<EWS_Export_Args>>& taken);
  // Exports the taken batches in calls cut to the budget and caches the
  // results. False when the thread must leave.
  bool export_taken(EWS_Client& ews, std::vector<std::unique_ptr<EWS_Export_Args>>& taken);
  bool is_released(const std::string& mailbox);
  // Whether an item is still wanted: its mailbox not released, the item not
  // forgotten. A forgotten item is skipped where it is found unwanted, so it is
  // forgotten no more. Under cache_lock_ (is_wanted takes it).
  bool is_wanted_i(const std::string& mailbox, const std::string& id);
  bool is_wanted(const std::string& mailbox, const std::string& id);
  bool context_gone_or_cancelling();

  boost::weak_ptr<EWS_Backup_Context> ctx_;
  Mailbox_Data_Map cache_;
  mutable ACE_Thread_Mutex cache_lock_;
  std::unique_ptr<ACE_Condition_Thread_Mutex> cache_cond_;
  // Failed items as (mailbox, id), in the order met.
  std::vector<std::pair<std::string, std::string>> failed_items_;
  Queue queue_;
  Job_Thread_Helper thread_;
  std::atomic<bool> stop_;
  const ACE_Time_Value timeout_;

  // Byte budget (guarded by cache_lock_, signalled through room_cond_).
  std::unique_ptr<ACE_Condition_Thread_Mutex> room_cond_;
  uint64_t budget_;
  uint64_t cache_bytes_;
  uint64_t peak_cache_bytes_;
  uint64_t in_flight_bytes_;
  uint64_t lent_bytes_;
  uint64_t peak_held_bytes_;
  std::shared_ptr<Lender> lender_;
  std::set<std::string> released_;
  std::map<std::string, std::set<std::string>> forgotten_;  // mailbox -> item ids
};

#endif
