#ifndef HOST_JOB_JOB_TARGET_H
#define HOST_JOB_JOB_TARGET_H

#include <string>

// Where a job writes to or reads from: a storage pool (`id`, the pool uuid) and
// the device of that pool (`device_id`).
class Job_Target
{
public:
  const std::string& id() const { return id_; }
  void id(const std::string& v) { id_ = v; }
  const std::string& device_id() const { return device_id_; }
  void device_id(const std::string& v) { device_id_ = v; }

private:
  std::string id_;
  std::string device_id_;
};

#endif
