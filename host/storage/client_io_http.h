#ifndef HOST_STORAGE_CLIENT_IO_HTTP_H
#define HOST_STORAGE_CLIENT_IO_HTTP_H

#include <memory>
#include <mutex>
#include <thread>

#include "host/storage/byte_pipe.h"
#include "host/storage/client_io_base.h"

// A storage client on a pool served by backupd ("http://host:port/d2/storage/<pool
// uuid>", or https). Every request carries the options' extra options as headers
// (the access key among them, see set_access_key_to_options) and the access mode.
// Plain http is refused for hosts other than loopback unless Host_Manager allows
// it; https certificates are always verified.
//
// Transient failures (connection refused or dropped, HTTP 408, 429, 5xx) are
// retried with back-off for `max_seconds_retry`. A streamed write runs its PUT on
// a worker thread fed through a bounded pipe; it can be sent again after a
// failure only while the whole stream so far fits `resumption_buffer_size`. A
// streamed read runs its GET on a worker thread and resumes with a range request
// after a dropped connection.
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

  struct Response
  {
    long status = 0;
    int curl_code = 0;
    std::string body;
    std::string curl_error;
    uint64_t content_length = 0;
  };

private:
  struct Request;

  std::string object_url(const std::string& name) const;
  void* make_headers(bool no_overwrite, uint64_t range_from) const;
  void perform(Request& request, Response& response);
  bool request_with_retry(Request& request, Response& response);
  std::string describe(const Response& response) const;
  void run_upload();
  void run_download();

  static size_t upload_read(char* buf, size_t size, size_t n, void* self);
  static size_t download_write(char* buf, size_t size, size_t n, void* self);

  std::string base_url_;

  // Streamed write; the callback state is touched by the worker thread only.
  std::unique_ptr<Byte_Pipe> write_pipe_;
  std::thread write_thread_;
  std::string write_url_;
  bool write_overwrite_ = true;
  std::mutex write_lock_;
  bool write_ok_ = false;
  std::string write_error_;
  uint64_t write_total_ = 0;
  std::string replay_;
  bool keep_replay_ = false;
  std::string current_;
  size_t current_offset_ = 0;

  // Streamed read.
  std::unique_ptr<Byte_Pipe> read_pipe_;
  std::thread read_thread_;
  std::string read_url_;
  uint64_t read_position_ = 0;  // next byte the worker asks for
  std::mutex read_lock_;
  std::string read_error_;
};

#endif
