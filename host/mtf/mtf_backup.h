#ifndef HOST_MTF_MTF_BACKUP_H
#define HOST_MTF_MTF_BACKUP_H

#include <ace/Basic_Types.h>
#include <ace/Log_Msg_Callback.h>
#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/base/compression.h"
#include "host/mtf/mtf_backup_callback_factory.h"
#include "host/mtf/mtf_cat_summary.h"
#include "host/mtf/mtf_event_handler.h"
#include "host/mtf/mtf_metadata.h"
#include "host/mtf/mtf_types.h"
#include "host/storage/client_io_base.h"

class MTF_Backup_Channel;

// Compression codes of the backup stream.
enum MTF_Compression
{
  MTF_COMPRESSION_NONE = 0,
  MTF_COMPRESSION_ZSTD = 3,
};

// The stream's code for a job's compression option: none stays none; zstd, auto
// and lzop all give zstd (the only compression the data files use).
unsigned short compression_to_mtf(Compression_Method method);

// Writes one backup set: walks the sources through callbacks, writes one
// Microsoft Tape Format data file per channel and, last, the set's catalog file
// (docs/backup-set-format.md). The set lives under the pool's URL at
// "<host_uuid>/<minor_resource_id>"; its revision is seq + 1 (the caller hands
// the previous revision).
//
// `channel_num` channels run at once, each on its own thread with its own
// callback (made by the factory on that thread), its own storage client and one
// bounded buffer; sources go to whichever channel is free.
//
// Configure, then call backup() once from one thread. The metadata, the event
// handler and the factory are not owned and must outlive backup(). The figures
// are valid after backup() returns.
class MTF_Backup
{
public:
  MTF_Backup(const MTF_Metadata& metadata, MTF::Event_Handler& handler,
             std::shared_ptr<ACE_Log_Msg_Callback> log_callback);
  ~MTF_Backup();
  MTF_Backup(const MTF_Backup&) = delete;
  MTF_Backup& operator=(const MTF_Backup&) = delete;

  void pool_uuid(const std::string& uuid) { pool_uuid_ = uuid; }
  void minor_resource_id(const std::string& id) { minor_resource_id_ = id; }
  void host_uuid(const std::string& uuid) { host_uuid_ = uuid; }
  void compression(unsigned short code) { compression_ = code; }
  // The previous revision; the set is written as revision seq + 1.
  void seq(int seq) { seq_ = seq; }
  void channel_num(unsigned n) { channel_num_ = n == 0 ? 1 : n; }
  // zstd level; 0 is zstd's default.
  void compression_level(int level) { compression_level_ = level; }
  // Options of every storage client of the run (rate limits are per client).
  Client_IO_Base::Options& extra_client_io_opts() { return options_; }
  // The pool's URL when the caller knows it; otherwise it is asked of backupd.
  void pool_url(const std::string& url) { pool_url_ = url; }
  void callback_factory(MTF::IBackup_Callback_Factory* factory) { factory_ = factory; }
  void add_source(const std::string& name, const std::string& path);

  // 0 when the set was written completely (its catalog file stored), -1 when
  // not: nothing usable is left (data files aborted, no catalog file). A source
  // that fails does not fail the run; it is ended with ok = false.
  int backup();

  ACE_UINT64 size() const { return summary_.size(); }
  ACE_UINT64 set_size() const { return summary_.set_size(); }
  ACE_UINT64 set_storage_size() const { return summary_.storage_size(); }
  const MTF::Cat_Summary& summary() const { return summary_; }
  bool cancelled() const { return cancelled_; }
  int rev() const { return seq_ + 1; }
  // Names of the objects written (data files, then the catalog file).
  const std::vector<std::string>& files() const { return files_; }
  std::string catalog_name() const;

  // For the channels (any channel thread).
  bool next_source(MTF::source_entry& entry);
  bool should_stop();
  void request_stop() { stop_ = true; }
  void file_done(ACE_UINT64 bytes, MTF::IBackup_Callback& callback);
  const MTF_Metadata& metadata() const { return metadata_; }
  MTF::IBackup_Callback_Factory* factory() const { return factory_; }
  const std::shared_ptr<ACE_Log_Msg_Callback>& log_callback() const { return log_callback_; }

private:
  bool prepare(std::string& location);
  int finish(const std::string& location);

  const MTF_Metadata& metadata_;
  MTF::Event_Handler& handler_;
  std::shared_ptr<ACE_Log_Msg_Callback> log_callback_;
  MTF::IBackup_Callback_Factory* factory_ = nullptr;
  std::string pool_uuid_;
  std::string pool_url_;
  std::string minor_resource_id_;
  std::string host_uuid_;
  unsigned short compression_ = MTF_COMPRESSION_NONE;
  int seq_ = 0;
  unsigned channel_num_ = 1;
  int compression_level_ = 0;
  Client_IO_Base::Options options_;
  std::vector<MTF::source_entry> sources_;

  std::mutex lock_;  // guards next_source_
  size_t next_source_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> cancelled_{false};
  std::atomic<ACE_UINT64> files_done_{0};
  std::atomic<ACE_UINT64> bytes_done_{0};
  std::atomic<int> last_percent_{-1};
  std::vector<std::unique_ptr<MTF_Backup_Channel>> channels_;
  std::vector<std::string> files_;
  MTF::Cat_Summary summary_;
};

#endif
