#ifndef HOST_MTF_MTF_BACKUP_CALLBACK_H
#define HOST_MTF_MTF_BACKUP_CALLBACK_H

#include <cstdint>
#include <list>
#include <memory>
#include <sys/types.h>

#include "host/mtf/mtf_file_reader.h"
#include "host/mtf/mtf_src_lister.h"
#include "host/mtf/mtf_types.h"

namespace MTF
{
// How the backup stream sees the tree it backs up, as a file system. Each channel
// of MTF_Backup has its own callback (from IBackup_Callback_Factory::make, called
// on the channel's thread) and calls it only from that thread; callbacks of
// different channels run concurrently.
//
// For each source a channel takes: handle_source_entry_begin(entry),
// lstat(entry.path), then for a directory read_dirs recursively (within one
// directory, the files in listed order, then the subdirectories), a reader per
// file, and handle_source_entry_end(entry, ok) with the verdict.
// handle_source_produce_end() is called once per run, on one channel, after every
// source of every channel has ended.
//
// Paths: a child's path is its directory's path, one directory_separator() (none
// added when the directory's path already ends with one) and the child's name.
class IBackup_Callback
{
public:
  virtual char directory_separator() = 0;
  virtual bool lstat(const char* path, Callback_Stat& st) = 0;
  // Target of a symbolic link; -1 when there is none.
  virtual ssize_t readlink(const char* path, char* buf, size_t size) = 0;
  virtual IFile_Reader_var make_file_reader() = 0;
  // May be empty: the callback finds no sources of its own.
  virtual ISrc_Lister_var make_source_lister() = 0;
  virtual bool read_dirs(const char* path, std::list<Directory_Entry>& out) = 0;
  // False fails the source; it is then ended with ok = false.
  virtual bool handle_source_entry_begin(const source_entry& entry) = 0;
  virtual bool handle_source_entry_end(const source_entry& entry, bool ok) = 0;
  virtual bool handle_source_produce_end() = 0;
  // Progress by file count: this many files make one percent, and the percent
  // never goes beyond max_file_count_percent().
  virtual uint64_t file_count_one_percent() = 0;
  virtual int max_file_count_percent() = 0;
  virtual ~IBackup_Callback() = default;
};

typedef std::shared_ptr<IBackup_Callback> IBackup_Callback_var;
}  // namespace MTF

#endif
