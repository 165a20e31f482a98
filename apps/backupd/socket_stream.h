#ifndef APPS_BACKUPD_SOCKET_STREAM_H
#define APPS_BACKUPD_SOCKET_STREAM_H

#include <httplib.h>

#include <string>

// One accepted TCP connection as cpp-httplib's Stream, with a read buffer that
// lives as long as the connection, so bytes of a next (pipelined) request read
// ahead with this one are kept for it. Reads and writes wait at most their
// timeouts. The stream does not own the socket. One thread at a time.
class Socket_Stream : public httplib::Stream
{
public:
  Socket_Stream(int sock, time_t read_timeout_sec, time_t write_timeout_sec);

  bool is_readable() const override;
  bool is_writable() const override;
  // Up to `size` bytes; 0 at end of stream, -1 on error or timeout.
  ssize_t read(char* ptr, size_t size) override;
  ssize_t write(const char* ptr, size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  int socket() const override { return sock_; }

  // True when bytes already received wait in the buffer.
  bool has_buffered() const { return begin_ < end_; }
  // Waits up to `timeout_ms` for bytes to read (or the peer's end of stream).
  bool wait_readable(int timeout_ms) const;

private:
  int sock_;
  int read_timeout_ms_;
  int write_timeout_ms_;
  char buffer_[16 * 1024];
  size_t begin_ = 0;
  size_t end_ = 0;
};

#endif
