#ifndef APPS_BACKUP_AGENT_RESTORE_COMMAND_H
#define APPS_BACKUP_AGENT_RESTORE_COMMAND_H

#include "apps/backup-agent/module_host.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/ews/ews_folder.h"
#include "host/job/job.h"

#include <nlohmann/json.hpp>

#include <cstdint>

#include <ostream>
#include <string>
#include <vector>

// `restore --set UUID --from ADDRESS --to ADDRESS (--path "Inbox/Projects" |
// --item ID ...) [--relocation FOLDER] [--json]`: finds the set's record and the
// source mailbox's index, turns each path (display names from the mailbox root,
// joined by "/") and item id into an entry of a restore job definition
// (docs/job-definition.md) and runs it through the module's job creator, as
// `run-job` runs a file. Shows progress, then the folders and items selected,
// the items and bytes restored and the failures the job reports. Exit status 0 when everything was restored, 2 when
// some items failed, 1 when the restore failed, 130 when Ctrl-C cancelled it,
// 64 for a bad invocation.
class Restore_Command
{
public:
  explicit Restore_Command(Module_Host& module) : module_(module) {}

  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

  static const char* usage();

  struct Request
  {
    std::string set;
    std::string from;
    std::string to;
    std::vector<std::string> paths;
    std::vector<std::string> items;
    std::string relocation;
    bool json = false;
    bool help = false;
  };
  static bool parse(const std::vector<std::string>& args, Request& request, std::string& error);

  // The selection entry of a folder path or of an item id of `tree`; false with
  // `error` when the tree has no such folder or item.
  // With `selected`, the folders and items the entry stands for are added to it.
  struct Selection_Size
  {
    uint64_t folders = 0;
    uint64_t items = 0;
  };
  static bool path_entry(const EWS_Folders& tree, const std::string& path, std::string& entry, std::string& error,
                         Selection_Size* selected = nullptr);
  // An item's entry stands for every item of its folder that has its name.
  static bool item_entry(const EWS_Folders& tree, const std::string& id, std::string& entry, std::string& error,
                         Selection_Size* selected = nullptr);

  // What a restore job did: items and bytes restored, the job's account of the
  // items it could not restore (empty when none failed), and its log file,
  // where each failure's reason stands.
  struct Outcome
  {
    uint64_t items = 0;
    uint64_t bytes = 0;
    std::string failures;
    std::string log_path;
  };

  // Runs a restore job of set `record`: the selection entries `storages` of
  // mailbox `from` into mailbox `to`, under `relocation` when not empty; shows
  // the job's progress on `err` and stops the job on Ctrl-C. 0 when the job
  // succeeded (`outcome.failures` then names the items it could not restore, if
  // any), 1 when it failed, 130 when cancelled.
  int restore(const Exchange_Backup_Set& record, const std::string& from, const std::string& to,
              const std::string& relocation, const nlohmann::ordered_json& storages, std::ostream& err,
              Outcome& outcome);

  // The pieces of a run, shared with the agent's JSON-RPC methods, which run
  // restores in the background:
  // Reads the record of the request's set and its source mailbox's index and
  // turns the request's paths and items into selection entries (`storages`),
  // adding what they stand for to `selected`; false with `error` when the set,
  // the mailbox, a folder or an item is not found.
  static bool select(const Request& request, Exchange_Backup_Set& record, nlohmann::ordered_json& storages,
                     Selection_Size& selected, std::string& error);
  // The restore job of those entries, read through the module's parsers and
  // made by its job creator, not started; null with `error` when either refuses.
  Job_var make_job(const Exchange_Backup_Set& record, const std::string& from, const std::string& to,
                   const std::string& relocation, const nlohmann::ordered_json& storages, std::string& error);
  // What a finished restore job did, from its activity record.
  static void take_outcome(const Job& job, Outcome& outcome);
  // The --json summary of a restore that succeeded.
  static nlohmann::ordered_json summary(const Request& request, const Exchange_Backup_Set& record,
                                        const Selection_Size& selected, const Outcome& outcome, long seconds);

private:
  static void print_summary(const Request& request, const Exchange_Backup_Set& record, const Selection_Size& selected,
                            const Outcome& outcome, long seconds, std::ostream& out);

  Module_Host& module_;
};

#endif
