#ifndef APPS_BACKUP_AGENT_BACKUP_PROGRESS_H
#define APPS_BACKUP_AGENT_BACKUP_PROGRESS_H

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

// What `backup-agent backup` shows while a backup runs. Mailbox events come
// from the job's log lines (the module logs "Processing mailbox 'M' (i/n).",
// "Mailbox 'M' processed." and "Failed to process mailbox 'M'.", and for an
// item the service would not export "EWS item ID of mailbox 'M' could not be
// exported: CODE"), which this
// class reads as they are appended to the job log; items and bytes from the
// job's activity record. Owned and called by the command's waiting thread only.
class Backup_Progress
{
public:
  // `mailboxes`: how many the job backs up; `log_path`: the job's log file
  // (empty: no mailbox events). Only lines appended after construction count.
  Backup_Progress(size_t mailboxes, const std::string& log_path);

  // Reads the log lines appended since the last call. Appends to `finished` one
  // line for each mailbox that ended (done or failed) with the figures given.
  void poll(uint64_t items, uint64_t bytes, std::string& finished);

  // Takes one log line; true when it ended a mailbox, with `mailbox` and `ok`.
  // Keeps the service's code of an item that could not be exported.
  bool take_line(const std::string& line, std::string& mailbox, bool& ok);

  // The live line: mailboxes done of total, items, MiB, rate, elapsed and, once
  // a mailbox has ended, the time left estimated from the mailboxes' pace.
  std::string line(uint64_t items, uint64_t bytes, double seconds) const;

  // The service's error code of each item id it would not export, as logged.
  const std::map<std::string, std::string>& item_errors() const { return item_errors_; }

  size_t done() const { return done_; }
  size_t failed() const { return failed_; }

private:
  size_t total_;
  size_t done_ = 0;  // mailboxes ended, failed ones included
  size_t failed_ = 0;
  std::ifstream log_;
  std::string partial_;  // a last line not yet ended by its newline
  std::map<std::string, std::string> item_errors_;
};

// "1h02m03s", "4m05s", "7s".
std::string format_duration(double seconds);

#endif
