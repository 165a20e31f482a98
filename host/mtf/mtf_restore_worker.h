#ifndef HOST_MTF_MTF_RESTORE_WORKER_H
#define HOST_MTF_MTF_RESTORE_WORKER_H

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "host/mtf/mtf_read_ahead.h"
#include "host/mtf/mtf_reader.h"
#include "host/mtf/mtf_restore.h"
#include "host/storage/client_io_ex.h"

// One worker of a restore: a thread with its own callback, and a reading
// thread (MTF_Read_Ahead) with its own storage client and reader. The reading
// thread takes batches of files (runs of one data file in offset order, read
// forward with as few ranged reads as possible) and reads and checks them one
// file ahead of the worker. The worker hands the files to its callback's
// writers in that order, so that a file is read while the one before it is
// written; before opening a file it announces the file's directory (and the
// missing ones above it) unless that is done, or waits while another worker
// announces one of them. When its files are done it announces any directory
// still left. Owned by MTF_Restore; start() and join()
// from its thread.
class MTF_Restore_Worker
{
public:
  MTF_Restore_Worker(MTF_Restore& owner, unsigned index);
  ~MTF_Restore_Worker();

  void start();
  void join();

private:
  void run();
  // On the worker's thread: every file the read-ahead hands out, to a writer.
  void restore_files(MTF_Read_Ahead& ahead);
  // Announces directories until directory `wanted` is announced; with -1, one
  // directory. False when the restore stops, or with -1 when no directory is
  // left to take.
  bool announce_dirs(int wanted);
  // On the reading thread.
  bool next_file(const MTF_Set_Catalog::Entry*& entry);
  bool read_file(const MTF_Set_Catalog::Entry& entry, MTF_Read_Ahead::Sink& sink, std::string& error);
  bool position_at(const MTF_Set_Catalog::Entry& entry, std::string& error);
  std::string local_path(const std::string& path) const;

  MTF_Restore& owner_;
  unsigned index_;
  MTF::IRestore_Callback_var callback_;
  char separator_ = '/';  // the callback's, read once on the worker's thread
  // Used by the reading thread only while it runs.
  Client_IO_Ex io_;
  std::unique_ptr<MTF_Reader> reader_;
  uint32_t reader_file_ = 0;
  const MTF_Restore::Batch* batch_ = nullptr;
  size_t batch_next_ = 0;
  std::thread thread_;
};

#endif
