#include "backup/exchange/core/ews/ews_backup_callback.h"

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/ews_file_reader.h"
#include "backup/exchange/core/ews/ews_listing_ahead.h"
#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/core/ews/ews_mailbox_index.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/paginator.h"
#include "host/base/log.h"
#include "host/ews/ews_params.h"

#include <boost/scope_exit.hpp>

#include <algorithm>
#include <cerrno>
#include <new>
#include <sys/stat.h>

namespace
{
// The path table key of a folder: always with its trailing "/".
std::string folder_key(const std::string& path) { return is_folder(path) ? path : path + "/"; }

MTF::Directory_Entry make_entry(const std::string& name, mode_t mode, time_t mtime, time_t ctime)
{
  MTF::Directory_Entry entry;
  entry.name = name;
  entry.stat.st_mode = mode;
  entry.stat.st_mtime = mtime;
  entry.stat.st_ctime = ctime;
  return entry;
}
}  // namespace

EWS_Backup_Callback::EWS_Backup_Callback(const EWS_Client_Ptr& ews, EWS_Backup_Context& ctx)
  : ews_(ews), ctx_(ctx), cur_folder_(nullptr), processed_mailbox_(0)
{
}

EWS_Backup_Callback::~EWS_Backup_Callback() { stop_listing_ahead(); }

bool EWS_Backup_Callback::lstat(const char* path, MTF::Callback_Stat& st)
{
  st.reset();
  if (is_folder(path))
  {
    st.mode = S_IFDIR;
    return true;
  }
  EWS_Folder_Entry entry;
  if (!ctx_.get_entry(path, false, entry))
    return false;
  st.mode = S_IFREG;
  st.mtime = static_cast<uint64_t>(entry.mtime);
  st.ctime = static_cast<uint64_t>(entry.ctime);
  return true;
}

MTF::IFile_Reader_var EWS_Backup_Callback::make_file_reader()
{
  EWS_File_Reader* reader = new (std::nothrow) EWS_File_Reader(ctx_);
  if (reader == nullptr)
  {
    errno = ENOMEM;
    return MTF::IFile_Reader_var();
  }
  return MTF::IFile_Reader_var(reader);
}

bool EWS_Backup_Callback::read_dirs(const char* path, std::list<MTF::Directory_Entry>& out)
{
  if (is_mailbox(path))
    return list_folder(path, "", out);
  // Each listing takes its folder's entry: folders of one name under one parent
  // share a path and are listed once each, in the order they were recorded.
  EWS_Folder_Entry entry;
  if (!ctx_.get_entry(folder_key(path), true, entry))
    return false;
  return list_folder(path, entry.id, out);
}

void EWS_Backup_Callback::register_folders(EWS_Folders& folders)
{
  // The vectors are swapped into the tree whole and never resized later, so
  // these pointers stay valid for the mailbox.
  for (EWS_Folder& folder : folders)
    folders_[folder.id] = &folder;
}

bool EWS_Backup_Callback::has_no_subfolders(const std::string& folder_id) const
{
  // The parent's listing counted this folder's subfolders (ChildFolderCount):
  // a FindFolder for a folder it found without any would be one round trip
  // spent on an empty answer. A subfolder made after that listing is missed,
  // as it would be had it been made after the FindFolder itself.
  if (folder_id.empty())
    return false;
  std::map<std::string, EWS_Folder*>::const_iterator it = folders_.find(folder_id);
  return it != folders_.end() && it->second != nullptr && it->second->subfolders_counted &&
         it->second->subfolders_count == 0;
}

bool EWS_Backup_Callback::list_folder(const std::string& path, const std::string& folder_id,
                                      std::list<MTF::Directory_Entry>& out)
{
  EWS_Folder_Listing listing;
  // Listed ahead when planned (its failure already logged), here otherwise.
  if (folder_id.empty() || !ahead_ || !ahead_->take(folder_id, listing))
    EWS_Listing_Ahead::list(*ews_, ctx_, cur_mailbox_, path, folder_id, has_no_subfolders(folder_id), listing);
  if (!listing.ok)
    return false;
  EWS_Folders& folders = listing.subfolders;
  for (const EWS_Folder& folder : folders)
  {
    const std::string name = encode_name(folder.display_name);
    out.push_back(make_entry(name, S_IFDIR, 0, 0));
    const std::string child = join_path(path, name) + "/";
    LOG_MSG(LM_DEBUG, "Processing folder '%s', subfolders count %d, items count %d.\n", child.c_str(),
            folder.subfolders_count, folder.items_count);
    if (!ctx_.put_entry(child, folder.id, 0, 0))
      return false;
  }
  if (folder_id.empty())
  {
    // The mailbox's root holds folders only; the folders below it are listed
    // ahead of the stream from here on.
    root_folders_.swap(folders);
    register_folders(root_folders_);
    start_listing_ahead(path);
    return true;
  }
  std::map<std::string, EWS_Folder*>::iterator it = folders_.find(folder_id);
  if (it == folders_.end())
  {
    LOG_MSG(LM_ERROR, "Failed get folder '%s' in '%s'\n", folder_id.c_str(), path.c_str());
    return false;
  }
  cur_folder_ = it->second;
  if (cur_folder_ == nullptr)
  {
    LOG_UNEXPECTED("cur_folder_ is NULL");
    return false;
  }
  cur_folder_->subfolders.swap(folders);
  register_folders(cur_folder_->subfolders);
  return add_items(path, listing.items, listing.exports_queued, out);
}

void EWS_Backup_Callback::start_listing_ahead(const std::string& root_path)
{
  if (ctx_.list_ahead() <= 0 || root_folders_.empty())
    return;
  if (!ahead_)
    ahead_.reset(new (std::nothrow) EWS_Listing_Ahead(ctx_, ctx_.list_ahead()));
  // Without it every folder is listed when the stream reaches it.
  if (ahead_ && !ahead_->start(cur_mailbox_, root_path, root_folders_))
    LOG_MSG(LM_DEBUG, "Folders of '%s' are listed as the stream reaches them.\n", cur_mailbox_.c_str());
}

void EWS_Backup_Callback::stop_listing_ahead()
{
  if (ahead_)
    ahead_->stop();
}

bool EWS_Backup_Callback::list_items(const std::string& path, const std::string& folder_id,
                                     std::list<MTF::Directory_Entry>& out)
{
  if (folder_id.empty())
    return true;
  EWS_Folder_Listing listing;
  if (!EWS_Listing_Ahead::list(*ews_, ctx_, cur_mailbox_, path, folder_id, true, listing))
    return false;
  return add_items(path, listing.items, false, out);
}

bool EWS_Backup_Callback::add_items(const std::string& path, EWS_Items& items, bool exports_queued,
                                    std::list<MTF::Directory_Entry>& out)
{
  if (items.empty())
    return true;
  for (const EWS_Item& item : items)
  {
    const std::string name = encode_name(get_item_name(item));
    out.push_back(make_entry(name, S_IFREG, item.mtime, item.ctime));
    if (!ctx_.put_entry(join_path(path, name), item.id, item.mtime, item.ctime))
      return false;
  }
  if (!exports_queued && !ctx_.queue_exports(cur_mailbox_, items))
    return false;
  cur_folder_->items.swap(items);
  return true;
}

bool EWS_Backup_Callback::handle_source_entry_begin(const MTF::source_entry& entry)
{
  if (ctx_.is_cancelling())
  {
    LOG_MSG(LM_ERROR, "EWS backup job is canceled.\n");
    return false;
  }
  cur_mailbox_ = get_mailbox(entry.path);
  folders_.clear();
  cur_folder_ = nullptr;
  ctx_.begin_mailbox(cur_mailbox_);
  ews_->impersonate(cur_mailbox_);
  ++processed_mailbox_;
  LOG_MSG(LM_INFO, "Processing mailbox '%s' (%d/%d).\n", cur_mailbox_.c_str(), processed_mailbox_, ctx_.mailbox_count_);
  return true;
}

bool EWS_Backup_Callback::handle_source_entry_end(const MTF::source_entry& entry, bool ok)
{
  // Nothing more of this mailbox will be read (a failed one may end half-way).
  stop_listing_ahead();
  const std::string mailbox = get_mailbox(entry.path);
  EWS_Backup_Context& ctx = ctx_;
  BOOST_SCOPE_EXIT_ALL(&)
  {
    // Whatever of this mailbox is still cached or queued will never be read.
    ctx.end_mailbox(mailbox);
    if (!ok)
    {
      ctx.put_failed_mailbox(mailbox);
      LOG_MSG(LM_INFO, "Failed to process mailbox '%s'.\n", mailbox.c_str());
    }
    else
      LOG_MSG(LM_INFO, "Mailbox '%s' processed.\n", mailbox.c_str());
  };
  if (!ok)
    return true;
  ok = finish_mailbox(mailbox);
  return true;
}

bool EWS_Backup_Callback::finish_mailbox(const std::string& mailbox)
{
  std::vector<std::string> failed;
  if (!ctx_.get_failed_items(mailbox, failed))
    return false;
  if (!write_mailbox_index(ctx_, channel_, mailbox, root_folders_, failed))
    return false;
  root_folders_.clear();
  folders_.clear();
  cur_folder_ = nullptr;
  return true;
}

bool EWS_Backup_Callback::handle_source_produce_end()
{
  for (size_t i = 0; i < ctx_.channels_num(); ++i)
  {
    // The first marker may already have ended the export thread; the others
    // are then not needed (and could not be queued).
    if (i > 0 && ctx_.task() && !ctx_.task()->running())
      return true;
    EWS_Export_Args* end = new (std::nothrow) EWS_Export_Args;
    if (end == nullptr)
    {
      errno = ENOMEM;
      return false;
    }
    if (!ctx_.put_item(end))
    {
      delete end;
      return false;
    }
  }
  return true;
}

int EWS_Backup_Callback::max_file_count_percent()
{
  if (ctx_.mailbox_count_ < 1 || processed_mailbox_ < 1)
    return 1;
  return std::min(processed_mailbox_ * 100 / ctx_.mailbox_count_, 99);
}
