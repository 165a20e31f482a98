#include "host/base/state_dir.h"

#include "host/base/agent_config.h"

#include <cerrno>
#include <sys/stat.h>

bool make_dirs(const std::string& dir, unsigned int mode)
{
  if (dir.empty())
    return false;
  for (size_t pos = dir.find('/', 1);; pos = dir.find('/', pos + 1))
  {
    const std::string part = dir.substr(0, pos);
    if (::mkdir(part.c_str(), mode) != 0 && errno != EEXIST)
      return false;
    if (pos == std::string::npos)
      break;
  }
  struct stat st;
  return ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string state_subdir(const std::string& name)
{
  const std::string root = Agent_Config::instance().state_dir();
  if (root.empty())
    return std::string();
  const std::string dir = root + "/" + name;
  return make_dirs(dir, 0700) ? dir : std::string();
}
