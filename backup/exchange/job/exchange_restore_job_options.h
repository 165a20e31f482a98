#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_OPTIONS_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_OPTIONS_H

#include "host/job/job_options.h"

#include <string>

// The options of an Exchange restore job, as stored in its job definition:
//   {"relocation": "...", "auto_mount": true, "is_office365": true,
//    "overwrite": false, "channels": 2}
class Exchange_Restore_Job_Options : public Job_Options
{
public:
  Exchange_Restore_Job_Options();

  int generate(yajl_gen g) override;

  const std::string& relocation() const { return relocation_; }
  void relocation(const std::string& r) { relocation_ = r; }
  bool auto_mount() const { return auto_mount_; }
  void auto_mount(bool a) { auto_mount_ = a; }
  bool overwrite() const { return overwrite_; }
  void overwrite(bool o) { overwrite_ = o; }

  int channels_;
  bool is_office365_;

private:
  std::string relocation_;
  bool auto_mount_;
  bool overwrite_;
};

#endif
