#ifndef HOST_JOB_JOB_ACTIVITY_PATH_CONF_H
#define HOST_JOB_JOB_ACTIVITY_PATH_CONF_H

#include <string>

// Names the activity file of a job: <state dir>/activities/<key>.act, the folder
// created on demand. Empty (an in-memory record) when the agent has no state
// folder or the folder cannot be created.
struct Job_Activity_Path_Conf
{
  static std::string path(const std::string& key);
};

#endif
