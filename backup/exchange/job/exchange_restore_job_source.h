#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_SOURCE_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_SOURCE_H

#include "host/job/job_source.h"

#include <string>
#include <vector>

// The source of an Exchange restore job: which backup set to restore from, what
// to restore and where to, as stored in its job definition:
//   {"id": "...", "name": "...", "catalog_id": "...", "original": "...",
//    "restore_as": "...", "storages": ["...", ...]}
class Exchange_Restore_Job_Source : public Job_Source
{
public:
  typedef std::vector<std::string> Storages;

  int generate(yajl_gen g) override;

  const std::string& catalog_id() const { return catalog_id_; }
  void catalog_id(const std::string& v) { catalog_id_ = v; }
  const std::string& original() const { return original_; }
  void original(const std::string& v) { original_ = v; }
  const std::string& restore_as() const { return restore_as_; }
  void restore_as(const std::string& v) { restore_as_ = v; }
  const Storages& storages() const { return storages_; }
  Storages& storages() { return storages_; }

private:
  std::string catalog_id_;  // the backup set in the catalog
  std::string original_;    // what is restored, as named in the backup set
  std::string restore_as_;  // where it is restored to
  Storages storages_;       // the storages that hold the set
};

#endif
