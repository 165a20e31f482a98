#ifndef HOST_STORAGE_CLIENT_IO_S3_H
#define HOST_STORAGE_CLIENT_IO_S3_H

#include <string>
#include <vector>

#include "host/http/http_session.h"
#include "host/storage/client_io_base.h"
#include "host/storage/s3_location.h"

// A storage client on a pool kept in a bucket of an S3-compatible object store
// (location "s3+https://endpoint/bucket/prefix", see S3_Location), over the host's
// HTTP sessions. Requests are signed with AWS Signature Version 4 for the
// options' `s3_region` with the options' `s3_credentials`; the store is addressed
// path-style.
//
// Writes: put_contents is one PUT. A streamed write gathers its bytes into parts
// (see part_size_of) in memory; the first full part starts a multipart upload,
// each part is sent by the calling thread as it fills, and close_write sends the
// last part and completes the upload with the parts' ETags (a stream shorter than
// one part is a single PUT). A failed part is sent again on its own, not the whole
// stream. abort_write (or a write that fails for good) aborts the multipart
// upload: the object appears only once its upload completed, never in part.
// `overwrite` false is checked with HEAD before writing and sent as
// "If-None-Match: *" where the store supports it.
//
// Reads: size by HEAD; a streamed read fetches ranged GETs ("Range: bytes=a-b"),
// starting with the size asked for and doubling up to part_size while the reader
// goes on, so that reading one item costs about that item's bytes. Listing is
// ListObjectsV2 over the location's prefix, page by page.
//
// Transient failures (connection refused or dropped, time-outs, 500, 503,
// "SlowDown", "InternalError", a 200 answer carrying an <Error>) are retried for
// `max_seconds_retry`, after the store's Retry-After wait when it gave one. The
// calling thread, the streamed write and the streamed read each have a session.
// Error texts name objects and S3 error codes, never the access key.
class Client_IO_S3 : public Client_IO_Base
{
public:
  // The first thousand parts of a streamed write are part_size bytes; each further
  // thousand doubles, up to max_part_size, so that an object of about 760 GB
  // fits the stores' limit of 10,000 parts while a stream holds at most one part
  // in memory (8 MiB for any object below 7.8 GiB).
  static constexpr size_t part_size = 8 * 1024 * 1024;
  static constexpr size_t max_part_size = 128 * 1024 * 1024;
  static size_t part_size_of(size_t part_number);

  ~Client_IO_S3() override;

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
  bool ready(const std::string& name);
  // One signed exchange; the answer classified (S3_Answer::status).
  Host_Status attempt(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response) const;
  // Retries `request` as the options say; a failure is recorded with `context`.
  bool exchange(HTTP_Session& session, HTTP_Request& request, HTTP_Response& response, const std::string& context);
  // A request for `path` with `query` (already sorted and encoded) and `body`
  // (a PUT's body is streamed by the caller instead), signed.
  HTTP_Request make_request(int method, const std::string& path, const std::string& query,
                            const std::string& body = std::string()) const;
  // HEAD of `key`: true with `found` and `size` when the store answered.
  bool head(HTTP_Session& session, const std::string& key, bool& found, uint64_t& size, const std::string& context);
  // Fails when `overwrite` is false and `key` exists.
  bool check_absent(HTTP_Session& session, const std::string& key, bool overwrite, const std::string& name);
  bool put_object(HTTP_Session& session, const std::string& key, const char* data, size_t len, bool overwrite,
                  const std::string& context);

  bool start_upload();
  bool upload_part();
  bool complete_upload();
  void abort_upload();
  // Drops the streamed write after a failure, aborting its upload; the failure
  // stays the one reported. Returns false.
  bool abandon_write();

  bool fetch_window(size_t wanted);

  S3_Location location_;
  std::string provider_;
  HTTP_Session_Ptr session_;
  HTTP_Session_Ptr write_session_;
  HTTP_Session_Ptr read_session_;

  // Streamed write.
  bool writing_ = false;
  std::string write_name_;
  std::string write_key_;
  bool write_overwrite_ = true;
  std::string part_;  // bytes of the part being filled
  std::string upload_id_;
  std::vector<std::string> etags_;
  uint64_t write_total_ = 0;

  // Streamed read.
  bool reading_ = false;
  std::string read_name_;
  std::string read_key_;
  uint64_t read_size_ = 0;
  uint64_t read_position_ = 0;  // object offset of window_'s first byte
  std::string window_;
  size_t window_offset_ = 0;
  size_t window_size_ = 0;
};

#endif
