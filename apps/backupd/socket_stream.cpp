#include "apps/backupd/socket_stream.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

static int to_ms(time_t sec) { return sec > 2000000 ? 2000000000 : static_cast<int>(sec * 1000); }

static bool wait_for(int sock, short events, int timeout_ms)
{
  pollfd p{sock, events, 0};
  int rc;
  while ((rc = ::poll(&p, 1, timeout_ms)) < 0 && errno == EINTR)
  {
  }
  return rc > 0;
}

// The numeric address and port of a socket address.
static void describe(const sockaddr_storage& addr, socklen_t len, std::string& ip, int& port)
{
  char host[NI_MAXHOST];
  char serv[NI_MAXSERV];
  if (getnameinfo(reinterpret_cast<const sockaddr*>(&addr), len, host, sizeof host, serv, sizeof serv,
                  NI_NUMERICHOST | NI_NUMERICSERV) == 0)
  {
    ip = host;
    port = atoi(serv);
  }
}

Socket_Stream::Socket_Stream(int sock, time_t read_timeout_sec, time_t write_timeout_sec)
  : sock_(sock), read_timeout_ms_(to_ms(read_timeout_sec)), write_timeout_ms_(to_ms(write_timeout_sec))
{
}

bool Socket_Stream::wait_readable(int timeout_ms) const
{
  return has_buffered() || wait_for(sock_, POLLIN, timeout_ms);
}

bool Socket_Stream::is_readable() const { return wait_readable(read_timeout_ms_); }

bool Socket_Stream::is_writable() const { return wait_for(sock_, POLLOUT, write_timeout_ms_); }

ssize_t Socket_Stream::read(char* ptr, size_t size)
{
  if (!has_buffered())
  {
    if (!wait_for(sock_, POLLIN, read_timeout_ms_))
      return -1;
    // Large reads (request bodies) go straight to the caller; the request line and
    // headers are read a byte at a time and are served from the buffer.
    bool direct = size >= sizeof buffer_;
    ssize_t n;
    while ((n = ::recv(sock_, direct ? ptr : buffer_, direct ? size : sizeof buffer_, 0)) < 0 && errno == EINTR)
    {
    }
    if (n <= 0 || direct)
      return n;
    begin_ = 0;
    end_ = static_cast<size_t>(n);
  }
  size_t n = std::min(size, end_ - begin_);
  memcpy(ptr, buffer_ + begin_, n);
  begin_ += n;
  return static_cast<ssize_t>(n);
}

ssize_t Socket_Stream::write(const char* ptr, size_t size)
{
  size_t done = 0;
  while (done < size)
  {
    if (!is_writable())
      return -1;
    ssize_t n = ::send(sock_, ptr + done, size - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0)
      return -1;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

void Socket_Stream::get_remote_ip_and_port(std::string& ip, int& port) const
{
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (getpeername(sock_, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    describe(addr, len, ip, port);
}

void Socket_Stream::get_local_ip_and_port(std::string& ip, int& port) const
{
  sockaddr_storage addr{};
  socklen_t len = sizeof addr;
  if (getsockname(sock_, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
    describe(addr, len, ip, port);
}
