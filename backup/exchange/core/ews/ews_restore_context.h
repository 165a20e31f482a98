#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CONTEXT_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_RESTORE_CONTEXT_H

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_folder_creator.h"
#include "backup/exchange/core/ews/ews_folder_uploads.h"
#include "backup/exchange/core/ews/ews_folders_cache.h"
#include "host/base/secure_allocator.h"
#include "host/ews/ews_client.h"
#include "host/office365/office365_auth.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Thread_Mutex.h>
#include <boost/shared_ptr.hpp>
#include <nlohmann/json.hpp>

#include <map>
#include <memory>
#include <string>
#include <vector>

// The state one restore run shares between the restore executor, the restore
// callbacks and every item writer: credentials and target mailbox, the target
// folder, the source mailbox's folder tree from the set's index, the folder
// creator and the map from set directories to the folders made for them.
//
// The executor calls init, create_target_folder and load_src_index, in that
// order, sets the path fields and builds the selection, all before the stream
// starts; afterwards those fields are read-only. The stream's workers then call
// mkdir_p, get_folder_id, folder_uploads and create_ews_client concurrently;
// `lock_` guards `created_dir_` and `uploads_` only and is never held across an
// EWS call. Held by
// boost::shared_ptr (executor, factory, callbacks, writers).
class EWS_Restore_Context
{
public:
  typedef std::map<std::string, std::string> Path_Id_Map;

  EWS_Restore_Context() = default;
  EWS_Restore_Context(const EWS_Restore_Context&) = delete;
  EWS_Restore_Context& operator=(const EWS_Restore_Context&) = delete;

  // Replaces how EWS clients are made (init's and the writers'); for driving a
  // run against another transport. Set before init.
  void client_maker(const EWS_Client_Maker& maker) { client_maker_ = maker; }

  // Makes the folder creator's client for `tgt_mailbox` and keeps the
  // credentials. False changes nothing.
  bool init(const std::string& username, const Secure_String& password, const std::string& tgt_mailbox,
            const std::shared_ptr<Office365_Auth>& auth, const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb);
  // Creates `path` ("a/b", no leading "/") below the mailbox root and restores
  // under it; empty restores into the mailbox root.
  bool create_target_folder(const std::string& path);
  // Loads the folder tree of `src_mailbox` from index revision `rev` of the set.
  bool load_src_index(const std::string& src_mailbox, const std::string& pool_uuid, const std::string& uri, int rev);
  // Turns one selection entry (percent-encoded "folder/path/" + id) into
  // {"dir": path} or {"file": path} of the set.
  bool to_mtf_restore_entry(const std::string& entry, nlohmann::ordered_json& out) const;

  // A new client of the target mailbox (for a restore callback's client pool,
  // when none of its clients is idle).
  bool create_ews_client(EWS_Client_Ptr& client) const;
  // Finds or creates the folder of a set directory (as the stream names it,
  // "/"-separated) below the target folder and records it.
  bool mkdir_p(const char* path);
  // The folder recorded for a set directory.
  bool get_folder_id(const std::string& path, std::string& id);
  // What this run has uploaded into folder `id` (one record per folder, made
  // on first use), for settling uploads whose answer was lost.
  bool folder_uploads(const std::string& id, boost::shared_ptr<EWS_Folder_Uploads>& out);

  // Paths of sets made by agents whose name contains "linux": "/" separated,
  // no drive prefix.
  void set_linux_paths()
  {
    orig_separator_ = '/';
    orig_prefix_comp_count_ = 1;
    orig_prefix_ = "/";
  }

  const std::string& target_folder_id() const { return target_folder_id_; }
  const EWS_Folders_Ptr& src_folders() const { return src_folders_; }

  // Splits an entry: the percent-decoded text before the last "/" split at "/"
  // into `components`, the decoded rest into `id`. Decoding comes first, so an
  // encoded "/" in a name splits it.
  static void parse_restore_entry(const std::string& entry, std::vector<std::string>& components, std::string& id);

private:
  bool make_client(EWS_Client_Ptr& client, const std::string& username, const Secure_String& password,
                   const std::shared_ptr<Office365_Auth>& auth, const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb,
                   const std::string& mailbox) const;

  std::string orig_prefix_ = "@:\\";
  int orig_prefix_comp_count_ = 2;
  char orig_separator_ = '\\';
  std::string username_;
  Secure_String password_;
  std::string tgt_mailbox_;
  std::string src_mailbox_;
  std::string target_folder_id_;
  EWS_Folders_Ptr src_folders_;
  ACE_Thread_Mutex lock_;
  boost::shared_ptr<EWS_Folder_Creator> creator_;
  Path_Id_Map created_dir_;
  std::map<std::string, boost::shared_ptr<EWS_Folder_Uploads>> uploads_;
  std::shared_ptr<Office365_Auth> auth_;
  std::shared_ptr<ACE_Log_Msg_Callback> log_cb_;
  EWS_Client_Maker client_maker_;
};

typedef boost::shared_ptr<EWS_Restore_Context> EWS_Restore_Context_Ptr;

#endif
