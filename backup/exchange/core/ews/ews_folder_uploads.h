#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDER_UPLOADS_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDER_UPLOADS_H

#include "host/ews/ews_client.h"

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Thread_Mutex.h>

#include <set>
#include <string>
#include <vector>

// What one restore run has uploaded into one folder it created, so that an
// upload whose answer was lost can be settled without making a second copy.
//
// Every folder a restore uploads into was created by that run (the restore
// never merges), so each item of the folder was put there by one of the run's
// uploads. An upload whose outcome is known records the ids it created
// ("claims" them). An upload whose request went out but whose answer was lost
// lists the folder's item ids: an id nobody claimed is an item of an upload
// still unsettled. To make that exact, a listing is taken only while every
// upload into the folder that has sent a request is either settled or itself
// waiting to be reconciled; the waiting ones are settled together from that
// one listing:
//   - no unclaimed id: none of them landed, each sends its items again;
//   - as many unclaimed ids as they have items: all landed, each takes as many
//     of those ids as it has items;
//   - anything else (some landed, some not): which ones cannot be told, so
//     all of them fail rather than risk a second copy.
// While a reconciliation is due, new uploads into the folder wait before
// sending (drops are rare; the pause is short).
//
// Any thread may call. An upload is one begin() ... end() bracket on its
// thread; reconcile() is called only inside a bracket (through the EWS
// client's upload reconciler) and may block until the other uploads of the
// folder have settled.
class EWS_Folder_Uploads
{
public:
  explicit EWS_Folder_Uploads(const std::string& folder_id);
  EWS_Folder_Uploads(const EWS_Folder_Uploads&) = delete;
  EWS_Folder_Uploads& operator=(const EWS_Folder_Uploads&) = delete;

  const std::string& folder_id() const { return folder_id_; }

  // Before an upload's first request: waits while a reconciliation is due.
  bool begin();
  // After the upload: claims the ids it created (empty entries are refused
  // items and are skipped) and leaves the bracket.
  void end(const std::vector<std::string>& ids);
  // Settles `count` items of an upload inside a bracket whose last request may
  // have been applied; `client` lists the folder when this thread is the one
  // to do it. The answer is that of EWS_Upload_Reconciler.
  bool reconcile(EWS_Client& client, size_t count, std::vector<std::string>& landed);

  // Ids claimed so far.
  size_t claimed() const;

private:
  // Lists the folder's item ids with `client` (lock not held).
  bool list_ids(EWS_Client& client, std::vector<std::string>& ids) const;

  const std::string folder_id_;
  mutable ACE_Thread_Mutex lock_;
  ACE_Condition_Thread_Mutex changed_;
  std::set<std::string> claimed_;
  // Uploads inside a bracket.
  size_t active_ = 0;
  // Of those, waiting for the current reconciliation, with their item counts
  // in the order they came (their tickets).
  std::vector<size_t> waiting_;
  // One waiter is listing the folder.
  bool listing_ = false;
  // Counts finished reconciliations, so a waiter knows its own is over.
  unsigned long round_ = 0;
  // The outcome of the last round, by ticket: whether it could be told, and
  // the ids each waiter takes.
  bool told_ = false;
  std::vector<std::vector<std::string>> shares_;
};

#endif
