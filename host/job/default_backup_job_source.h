#ifndef HOST_JOB_DEFAULT_BACKUP_JOB_SOURCE_H
#define HOST_JOB_DEFAULT_BACKUP_JOB_SOURCE_H

#include "host/job/job_source.h"

#include <string>
#include <vector>

// The source of a backup job: the list of entries to back up. Each entry is a
// text of the form
//
//     <kind>://<segment>[/<segment>...]
//
// where <kind> is exactly eight characters naming the resource kind ("exchange")
// so that the prefix "<kind>://" is always eleven characters long, and each
// segment is percent-encoded (a "/" inside a name is written "%2F"). For
// Exchange the first segment names the instance (the tenant or server), the
// second a mailbox, and any further segments a folder path inside it.
class Default_Backup_Job_Source : public Job_Source
{
public:
  typedef std::vector<std::string> Entries;

  static const size_t ENTRY_PREFIX_LENGTH = 11;

  int generate(yajl_gen g) override;

  const Entries& entries() const { return entries_; }
  Entries& entries() { return entries_; }

  // True when `entry` has the eleven-character prefix and at least one
  // character after it.
  static bool valid_entry(const std::string& entry);

private:
  Entries entries_;
};

#endif
