#ifndef HOST_MTF_MTF_BACKUP_CHANNEL_H
#define HOST_MTF_MTF_BACKUP_CHANNEL_H

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/mtf/mtf_backup_callback.h"
#include "host/mtf/mtf_buffer.h"
#include "host/mtf/mtf_set_catalog.h"
#include "host/mtf/mtf_writer.h"
#include "host/storage/client_io_ex.h"

class MTF_Backup;

// One channel of a backup: a thread with its own callback, storage client, data
// file and buffer, taking sources from its MTF_Backup until none are left. The
// data file stays open (unpublished) when the thread ends; MTF_Backup publishes
// or aborts it after every channel has ended, so a failed or cancelled run leaves
// no data file visible. Owned by MTF_Backup; start() and join() from its thread.
class MTF_Backup_Channel
{
public:
  MTF_Backup_Channel(MTF_Backup& owner, unsigned index, const std::string& location,
                     const Client_IO_Base::Options& options, int zstd_level, int rev);
  ~MTF_Backup_Channel();

  void start();
  void join();

  // After join(): whether the channel wrote a whole data file (ESET included).
  bool finished() const { return finished_; }
  // After join(): a storage or encoding failure that spoils the set.
  bool broken() const { return broken_; }
  bool publish();  // close_write; false with error()
  void abort();
  const std::string& error() const { return error_; }
  const std::string& data_name() const { return data_name_; }
  MTF_Writer& writer() { return *writer_; }
  std::vector<MTF_Set_Catalog::Entry>& entries() { return entries_; }
  // The callback, kept after the thread ended (empty when make() failed).
  const MTF::IBackup_Callback_var& callback() const { return callback_; }
  uint64_t failed_files() const { return failed_; }
  uint64_t skipped_files() const { return skipped_; }
  uint64_t dir_count() const { return dirs_; }
  uint64_t file_count() const { return files_; }

private:
  void run();
  bool open_storage();
  bool walk_source(const MTF::source_entry& entry);
  bool walk_dir(const std::string& path, time_t mtime, time_t ctime);
  bool backup_file(const std::string& path, uint32_t dir_id, uint64_t size, time_t mtime, time_t ctime);
  bool add_directory(const std::string& path, time_t mtime, time_t ctime, uint32_t& dir_id);
  bool set_broken(const std::string& text);

  MTF_Backup& owner_;
  unsigned index_;
  std::string location_;
  Client_IO_Base::Options options_;
  int rev_;
  std::string data_name_;
  Client_IO_Ex io_;
  std::unique_ptr<MTF_Writer> writer_;
  MTF::IBackup_Callback_var callback_;
  char sep_ = '/';
  MTF::Buffer buffer_;
  std::vector<MTF_Set_Catalog::Entry> entries_;
  std::thread thread_;
  bool writing_ = false;
  bool finished_ = false;
  bool broken_ = false;
  uint64_t failed_ = 0;
  uint64_t skipped_ = 0;
  uint64_t dirs_ = 0;
  uint64_t files_ = 0;
  std::string error_;
};

#endif
