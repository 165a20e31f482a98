#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDERS_CACHE_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_FOLDERS_CACHE_H

#include "host/ews/ews_folder.h"

#include <ace/Thread_Mutex.h>
#include <boost/shared_ptr.hpp>

#include <string>

typedef boost::shared_ptr<EWS_Folders> EWS_Folders_Ptr;

// The process-wide, single-slot cache of the last mailbox index loaded: browsing
// and restoring read one mailbox's folder tree many times in a row, and the
// index is downloaded and parsed once for them. Any thread may call; the lock is
// held only to test or replace the slot, never during a download. Callers keep
// their own pointer to the tree, so a replaced tree lives until its last user
// lets go.
class EWS_Folders_Cache
{
public:
  // Created on first use; lives until close_instance().
  static EWS_Folders_Cache* instance();
  static void close_instance();

  // The tree of index `index` under `uri` of pool `pool_uuid`: the cached one
  // when the key matches, else downloaded, parsed and cached (replacing the
  // slot). False (logged) when it cannot be had; the slot is then unchanged.
  bool get(const std::string& pool_uuid, const std::string& uri, const std::string& index, EWS_Folders_Ptr& out);
  // True when a tree is cached under exactly this key.
  bool is_cachce_valid(const std::string& pool_uuid, const std::string& uri, const std::string& index) const;

  // Reads and parses one index from storage; no cache involved.
  static bool download_mailbox_index(const std::string& pool_uuid, const std::string& uri, const std::string& index,
                                     EWS_Folders_Ptr& out);

private:
  ACE_Thread_Mutex lock_;
  std::string pool_uuid_;
  std::string uri_;
  std::string index_;
  EWS_Folders_Ptr cache_;
};

// Closes the process-wide cache (at module unload).
void EWS_Folders_Cache_fini();

#endif
