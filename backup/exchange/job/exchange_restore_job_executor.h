#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_EXECUTOR_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_EXECUTOR_H

#include "backup/exchange/job/exchange_restore_job_options.h"
#include "backup/exchange/job/exchange_restore_job_source.h"
#include "backup/job/job_executor_t.h"
#include "host/job/job_event_handler.h"
#include "host/storage/pool_info.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

// What a restore run takes from its job definition: the source and target
// instance and mailbox, and where and how the items go.
struct Exchange_Restore_Input
{
  std::string source_instance;
  std::string source_mailbox;
  std::string target_instance;
  std::string target_mailbox;
  std::string relocation;
  bool auto_mount = true;
  bool overwrite = false;
  Pool_Info pool_info;   // the pool that holds the set
  std::string location;  // the set's storage location: pool URL and the record's "uri"
};

// Runs one Exchange restore job: reads the backup set's catalog record, checks
// that the set was made with EWS, loads the source mailbox's index, creates the
// target folder and drives the restore stream, whose callbacks re-create the
// selected folders and upload the items into the target mailbox. One executor
// per run, on the job thread.
class Exchange_Restore_Job_Executor
  : public Job_Executor_T<Exchange_Restore_Job_Source, Exchange_Restore_Job_Options, Job_Event_Handler>
{
public:
  explicit Exchange_Restore_Job_Executor(Job& job);

  bool execute_i(const Action_Options* opts) override;

  // Splits the source's "original" and "restore_as" entries and copies the
  // options into `input`.
  void make_restore_input(Exchange_Restore_Input& input) const;

  // Reads the record of set `catalog_id` of resource `id` from the catalog into
  // the backup_* fields and the pool and location of `input`. False (logged,
  // `error` saying why) when the answer is not a usable record of one set.
  bool get_backupset_info(const std::string& id, const std::string& catalog_id, Exchange_Restore_Input& input,
                          std::string& error);

  const std::string& backup_method() const { return backup_method_; }
  const std::string& backup_transport() const { return backup_transport_; }
  const std::string& pool_uuid() const { return pool_uuid_; }
  const std::string& uri() const { return uri_; }
  const std::string& backup_host_id() const { return backup_host_id_; }
  int backup_rev() const { return backup_rev_; }
  const std::string& backup_agent() const { return backup_agent_; }
  int backup_channels() const { return backup_channels_; }
  const std::string& backup_minor_resource_id() const { return backup_minor_resource_id_; }

  // What the last run restored.
  uint64_t files_restored() const { return files_restored_; }
  uint64_t files_failed() const { return files_failed_; }

private:
  bool ews_restore(const Exchange_Restore_Input& input);
  bool read_record(const nlohmann::ordered_json& record, std::string& error);

  std::string backup_method_;
  std::string backup_transport_;  // the record's "transport"; "ews" when it has none
  std::string pool_uuid_;
  std::string uri_;
  std::string backup_host_id_;
  int backup_rev_ = 0;
  std::string backup_agent_;
  int backup_channels_ = 0;
  std::string backup_minor_resource_id_;
  uint64_t files_restored_ = 0;
  uint64_t files_failed_ = 0;
};

#endif
