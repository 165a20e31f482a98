#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_OPTIONS_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_OPTIONS_H

#include "backup/exchange/core/ews/exchange_common.h"
#include "host/base/compression.h"
#include "host/job/job_options.h"

#include <string>

// The options of an Exchange backup job, as stored in its job definition:
//   {"method": "ews", "truncate": true, "compression": "zstd",
//    "compression_level": 3, "check_consistency": false, "vss_provider": "",
//    "is_office365": true, "channels": 4}
// The backup executor reads the plain fields directly.
class Exchange_Backup_Job_Options : public Job_Options
{
public:
  Exchange_Backup_Job_Options();

  int generate(yajl_gen g) override;

  Exchange_Backup_Method method() const { return method_; }
  void method(Exchange_Backup_Method m) { method_ = m; }
  bool truncate() const { return truncate_; }
  void truncate(bool t) { truncate_ = t; }
  Compression_Method compression() const { return compression_; }
  void compression(Compression_Method c) { compression_ = c; }

  bool check_consisctency_;  // spelled so on purpose; the JSON key is "check_consistency"
  bool is_office365_;
  int channels_;
  std::string vss_provider_;
  int compression_level_;

private:
  Exchange_Backup_Method method_;
  bool truncate_;
  Compression_Method compression_;
};

#endif
