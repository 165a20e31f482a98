#ifndef HOST_MTF_MTF_RESTORE_WORKER_H
#define HOST_MTF_MTF_RESTORE_WORKER_H

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/mtf/mtf_reader.h"
#include "host/mtf/mtf_restore.h"
#include "host/storage/client_io_ex.h"

// One worker of a restore: a thread with its own callback, storage client and
// reader. It announces directories while any are left, waits until all are
// announced, then restores batches of files (runs of one data file in offset
// order, read forward with as few ranged reads as possible). Owned by
// MTF_Restore; start() and join() from its thread.
class MTF_Restore_Worker
{
public:
  MTF_Restore_Worker(MTF_Restore& owner, unsigned index);
  ~MTF_Restore_Worker();

  void start();
  void join();

private:
  void run();
  bool restore_file(const MTF_Set_Catalog::Entry& entry);
  bool position_at(const MTF_Set_Catalog::Entry& entry, std::string& error);
  std::string local_path(const std::string& path) const;

  MTF_Restore& owner_;
  unsigned index_;
  MTF::IRestore_Callback_var callback_;
  Client_IO_Ex io_;
  bool io_open_ = false;
  std::unique_ptr<MTF_Reader> reader_;
  uint32_t reader_file_ = 0;
  std::vector<char> piece_;
  std::thread thread_;
};

#endif
