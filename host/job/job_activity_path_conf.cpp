#include "host/job/job_activity_path_conf.h"

#include "host/base/agent_config.h"
#include "host/base/state_dir.h"

std::string Job_Activity_Path_Conf::path(const std::string& key)
{
  const std::string dir = state_subdir("activities");
  if (dir.empty() || key.empty())
    return std::string();
  return dir + "/" + key + ".act";
}
