#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_LISTING_AHEAD_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_LISTING_AHEAD_H

#include "backup/exchange/core/ews/job_thread_helper.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_folder.h"

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

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
  // The items' exports were queued by the listing ahead.
  bool exports_queued = false;
};

// Lists a mailbox's folders ahead of the backup stream, on threads of its own
// ("EWSListAhead"), each with its own EWS client (so a connection of its own),
// so that the stream finds a folder's subfolders and items ready when it
// reaches the folder instead of waiting for a FindFolder and a FindItem per
// folder.
//
// Several folders are listed at once, one per listing thread; the next folder
// listed is always the first one not yet begun in the order the stream walks
// them: depth first, each folder's subfolders in the order of its listing,
// before its later siblings. A folder whose listing reported it without
// subfolders (ChildFolderCount 0) is not asked for them. At most a few
// listings (folders and items) wait to be taken; each take() frees room, and
// the folder the stream waits for is always begun at once.
//
// A listed folder's exports are queued at once, so that the export thread
// fetches the items of the next folders while the stream writes this one's,
// and merges small folders into one call. They are queued in the stream's
// order, never before those of a folder the stream comes to earlier (one
// still planned or being listed), so the export queue keeps the order in
// which items are read; take() hands a listing over only once its exports are
// queued (exports_queued), or their queueing failed and the stream must try.
//
// A folder the stream passes by without taking its listing (a name the backup
// set cannot store) has its listing dropped, or not made, when a later one is
// taken, and its queued exports dropped with it (the export thread forgets its
// items); nothing below it is listed. A folder that is not planned (the threads
// were stopped, or never started, or the folder is below one whose listing
// failed) is answered false by take(): the caller lists it itself.
//
// Used by one stream thread (start, take, stop); the listing threads are its
// own. Failures are logged with the messages of the stream's own listing. The
// context must outlive the object.
class EWS_Listing_Ahead
{
public:
  // Listings kept waiting at most, and items in them (checked before a folder
  // is begun, so one large folder may pass it).
  static constexpr size_t max_waiting_folders = 4;
  static constexpr size_t max_waiting_items = 20000;

  // `listers`: folders listed at once (threads and connections), at least 1.
  EWS_Listing_Ahead(EWS_Backup_Context& ctx, int listers);
  ~EWS_Listing_Ahead();
  EWS_Listing_Ahead(const EWS_Listing_Ahead&) = delete;
  EWS_Listing_Ahead& operator=(const EWS_Listing_Ahead&) = delete;

  // Begins listing the folders below `roots` (the mailbox's top folders, whose
  // paths are under `root_path`) for `mailbox`. Stops any earlier listing
  // first. False (nothing planned) when no client can be made or no thread can
  // start; with fewer than asked for, it lists with those it has.
  bool start(const std::string& mailbox, const std::string& root_path, const EWS_Folders& roots);
  // Stops the threads (EWS calls under way end early) and forgets every
  // listing; take() answers false until the next start().
  void stop();
  // The listing of folder `id`, waiting for it when it is planned but not yet
  // made. False when it is not planned.
  bool take(const std::string& id, EWS_Folder_Listing& out);

  // Lists one folder with `ews`: its subfolders (unless `no_subfolders`), then
  // its items page by page, sorted by name. `path` and `mailbox` name it in
  // log lines. Used by the threads and, for folders not planned, by the stream.
  static bool list(EWS_Client& ews, EWS_Backup_Context& ctx, const std::string& mailbox, const std::string& path,
                   const std::string& id, bool no_subfolders, EWS_Folder_Listing& out);

private:
  // A folder's place in the stream's walk: its index among its siblings, and
  // its parent's, up to the mailbox's top folders. Compared element by element
  // (a folder's own place before its subfolders'), it orders folders as the
  // stream walks them.
  typedef std::vector<unsigned> Walk_Place;

  struct Planned
  {
    std::string id;
    std::string path;
    bool no_subfolders = false;
  };

  // One listing thread and its own client.
  struct Lister
  {
    EWS_Listing_Ahead* owner = nullptr;
    EWS_Client_Ptr ews;
    std::unique_ptr<Job_Thread_Helper> thread;
    void svc() { owner->svc(*this); }
  };

  bool make_clients();
  // take() under the lock: hands over the listing of `id` once it is made.
  bool wait_for(std::unique_lock<std::mutex>& guard, const std::string& id, EWS_Folder_Listing& out);
  void svc(Lister& lister);
  void thread_ended();
  // Waits for the next folder to list; false when there is none any more.
  bool next_folder(Walk_Place& place, Planned& folder);
  void finish_folder(const Walk_Place& place, const Planned& folder, bool ok, EWS_Folder_Listing& listing);
  // Queues the exports of every listing whose turn has come, in the stream's
  // order; only one caller queues at a time (another returns at once, the one
  // queueing looks again before it stops).
  void queue_exports_ahead();
  // Under the lock: the first listing waiting to be taken whose exports are not
  // queued yet, when no folder the stream reaches before it may still come.
  bool next_to_queue(Walk_Place& place);
  bool room() const;
  bool may_begin() const;
  // Plans `folders` (children of the folder at `parent` whose path is `parent_path`).
  void plan(const Walk_Place& parent, const std::string& parent_path, const EWS_Folders& folders);
  // Forgets the folders before `place` in the walk: the stream has passed them.
  void drop_before(const Walk_Place& place);

  EWS_Backup_Context& ctx_;
  std::vector<std::unique_ptr<Lister>> listers_;
  std::string mailbox_;
  std::atomic<bool> cancel_;  // read by the clients' cancel predicate

  mutable std::mutex lock_;
  std::condition_variable changed_;
  bool stop_ = false;
  bool running_ = false;
  std::unordered_map<std::string, Walk_Place> places_;  // every folder planned, being listed or listed
  std::map<Walk_Place, Planned> plan_;                  // not begun, in walk order
  std::set<Walk_Place> listing_;                        // being listed now
  std::map<Walk_Place, EWS_Folder_Listing> done_;       // listed, waiting to be taken
  Walk_Place floor_;                                    // where the stream is: what is before was passed by
  size_t threads_running_ = 0;
  bool waiting_ = false;  // the stream waits for `wanted_`
  Walk_Place wanted_;
  size_t waiting_items_ = 0;
  bool queueing_ = false;      // a caller is queueing exports (the lock released)
  bool queue_failed_ = false;  // a queueing failed: the stream queues for itself
};

#endif
