#include "apps/backup-agent/registry_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

Registry_Lock::Registry_Lock(const std::string& registry_path) : path_(registry_path + ".lock") {}

Registry_Lock::~Registry_Lock()
{
  if (fd_ >= 0)
    ::close(fd_);  // releases the lock
}

bool Registry_Lock::acquire(std::string& error)
{
  if (fd_ < 0)
    fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0)
  {
    error = "cannot open the lock file " + path_ + ": " + std::strerror(errno);
    return false;
  }
  while (::flock(fd_, LOCK_EX) != 0)
    if (errno != EINTR)
    {
      error = "cannot lock " + path_ + ": " + std::strerror(errno);
      return false;
    }
  return true;
}
