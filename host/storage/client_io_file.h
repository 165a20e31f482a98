#ifndef HOST_STORAGE_CLIENT_IO_FILE_H
#define HOST_STORAGE_CLIENT_IO_FILE_H

#include <memory>

#include "host/storage/client_io_base.h"
#include "host/storage/object_directory.h"
#include "host/storage/object_writer.h"

// A storage client on a local directory ("file:///abs/path"), for a single
// machine without backupd. Objects are written the same way backupd writes them
// (temporary, fsync, rename), so the directory can later be served by backupd.
class Client_IO_File : public Client_IO_Base
{
public:
  ~Client_IO_File() override;

  bool open(const std::string& location, const Options& options) override;
  bool put_contents(const std::string& name, const std::string& text, bool overwrite) override;
  bool open_write(const std::string& name, bool overwrite) override;
  bool write(const void* data, size_t len) override;
  bool close_write() override;
  void abort_write() override;
  bool open_read(const std::string& name, uint64_t offset) override;
  long long read(void* data, size_t len) override;
  void close_read() override;
  bool size(const std::string& name, uint64_t& size) override;
  bool list(const std::string& prefix, std::vector<std::string>& names) override;
  bool remove(const std::string& name) override;

private:
  bool fail_errno(const std::string& what, const std::string& name, int err);

  std::unique_ptr<Object_Directory> dir_;
  Object_Writer writer_;
  bool overwrite_ = true;
  int read_fd_ = -1;
};

#endif
