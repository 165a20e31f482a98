#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_EXECUTOR_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_EXECUTOR_H

#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/job/exchange_backup_input.h"
#include "backup/exchange/job/exchange_backup_job_options.h"
#include "backup/job/job_executor_t.h"
#include "host/job/default_backup_job_source.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/job/job_event_handler.h"

#include <nlohmann/json_fwd.hpp>

#include <map>
#include <string>
#include <vector>

// Instance name -> mailbox -> folder paths selected inside it (empty for the
// whole mailbox).
typedef std::map<std::string, std::map<std::string, std::vector<std::string>>> Instance_Backup_Entries;

class MTF_Backup;

// Runs one Exchange backup job: takes the job source's lock, resets the
// activity, reads the mailboxes to back up from the source entries and runs the
// backup of the method the options name. The EWS backup numbers the new set from
// the catalog's newest set of this job, streams every mailbox into the set
// through the EWS engine, fills the activity's sizes, commits the set's catalog
// record and raises alerts for failed mailboxes. One executor per run, on the
// job thread.
class Exchange_Backup_Job_Executor
  : public Job_Executor_T<Default_Backup_Job_Source, Exchange_Backup_Job_Options, Job_Event_Handler>
{
public:
  explicit Exchange_Backup_Job_Executor(Job& job);

  bool execute_i(const Action_Options* opts) override;

  const Instance_Backup_Entries& entries() const { return entries_; }

  // Sets last_rev_ from the newest catalog record of this job (0 when none).
  // False (logged; alert 44 when the catalog cannot be read) on failure.
  bool get_last_instance_info();
  // Full or incremental backup of input.instance/input.database, from the newest
  // record of that instance and database.
  bool retrieve_incarnation_info(Exchange_Backup_Input& input);
  // The newest catalog record of an instance and database; `row` stays empty
  // when there is none.
  bool load_catalog(const std::string& source_id, const std::string& instance, const std::string& database,
                    nlohmann::ordered_json& row, int max_seconds_retry);
  // The catalog record of the set just written.
  bool make_ews_backup_set(const std::vector<std::string>& index_files, const Mailboxes& failed_mailboxes,
                           const MTF_Backup& stream, Exchange_Backup_Set& record);
  int last_rev() const { return last_rev_; }

private:
  bool parse_entries();
  void reset_activity();
  bool ews_backup();
  bool run_stream(EWS_Backup_Context& ctx, MTF_Backup& stream, size_t mailbox_count);
  bool post_catalog(EWS_Backup_Context& ctx, MTF_Backup& stream);

  int64_t start_time_ = 0;

  int last_rev_;
  std::string backup_uri_;
  std::string transport_ = "ews";  // the registration's EWS client transport
  Instance_Backup_Entries entries_;
};

#endif
