#ifndef HOST_JOB_DEFAULT_BACKUP_JOB_SOURCE_PARSER_H
#define HOST_JOB_DEFAULT_BACKUP_JOB_SOURCE_PARSER_H

#include "host/job/default_backup_job_source.h"
#include "host/job/yajl_parser.h"

#include <vector>

// Reads a backup job source:
//
//     {"id": "...", "name": "...", "entries": ["exchange://tenant/alice%40contoso.com", ...]}
//
// "id" and "entries" are required. Error codes left in err_: 3 unbalanced
// map or array, 7 a required key is missing, 9 a value in the wrong place,
// 10 an entry that is not of the entry form.
class Default_Backup_Job_Source_Parser : public YAJL_Parser<Job_Source>
{
public:
  enum
  {
    KEY_ID = 1,
    KEY_NAME = 2,
    KEY_ENTRIES = 4,
    REQUIRED_KEYS = KEY_ID | KEY_ENTRIES,
  };

  Default_Backup_Job_Source_Parser();

  bool handle_string_i(const char* text, size_t len) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(const char* key, size_t len) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;
  Job_Source_var result() override;

private:
  struct State
  {
    bool obj;
    unsigned int key;
    unsigned int masks;
  };

  bool store_top_level(const std::string& value);
  bool check_required_keys();

  Job_Source_var result_;
  Default_Backup_Job_Source* source_;
  std::vector<State> states_;
};

#endif
