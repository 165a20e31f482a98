#ifndef HOST_STORAGE_CLIENT_IO_EX_H
#define HOST_STORAGE_CLIENT_IO_EX_H

#include <functional>
#include <memory>

#include "host/storage/client_io_base.h"

// The storage client the module and the streams use: one object store on a pool
// location, picked by the location's scheme when it is opened:
// - "http://…" or "https://…": a pool served by backupd (Client_IO_Http);
// - "file:///…": a directory of this machine (Client_IO_File);
// - "s3+https://…" or "s3+http://…": a bucket of an S3-compatible object store
//   (Client_IO_S3), with the region and access key from the options.
// Operations before a successful `open` fail with "storage client is not open".
// See Client_IO_Base for the meaning of each operation; like the clients it
// wraps, it logs nothing and leaves reporting a failure to its caller.
class Client_IO_Ex
{
public:
  // Makes the (unopened) client for a location; null when no client serves it.
  typedef std::function<std::unique_ptr<Client_IO_Base>(const std::string& location)> Factory;

  // The client the location's scheme calls for, as described above.
  static std::unique_ptr<Client_IO_Base> make_default(const std::string& location);
  // Replaces, process-wide, how later open() calls make their client (tests wrap
  // the default in a Client_IO_Fault); an empty factory restores the default.
  // Call it while no Client_IO_Ex is being opened.
  static void set_factory_for_tests(Factory factory);

  Client_IO_Ex();
  ~Client_IO_Ex();

  bool open(const std::string& location, const Client_IO_Base::Options& options);
  bool is_open() const { return impl_ != nullptr; }
  const std::string& location() const { return location_; }

  bool put_contents(const std::string& name, const std::string& text, bool overwrite);
  bool get_contents(const std::string& name, std::string& text);

  bool open_write(const std::string& name, bool overwrite);
  bool write(const void* data, size_t len);
  bool close_write();
  void abort_write();

  bool open_read(const std::string& name, uint64_t offset = 0);
  long long read(void* data, size_t len);
  void close_read();

  bool size(const std::string& name, uint64_t& size);
  bool list(const std::string& prefix, std::vector<std::string>& names);
  bool remove(const std::string& name);

  uint64_t storage_size() const;
  // The last failure, classified, and its text.
  const Host_Status& status() const;
  const std::string& last_error() const;

private:
  bool not_open();

  std::unique_ptr<Client_IO_Base> impl_;
  std::string location_;
  Host_Status status_;
  std::string last_error_;
};

#endif
