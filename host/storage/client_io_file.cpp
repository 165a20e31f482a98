#include "host/storage/client_io_file.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

// Transfers go through the limiter in pieces of this size, so that a change of
// time-of-day window applies within a large object.
static const size_t FILE_PIECE = 64 * 1024;

Client_IO_File::~Client_IO_File() { close_read(); }

bool Client_IO_File::fail_errno(const std::string& what, const std::string& name, int err)
{
  return fail(what + " '" + name + "': " + strerror(err));
}

bool Client_IO_File::open(const std::string& location, const Options& options)
{
  static const std::string scheme = "file://";
  if (location.compare(0, scheme.size(), scheme) != 0 || location.size() <= scheme.size() ||
      location[scheme.size()] != '/')
    return fail("not a file:/// location: " + location);
  options_ = options;
  limiter_.set_entries(options.rate_control_entries);
  dir_.reset(new Object_Directory(location.substr(scheme.size())));
  int rc = dir_->create();
  if (rc != 0)
    return fail_errno("cannot create pool directory", dir_->root(), rc);
  return true;
}

bool Client_IO_File::put_contents(const std::string& name, const std::string& text, bool overwrite)
{
  if (!open_write(name, overwrite))
    return false;
  if (!write(text.data(), text.size()))
  {
    abort_write();
    return false;
  }
  return close_write();
}

bool Client_IO_File::open_write(const std::string& name, bool overwrite)
{
  if (!dir_)
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  int rc = dir_->begin_write(name, writer_);
  if (rc != 0)
    return fail_errno("cannot write", name, rc);
  overwrite_ = overwrite;
  return true;
}

bool Client_IO_File::write(const void* data, size_t len)
{
  if (!writer_.is_open())
    return fail("no object is open for writing");
  const char* p = static_cast<const char*>(data);
  while (len > 0)
  {
    size_t piece = len < FILE_PIECE ? len : FILE_PIECE;
    limiter_.throttle(piece);
    int rc = writer_.write(p, piece);
    if (rc != 0)
      return fail(std::string("write failed: ") + strerror(rc));
    p += piece;
    len -= piece;
  }
  return true;
}

bool Client_IO_File::close_write()
{
  uint64_t bytes = writer_.bytes_written();
  int rc = writer_.commit(overwrite_);
  if (rc == EEXIST)
    return fail("object exists and overwrite is off");
  if (rc != 0)
    return fail(std::string("cannot publish object: ") + strerror(rc));
  storage_size_ = bytes;
  return true;
}

void Client_IO_File::abort_write() { writer_.abort(); }

bool Client_IO_File::open_read(const std::string& name, uint64_t offset)
{
  close_read();
  if (!dir_)
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  uint64_t size = 0;
  int rc = dir_->open_read(name, read_fd_, size);
  if (rc != 0)
    return fail_errno("cannot read", name, rc);
  if (offset > size || ::lseek(read_fd_, static_cast<off_t>(offset), SEEK_SET) < 0)
  {
    close_read();
    return fail("offset beyond the end of '" + name + "'");
  }
  return true;
}

long long Client_IO_File::read(void* data, size_t len)
{
  if (read_fd_ < 0)
  {
    fail("no object is open for reading");
    return -1;
  }
  size_t want = len < FILE_PIECE ? len : FILE_PIECE;
  for (;;)
  {
    ssize_t n = ::read(read_fd_, data, want);
    if (n < 0 && errno == EINTR)
      continue;
    if (n < 0)
    {
      fail(std::string("read failed: ") + strerror(errno));
      return -1;
    }
    limiter_.throttle(static_cast<size_t>(n));
    return n;
  }
}

void Client_IO_File::close_read()
{
  if (read_fd_ >= 0)
    ::close(read_fd_);
  read_fd_ = -1;
}

bool Client_IO_File::size(const std::string& name, uint64_t& size)
{
  if (!dir_)
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  int rc = dir_->size(name, size);
  return rc == 0 ? true : fail_errno("cannot stat", name, rc);
}

bool Client_IO_File::list(const std::string& prefix, std::vector<std::string>& names)
{
  names.clear();
  if (!dir_)
    return fail("storage client is not open");
  std::vector<std::pair<std::string, uint64_t>> objects;
  int rc = dir_->list(prefix, objects);
  if (rc != 0)
    return fail_errno("cannot list", prefix, rc);
  for (auto& o : objects)
    names.push_back(o.first);
  return true;
}

bool Client_IO_File::remove(const std::string& name)
{
  if (!dir_)
    return fail("storage client is not open");
  if (!check_name(name))
    return false;
  int rc = dir_->remove(name);
  return rc == 0 ? true : fail_errno("cannot remove", name, rc);
}
