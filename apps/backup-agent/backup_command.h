#ifndef APPS_BACKUP_AGENT_BACKUP_COMMAND_H
#define APPS_BACKUP_AGENT_BACKUP_COMMAND_H

#include "apps/backup-agent/module_host.h"
#include "host/job/job.h"

#include <nlohmann/json.hpp>

#include <ostream>
#include <string>
#include <vector>

class Backup_Progress;

// `backup --tenant UUID (--mailbox ADDRESS... | --all-mailboxes) --pool UUID
// [--channels N] [--compression none|zstd] [--json]`: builds a backup job
// definition of those mailboxes (with --all-mailboxes, every mailbox the
// tenant's Graph users listing names), reads it through the module's parsers
// and runs it through the module's job creator, as `run-job` runs a file. On a
// terminal a live progress line is rewritten in place (Backup_Progress);
// otherwise one line per mailbox as it ends. Then a summary
// of the set: its uuid, mailboxes, folders, items, bytes stored, duration, and
// every failed mailbox and failed item (from the set's record and its mailbox
// indexes); with --json the summary is one JSON object on standard output.
// Exit status 0 when everything was backed up, 2 when the set was written with
// failed mailboxes or items, 1 when the backup failed, 130 when Ctrl-C (or
// SIGTERM) cancelled it (no record is posted then), 64 for a bad invocation.
class Backup_Command
{
public:
  explicit Backup_Command(Module_Host& module) : module_(module) {}

  int run(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

  static const char* usage();

  struct Request
  {
    std::string tenant;
    std::vector<std::string> mailboxes;
    std::string pool;
    int channels = 4;
    std::string compression = "zstd";
    bool json = false;
    bool help = false;
    bool all_mailboxes = false;
  };
  // False with `error` for an invalid invocation.
  static bool parse(const std::vector<std::string>& args, Request& request, std::string& error);
  // The job definition text of a request; the job id is "backup-<tenant>", so
  // that the sets of one tenant are numbered one after the other.
  static std::string definition(const Request& request, const std::string& host_id);

  // The pieces of a run, shared with the agent's JSON-RPC methods, which run
  // backups in the background:
  // With --all-mailboxes, fills the request's mailboxes from the tenant's Graph
  // users listing; false with `error` when the tenant is not registered, the
  // listing fails or names no mailbox.
  static bool list_all_mailboxes(Request& request, std::string& error);
  // The backup job of `request`, read through the module's parsers and made by
  // its job creator, not started; null with `error` when either refuses.
  Job_var make_job(const Request& request, std::string& error);
  // The --json summary of a finished, successful backup job: the set's record
  // (the newest of the job's definition id) and its mailbox indexes, read back.
  // False when they cannot be read.
  static bool summarize(const Request& request, const Job& job, const Backup_Progress& progress, long seconds,
                        nlohmann::ordered_json& summary);
  // True when a summary names no failed mailbox and no failed item.
  static bool complete(const nlohmann::ordered_json& summary);

private:
  int wait(Job& job, Backup_Progress& progress, std::ostream& err);

  Module_Host& module_;
};

#endif
