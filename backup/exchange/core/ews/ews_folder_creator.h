#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDER_CREATOR_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDER_CREATOR_H

#include "host/ews/ews_client.h"

#include <ace/Thread_Mutex.h>

#include <list>
#include <map>
#include <string>

// Creates chains of mail folders in the target mailbox of a restore and
// remembers, for the whole run, which folder it created under which parent, so
// each folder is created once however often later paths name it. Only folders
// created by this run are remembered: an existing folder of the same name is not
// looked up, and the restore never merges into folders it did not create.
//
// Owned by the restore context; any thread may call, the walks are serialised
// (the lock is held across the EWS calls). On failure the folders created
// earlier in the walk stay recorded.
class EWS_Folder_Creator
{
public:
  // Parent folder id ("" for the top of information store) -> display name ->
  // folder id.
  typedef std::map<std::string, std::map<std::string, std::string>> Id_Names_Map;

  explicit EWS_Folder_Creator(const EWS_Client_Ptr& ews);

  // Each form creates the missing levels of a chain and puts the id of its last
  // folder into `id` (left as it was for an empty chain). Paths are split at
  // "/", runs of "/" counting as one; a leading or trailing "/" yields an empty
  // name, which is not skipped.
  bool mkdir_p(const std::string& path, std::string& id);
  bool mkdir_p(const std::string& parent_id, const std::string& path, std::string& id);
  bool mkdir_p(const std::string& parent_id, const std::list<std::string>& names, std::string& id);

  // The worker: `parent_id` null or empty means the top of information store.
  bool mkdir_p_i(const char* parent_id, const std::list<std::string>& names, std::string& id);

private:
  static void split(const std::string& path, std::list<std::string>& names);

  ACE_Thread_Mutex lock_;
  Id_Names_Map created_folders_;
  EWS_Client_Ptr ews_;
};

#endif
