#ifndef HOST_MTF_MTF_RESTORE_H
#define HOST_MTF_MTF_RESTORE_H

#include <ace/Basic_Types.h>
#include <ace/Log_Msg_Callback.h>
#include <atomic>
#include <condition_variable>
#include <map>
#include <cstdint>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/mtf/mtf_event_handler.h"
#include "host/mtf/mtf_restore_callback_factory.h"
#include "host/mtf/mtf_set_catalog.h"
#include "host/storage/client_io_base.h"

// Restores selected paths of one backup set. The set is found under the pool's
// URL at "<backup_host_uuid>/<backup_minor_resource_id>", revision `seq` (the
// revision the set's record carries); its catalog file says where each path lies,
// so only the selected files' bytes are read (ranged reads; with zstd, from the
// frame holding the file). A set without its catalog file is incomplete and is
// refused.
//
// Selection: an array of {"dir": path} (the directory and everything below it)
// and {"file": path} objects, paths as backed up. The files go to `concurrent`
// workers (default: channel_num), which also announce the directories to their
// callbacks: a directory once its parent's announcement has returned, a file
// once its directory's has. A worker announces its next file's directory (and
// what is missing above it) when it gets there, or waits while another worker
// announces it, so files of directories already made are written while others
// are still being made; directories no file needs are announced by workers
// whose files are done. Each worker is a thread with its own callback, and a
// reading thread with its own storage client and reader that reads and checks
// the next file while the current one is written. Every file's data is checked
// against its recorded SHA-256 before its last piece reaches the writer. A file
// that fails is counted and logged and the restore goes on.
//
// Configure, then call restore() once from one thread. The handler and the
// factory are not owned and must outlive restore().
class MTF_Restore
{
public:
  MTF_Restore(MTF::Event_Handler& handler, std::shared_ptr<ACE_Log_Msg_Callback> log_callback = nullptr);
  ~MTF_Restore();
  MTF_Restore(const MTF_Restore&) = delete;
  MTF_Restore& operator=(const MTF_Restore&) = delete;

  void callback_factory(MTF::IRestore_Callback_Factory* factory) { factory_ = factory; }
  void pool_uuid(const std::string& uuid) { pool_uuid_ = uuid; }
  // The restoring job's definition; named in the log lines of the run.
  void definition_uuid(const std::string& uuid) { definition_uuid_ = uuid; }
  void backup_host_uuid(const std::string& uuid) { backup_host_uuid_ = uuid; }
  void backup_minor_resource_id(const std::string& id) { backup_minor_resource_id_ = id; }
  // The set's revision, as its record carries it.
  void seq(int rev) { seq_ = rev; }
  // When not 0, the revision the catalog file must name; another is refused.
  void incarnation(int rev) { incarnation_ = rev; }
  void restore_select(const nlohmann::ordered_json& selection) { selection_ = selection; }
  void channel_num(unsigned n) { channel_num_ = n; }
  void concurrent(unsigned n) { concurrent_ = n; }
  // How many bytes of the next file each worker may hold read ahead, besides
  // the file its writer has (see MTF_Read_Ahead); default 32 MiB.
  void read_ahead_bytes(uint64_t n) { read_ahead_bytes_ = n; }
  Client_IO_Base::Options& extra_client_io_opts() { return options_; }
  void pool_url(const std::string& url) { pool_url_ = url; }

  // 0 when the set was read and every selected path was handed to the callbacks
  // (files that failed are counted in failed_count()); -1 when the set could not
  // be used at all, nothing was selected, or the run was cancelled.
  int restore();

  ACE_UINT64 size() const { return bytes_done_; }    // bytes restored
  ACE_UINT64 set_size() const { return set_size_; }  // bytes of the whole set
  ACE_UINT64 file_count() const { return files_done_; }
  // Files that failed, and selected paths the set does not have.
  ACE_UINT64 failed_count() const { return files_failed_; }
  ACE_UINT64 dir_count() const { return dirs_done_; }

  // For the workers.
  struct Batch
  {
    std::vector<const MTF_Set_Catalog::Entry*> files;
  };
  const MTF_Set_Catalog& catalog() const { return catalog_; }
  const std::string& location() const { return location_; }
  const Client_IO_Base::Options& options() const { return options_; }
  uint64_t read_ahead_bytes() const { return read_ahead_bytes_; }
  MTF::IRestore_Callback_Factory* factory() const { return factory_; }
  const std::shared_ptr<ACE_Log_Msg_Callback>& log_callback() const { return log_callback_; }
  // The directory of a file: an index for take_dir/dir_done/dir_announced, or
  // -1 when the file needs none.
  int dir_of(const MTF_Set_Catalog::Entry& file) const;
  // A directory to announce now, whose parent's announcement has returned:
  // the first one missing on the way to `wanted` (`wanted` itself at the
  // end), or with -1 any; false when none can be taken now. Every directory
  // taken must be given back to dir_done.
  bool take_dir(int wanted, int& index, std::string& path);
  void dir_done(int index, bool ok);
  // True when directory `index` has been announced (-1: always).
  bool dir_announced(int index);
  // Waits until directory `wanted` has been announced or take_dir(wanted)
  // can give one, or the restore stops. False when it stops, or with -1 when
  // no directory is left waiting.
  bool wait_dirs(int wanted);
  bool next_batch(const Batch*& batch);
  bool should_stop();
  void file_done(ACE_UINT64 bytes, bool ok);

private:
  bool select(std::vector<std::string>& dirs, std::vector<const MTF_Set_Catalog::Entry*>& files);
  // Under lock_: the topmost directory not yet announced on the way to
  // `wanted` (-1 when it is announced), and whether a directory can be taken.
  int missing_above(int wanted) const;
  bool takeable(int index) const;
  void make_batches(std::vector<const MTF_Set_Catalog::Entry*>& files);

  MTF::Event_Handler& handler_;
  std::shared_ptr<ACE_Log_Msg_Callback> log_callback_;
  MTF::IRestore_Callback_Factory* factory_ = nullptr;
  std::string pool_uuid_;
  std::string pool_url_;
  std::string definition_uuid_;
  std::string backup_host_uuid_;
  std::string backup_minor_resource_id_;
  int seq_ = 0;
  int incarnation_ = 0;
  nlohmann::ordered_json selection_ = nlohmann::ordered_json::array();
  unsigned channel_num_ = 1;
  unsigned concurrent_ = 0;
  uint64_t read_ahead_bytes_ = 32ull * 1024 * 1024;
  Client_IO_Base::Options options_;
  std::string location_;
  MTF_Set_Catalog catalog_;
  // Directories to announce, parents first; for each the index of its parent
  // (-1 when none is selected) and its state.
  std::vector<std::string> dirs_;
  std::vector<int> dir_parent_;
  std::map<std::string, int> dir_index_;
  enum Dir_State : unsigned char
  {
    DIR_WAITING,
    DIR_TAKEN,
    DIR_DONE
  };
  std::vector<Batch> batches_;

  std::mutex lock_;  // guards the hand-out positions and the directory states
  std::condition_variable dirs_ready_;
  std::vector<Dir_State> dir_state_;
  size_t first_waiting_dir_ = 0;  // no directory before it is waiting
  size_t next_batch_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<bool> cancelled_{false};
  std::atomic<ACE_UINT64> bytes_done_{0};
  std::atomic<ACE_UINT64> files_done_{0};
  std::atomic<ACE_UINT64> files_failed_{0};
  std::atomic<ACE_UINT64> dirs_done_{0};
  ACE_UINT64 unknown_paths_ = 0;  // selected paths the catalog does not have
  ACE_UINT64 bytes_total_ = 0;
  ACE_UINT64 files_total_ = 0;
  ACE_UINT64 set_size_ = 0;
  std::atomic<int> last_percent_{-1};
};

#endif
