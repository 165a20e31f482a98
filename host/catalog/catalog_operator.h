#ifndef HOST_CATALOG_CATALOG_OPERATOR_H
#define HOST_CATALOG_CATALOG_OPERATOR_H

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "host/base/host_status.h"
#include "host/catalog/exchange_backup_set.h"

// Commits backup-set records to this agent's backup server
// (POST /d2/r/v2/sets/restore/sets). A commit is atomic and idempotent by the
// record's uuid: sending the same record again (after a lost answer) succeeds
// without a second record; a different record under a used uuid is refused.
// Transient failures are retried with back-off for `max_seconds_retry` (after
// backupd's Retry-After wait when it gave one). A failed commit is logged here,
// with the record's uuid; callers need not log it again.
class Catalog_Operator
{
public:
  // `timeout_seconds` bounds one attempt (-1: 60 s).
  Catalog_Operator(int timeout_seconds, int max_seconds_retry);

  // False, logged, when the record cannot be committed.
  bool commit(const Exchange_Backup_Set& record);
  bool commit(const nlohmann::ordered_json& record);

  // True when the last successful commit stored a new record (false: it was
  // there already).
  bool created() const { return created_; }
  // The last failure, classified; error() is its text.
  const Host_Status& status() const { return status_; }
  const std::string& error() const { return error_; }

private:
  int timeout_seconds_;
  int max_seconds_retry_;
  bool created_ = false;
  Host_Status status_;
  std::string error_;
};

#endif
