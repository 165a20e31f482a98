#include "backup/exchange/core/ews/ews_folders_cache.h"

#include "backup/exchange/core/ews/io_options.h"
#include "host/base/log.h"
#include "host/ews/ews_folders_index.h"
#include "host/storage/client_io_ex.h"

#include <ace/Guard_T.h>
#include <ace/Null_Mutex.h>
#include <ace/Singleton.h>

#include <cerrno>
#include <new>

typedef ACE_Unmanaged_Singleton<EWS_Folders_Cache, ACE_Null_Mutex> EWS_Folders_Cache_Singleton;

EWS_Folders_Cache* EWS_Folders_Cache::instance() { return EWS_Folders_Cache_Singleton::instance(); }

void EWS_Folders_Cache::close_instance() { EWS_Folders_Cache_Singleton::close(); }

void EWS_Folders_Cache_fini() { EWS_Folders_Cache::close_instance(); }

namespace
{
// The module has no unload hook of its own: the process-wide cache is released when
// the module's static objects are destroyed, at dlclose (or at exit when the module
// is never unloaded), so that no index outlives the code that made it.
struct Cache_Release
{
  ~Cache_Release() { EWS_Folders_Cache_fini(); }
} release_at_unload;
}  // namespace

bool EWS_Folders_Cache::is_cachce_valid(const std::string& pool_uuid, const std::string& uri,
                                        const std::string& index) const
{
  return cache_ && pool_uuid_ == pool_uuid && uri_ == uri && index_ == index;
}

bool EWS_Folders_Cache::get(const std::string& pool_uuid, const std::string& uri, const std::string& index,
                            EWS_Folders_Ptr& out)
{
  {
    ACE_Guard<ACE_Thread_Mutex> guard(lock_);
    if (!guard.locked())
      return false;
    if (is_cachce_valid(pool_uuid, uri, index))
    {
      out = cache_;
      return true;
    }
  }
  // Downloaded without the lock: other mailboxes' users are not held up by it.
  EWS_Folders_Ptr tree;
  if (!download_mailbox_index(pool_uuid, uri, index, tree))
    return false;
  ACE_Guard<ACE_Thread_Mutex> guard(lock_);
  if (!guard.locked())
    return false;
  pool_uuid_ = pool_uuid;
  uri_ = uri;
  index_ = index;
  cache_ = tree;
  out = tree;
  return true;
}

bool EWS_Folders_Cache::download_mailbox_index(const std::string& pool_uuid, const std::string& uri,
                                               const std::string& index, EWS_Folders_Ptr& out)
{
  Client_IO_Ex channel;
  if (!create_io_channel(pool_uuid, uri, 1, channel, 0))
    return false;
  std::string text;
  if (!channel.get_contents(index, text))
  {
    LOG_MSG(LM_ERROR, "Failed to get mailbox index from pool, uuid = %s, uri = %s, name = %s: %s\n", pool_uuid.c_str(),
            uri.c_str(), index.c_str(), channel.last_error().c_str());
    return false;
  }
  EWS_Folders* folders = new (std::nothrow) EWS_Folders();
  if (folders == nullptr)
  {
    errno = ENOMEM;
    return false;
  }
  out.reset(folders);
  if (!load_ews_folders(text, *folders))
  {
    LOG_MSG(LM_ERROR, "Failed to parse EWS index file %s, pool_uuid = %s, uri = %s\n", index.c_str(), pool_uuid.c_str(),
            uri.c_str());
    return false;
  }
  return true;
}
