#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_LISTING_AHEAD_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_LISTING_AHEAD_H

#include "backup/exchange/core/ews/job_thread_helper.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_folder.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

class EWS_Backup_Context;

// One folder's listing as the backup stream needs it: its subfolders in EWS
// order and its items sorted by name. `ok` false: the listing failed, and the
// failure has been logged.
struct EWS_Folder_Listing
{
  std::string id;
  bool ok = false;
  EWS_Folders subfolders;
  EWS_Items items;
};

// Lists a mailbox's folders ahead of the backup stream, on a thread of its own
// ("EWSListAhead") with its own EWS client, so that the stream finds a folder's
// subfolders and items ready when it reaches the folder instead of waiting for
// a FindFolder and a FindItem per folder.
//
// The folders are listed in the order the stream walks them: depth first, each
// folder's subfolders in the order of its listing, before its later siblings.
// A folder whose listing reported it without subfolders (ChildFolderCount 0) is
// not asked for them. The thread keeps at most a few listings (folders and
// items) waiting; each take() frees room. Nothing is exported from here: the
// stream queues a folder's exports when it takes the listing, so the export
// queue keeps the stream's order.
//
// A folder the stream passes by without taking its listing (a name the backup
// set cannot store) has its listing dropped when a later one is taken. A
// folder that is not planned (the thread was stopped, or never started, or the
// folder is below one whose listing failed) is answered false by take(): the
// caller lists it itself.
//
// Used by one stream thread (start, take, stop); the listing thread is its own.
// Failures are logged with the messages of the stream's own listing. The
// context must outlive the object.
class EWS_Listing_Ahead
{
public:
  // Listings kept waiting at most, and items in them (checked before a folder
  // is begun, so one large folder may pass it).
  static constexpr size_t max_waiting_folders = 4;
  static constexpr size_t max_waiting_items = 20000;

  explicit EWS_Listing_Ahead(EWS_Backup_Context& ctx);
  ~EWS_Listing_Ahead();
  EWS_Listing_Ahead(const EWS_Listing_Ahead&) = delete;
  EWS_Listing_Ahead& operator=(const EWS_Listing_Ahead&) = delete;

  // Begins listing the folders below `roots` (the mailbox's top folders, whose
  // paths are under `root_path`) for `mailbox`. Stops any earlier listing
  // first. False (nothing planned) when the client cannot be made or the
  // thread cannot start.
  bool start(const std::string& mailbox, const std::string& root_path, const EWS_Folders& roots);
  // Stops the thread (an EWS call under way ends early) and forgets every
  // listing; take() answers false until the next start().
  void stop();
  // The listing of folder `id`, waiting for it when it is planned but not yet
  // made. False when it is not planned.
  bool take(const std::string& id, EWS_Folder_Listing& out);

  // Lists one folder with `ews`: its subfolders (unless `no_subfolders`), then
  // its items page by page, sorted by name. `path` and `mailbox` name it in
  // log lines. Used by the thread and, for folders not planned, by the stream.
  static bool list(EWS_Client& ews, EWS_Backup_Context& ctx, const std::string& mailbox, const std::string& path,
                   const std::string& id, bool no_subfolders, EWS_Folder_Listing& out);

private:
  struct Planned
  {
    std::string id;
    std::string path;
    bool no_subfolders = false;
  };

  void svc();
  bool room() const;
  // Plans `folders` (children of `parent_path`) before everything planned so far.
  void plan_front(const std::string& parent_path, const EWS_Folders& folders);
  bool planned(const std::string& id) const;

  EWS_Backup_Context& ctx_;
  EWS_Client_Ptr ews_;
  std::unique_ptr<Job_Thread_Helper> thread_;
  std::string mailbox_;
  std::atomic<bool> cancel_;  // read by the client's cancel predicate

  mutable std::mutex lock_;
  std::condition_variable changed_;
  bool stop_ = false;
  bool running_ = false;
  std::deque<Planned> plan_;
  std::string listing_;  // the folder being listed now
  std::deque<EWS_Folder_Listing> done_;
  size_t waiting_items_ = 0;
};

#endif
