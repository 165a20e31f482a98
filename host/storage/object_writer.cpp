#include "host/storage/object_writer.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

Object_Writer::~Object_Writer() { abort(); }

void Object_Writer::start(int fd, const std::string& temp_path, const std::string& final_path)
{
  abort();
  fd_ = fd;
  temp_path_ = temp_path;
  final_path_ = final_path;
  bytes_ = 0;
}

int Object_Writer::write(const void* data, size_t len)
{
  if (fd_ < 0)
    return EBADF;
  const char* p = static_cast<const char*>(data);
  while (len > 0)
  {
    ssize_t n = ::write(fd_, p, len);
    if (n < 0)
    {
      if (errno == EINTR)
        continue;
      return errno;
    }
    p += n;
    len -= static_cast<size_t>(n);
    bytes_ += static_cast<uint64_t>(n);
  }
  return 0;
}

static int fsync_directory_of(const std::string& path)
{
  std::string dir = path.substr(0, path.rfind('/'));
  int fd = ::open(dir.empty() ? "/" : dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0)
    return errno;
  int rc = ::fsync(fd) == 0 ? 0 : errno;
  ::close(fd);
  return rc;
}

int Object_Writer::commit(bool overwrite)
{
  if (fd_ < 0)
    return EBADF;
  int rc = ::fsync(fd_) == 0 ? 0 : errno;
  if (::close(fd_) != 0 && rc == 0)
    rc = errno;
  fd_ = -1;
  if (rc == 0)
  {
    // Without overwrite, link() refuses an existing name atomically, where a
    // check followed by rename() would race with another writer.
    if (overwrite)
      rc = ::rename(temp_path_.c_str(), final_path_.c_str()) == 0 ? 0 : errno;
    else
      rc = ::link(temp_path_.c_str(), final_path_.c_str()) == 0 ? 0 : errno;
  }
  if (rc != 0 || !overwrite)
    ::unlink(temp_path_.c_str());
  if (rc == 0)
    rc = fsync_directory_of(final_path_);
  temp_path_.clear();
  return rc;
}

void Object_Writer::abort()
{
  if (fd_ >= 0)
  {
    ::close(fd_);
    fd_ = -1;
  }
  if (!temp_path_.empty())
  {
    ::unlink(temp_path_.c_str());
    temp_path_.clear();
  }
}
