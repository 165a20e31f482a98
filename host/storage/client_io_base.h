#ifndef HOST_STORAGE_CLIENT_IO_BASE_H
#define HOST_STORAGE_CLIENT_IO_BASE_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "host/base/compression.h"
#include "host/base/host_status.h"
#include "host/base/rate_controller.h"
#include "host/storage/s3_credentials.h"

// A storage client on one pool location: objects are stored, read, listed and
// removed by name (names as in is_valid_storage_name). Client_IO_Ex picks the
// implementation from the location's scheme.
//
// Every operation returns true (or a byte count) on success; on failure it
// returns false (or -1), `status()` classifies the failure (transient, throttled,
// unauthorized, permanent, cancelled) and `last_error()` says why in words. The
// clients log nothing: their callers decide what a failure means and report it.
// The error text never holds an access key. One client is used by one thread at
// a time, except that a streamed read and a streamed write may run at once.
class Client_IO_Base
{
public:
  struct Options
  {
    // Seconds during which transient failures are retried with back-off; 0
    // means one attempt.
    int max_seconds_retry = 0;
    // Bytes of a streamed write kept in memory so the put can be sent again
    // after a dropped connection; a longer stream fails on its first drop.
    size_t resumption_buffer_size = 0;
    // Time-of-day bandwidth limits, enforced on every transfer of the client.
    std::vector<Rate_Control_Entry> rate_control_entries;
    // How the backup stream compresses what it writes through this client. The
    // client stores bytes as given; the stream reads these to choose its format.
    Compression_Method compression_method = COMPR_NONE;
    size_t dedup_chunk_size = 0;
    // How the backup stream accesses pool storage (2: disk-to-tape staging
    // allowed); sent to backupd as "X-Backupd-Access-Mode".
    int d2t_access_mode = 0;
    // Further name/value pairs; the HTTP client sends each as a request header.
    std::map<std::string, std::string> extra_options;
    // Pools on an S3-compatible store (Client_IO_S3): the region requests are
    // signed for and the pool's access key.
    std::string s3_region;
    S3_Credentials s3_credentials;

    void set_extra_option(const std::string& name, const std::string& value);
    // Null when the option is not set.
    const std::string* extra_option(const std::string& name) const;
  };

  virtual ~Client_IO_Base() = default;

  // Connects to `location` (a URL of the client's scheme). No object is touched.
  virtual bool open(const std::string& location, const Options& options) = 0;

  // Stores `text` under `name`. When `overwrite` is false an existing object is
  // kept and the call fails. Readers never see a partial object.
  virtual bool put_contents(const std::string& name, const std::string& text, bool overwrite) = 0;
  // Reads the whole object `name` into `text` through the streamed read.
  virtual bool get_contents(const std::string& name, std::string& text);

  // Streamed write: open_write, write any number of times, then close_write to
  // publish the object (or abort_write to drop it).
  virtual bool open_write(const std::string& name, bool overwrite) = 0;
  virtual bool write(const void* data, size_t len) = 0;
  virtual bool close_write() = 0;
  virtual void abort_write() = 0;

  // Streamed read from `offset`: read returns the bytes read, 0 at the end of
  // the object, -1 on failure.
  virtual bool open_read(const std::string& name, uint64_t offset) = 0;
  virtual long long read(void* data, size_t len) = 0;
  virtual void close_read() = 0;

  virtual bool size(const std::string& name, uint64_t& size) = 0;
  // Names of the objects that start with `prefix`, sorted.
  virtual bool list(const std::string& prefix, std::vector<std::string>& names) = 0;
  virtual bool remove(const std::string& name) = 0;

  // Bytes stored by the last successful put_contents or close_write.
  uint64_t storage_size() const { return storage_size_; }
  // The last failure: its status and its text (with what was being done).
  const Host_Status& status() const { return status_; }
  const std::string& last_error() const { return last_error_; }

protected:
  // Records a permanent failure described by `text` and returns false.
  bool fail(const std::string& text);
  // Records `status` as the last failure, its text prefixed by `context`, and
  // returns false.
  bool fail(const Host_Status& status, const std::string& context);
  // Checks a name; a refused name fails with a clear error.
  bool check_name(const std::string& name);

  Options options_;
  Rate_Controller limiter_;
  uint64_t storage_size_ = 0;
  Host_Status status_;
  std::string last_error_;
};

#endif
