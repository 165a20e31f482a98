#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CALLBACK_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_BACKUP_CALLBACK_H

#include "host/ews/ews_client.h"
#include "host/ews/ews_folder.h"
#include "host/mtf/mtf_backup_callback.h"
#include "host/storage/client_io_ex.h"

#include <list>
#include <map>
#include <memory>
#include <string>

class EWS_Backup_Context;
class EWS_Listing_Ahead;

// Shows the job's mailboxes to the backup stream as a file tree: a mailbox is a
// top directory, an EWS folder a subdirectory, an item a file (paths as in
// ews_mtf_utils.h). Listing a folder asks EWS for its subfolders and items,
// records each child in the context's path table, sorts the items by name and
// queues their ids for export in that order, the order in which the stream will
// read them. A folder that its parent's listing reported without subfolders
// (ChildFolderCount 0) is not asked for them again. Once a mailbox's top folders
// are listed, the folders below them are listed ahead of the stream, in its
// order, on a thread of the callback's own (EWS_Listing_Ahead); the stream then
// finds each folder's listing ready, records it and queues its exports as
// above. When the stream ends a mailbox successfully, its index file is
// written.
//
// Path table keys: a folder is recorded under its path with a trailing "/", an
// item without, so that a folder and an item of the same name in one folder
// never share a key; the stream may hand a folder's path with or without the
// trailing "/".
//
// One callback per stream channel, used by that channel's thread only; it owns
// its EWS client and storage channel and refers to the context (not owned),
// which must outlive it.
class EWS_Backup_Callback : public MTF::IBackup_Callback
{
public:
  EWS_Backup_Callback(const EWS_Client_Ptr& ews, EWS_Backup_Context& ctx);
  ~EWS_Backup_Callback() override;

  char directory_separator() override { return '/'; }
  // A path ending in "/" is a directory without any lookup; any other path is
  // an item recorded by a listing (false when it was not).
  bool lstat(const char* path, MTF::Callback_Stat& st) override;
  ssize_t readlink(const char*, char*, size_t) override { return -1; }
  MTF::IFile_Reader_var make_file_reader() override;
  MTF::ISrc_Lister_var make_source_lister() override { return MTF::ISrc_Lister_var(); }
  // The subfolders (in EWS order) then the items (by name) of a mailbox or folder.
  bool read_dirs(const char* path, std::list<MTF::Directory_Entry>& out) override;
  bool handle_source_entry_begin(const MTF::source_entry& entry) override;
  // Always true; a failed mailbox is reported through the context.
  bool handle_source_entry_end(const MTF::source_entry& entry, bool ok) override;
  // Queues one end marker per channel for the export thread.
  bool handle_source_produce_end() override;
  uint64_t file_count_one_percent() override { return 200; }
  // Mailboxes begun by this callback as a percentage of the job's, at most 99.
  int max_file_count_percent() override;

  bool list_folder(const std::string& path, const std::string& folder_id, std::list<MTF::Directory_Entry>& out);
  bool list_items(const std::string& path, const std::string& folder_id, std::list<MTF::Directory_Entry>& out);

  // The current mailbox's folder tree as listed so far.
  const EWS_Folders& root_folders() const { return root_folders_; }

private:
  // Whether the listing that found this folder reported it without subfolders.
  bool has_no_subfolders(const std::string& folder_id) const;
  // Records a folder's sorted items, queues their exports (unless the listing
  // ahead has queued them) and moves them into the current folder's record.
  bool add_items(const std::string& path, EWS_Items& items, bool exports_queued, std::list<MTF::Directory_Entry>& out);
  void start_listing_ahead(const std::string& root_path);
  void stop_listing_ahead();
  bool finish_mailbox(const std::string& mailbox);
  void register_folders(EWS_Folders& folders);

  const EWS_Client_Ptr ews_;
  EWS_Backup_Context& ctx_;
  EWS_Folders root_folders_;
  std::map<std::string, EWS_Folder*> folders_;
  std::string cur_mailbox_;
  EWS_Folder* cur_folder_;
  Client_IO_Ex channel_;
  int processed_mailbox_;
  // Lists the current mailbox's folders ahead of the stream; made for the
  // first mailbox, restarted for each.
  std::unique_ptr<EWS_Listing_Ahead> ahead_;
};

#endif
