#ifndef HOST_STORAGE_CLIENT_IO_HTTP_H
#define HOST_STORAGE_CLIENT_IO_HTTP_H

#include <memory>
#include <mutex>
#include <thread>

#include "host/http/http_session.h"
#include "host/http/uri.h"
#include "host/storage/byte_pipe.h"
#include "host/storage/client_io_base.h"

// A storage client on a pool served by backupd ("http://host:port/d2/storage/<pool
// uuid>", or https), over the host's HTTP sessions. Every request carries the
// options' extra options as headers (the access key among them, see
// set_access_key_to_options) and the access mode. Plain http is refused for hosts
// other than loopback unless Host_Manager allows it; https certificates are
// always verified.
//
// Transient failures (connection refused or dropped, HTTP 408, 429, 5xx) are
// retried for `max_seconds_retry`, after the server's Retry-After wait when it
// gave one. A streamed write runs its PUT on a worker thread fed through a
// bounded pipe; it can be sent again after a failure only while the whole stream
// so far fits `resumption_buffer_size`. A streamed read runs its GET on a worker
// thread and resumes with a range request after a dropped connection. The
// calling thread, the write worker and the read worker each have a session.
class Client_IO_Http : public Client_IO_Base
{
public:
  ~Client_IO_Http() override;

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
  // The client is open and `name` a valid object name; otherwise fails.
  bool ready(const std::string& name);
  std::string object_path(const std::string& name) const;
  // The pool's own path ("/d2/storage/<pool>") and, decoded, the part of the location
  // below it ("host/job/", or empty): listings are answered for whole pools.
  std::string pool_root_path() const;
  std::string pool_sub_path() const;
  void add_headers(HTTP_Request& request, bool no_overwrite, uint64_t range_from) const;
  Host_Status attempt(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response) const;
  // Sends a request that is not a stream, retrying as the options say; a failure
  // is recorded with `context` and returns false.
  bool exchange(int method, const std::string& path, const std::string& query, HTTP_Response& response,
                const std::string& context);
  Host_Status upload_attempt(HTTP_Request& request, HTTP_Response& response, int attempt);
  size_t upload_next(char* buffer, size_t size);
  bool download_sink(const char* data, size_t len, long status, uint64_t range_from);
  void run_upload();
  void run_download();

  std::string base_path_;
  HTTP_Session_Ptr session_;        // requests of the calling thread
  HTTP_Session_Ptr write_session_;  // the streamed write's worker
  HTTP_Session_Ptr read_session_;   // the streamed read's worker

  // Streamed write; the body state is touched by the worker thread only.
  std::unique_ptr<Byte_Pipe> write_pipe_;
  std::thread write_thread_;
  std::string write_path_;
  bool write_overwrite_ = true;
  std::mutex write_lock_;
  Host_Status write_status_;
  uint64_t write_total_ = 0;
  std::string replay_;
  bool keep_replay_ = false;
  std::string current_;
  size_t current_offset_ = 0;

  // Streamed read.
  std::unique_ptr<Byte_Pipe> read_pipe_;
  std::thread read_thread_;
  std::string read_path_;
  uint64_t read_position_ = 0;  // next byte the worker asks for
  bool range_ignored_ = false;
  std::mutex read_lock_;
  Host_Status read_status_;
};

#endif
