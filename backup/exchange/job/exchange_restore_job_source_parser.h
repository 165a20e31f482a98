#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_SOURCE_PARSER_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_RESTORE_JOB_SOURCE_PARSER_H

#include "backup/exchange/job/exchange_restore_job_source.h"
#include "backup/exchange/job/json_state.h"
#include "host/job/yajl_parser.h"

// Rebuilds Exchange_Restore_Job_Source from its JSON. "id", "restore_as" and
// "catalog_id" (or its other spelling "catalog_uuid") are required: each missing
// one is logged and the parse fails with err_ 7. Malformed nesting fails with
// err_ 3, a value in the wrong place with err_ 9.
class Exchange_Restore_Job_Source_Parser : public YAJL_Parser<Job_Source>
{
public:
  Exchange_Restore_Job_Source_Parser();

  bool handle_string_i(const char* text, size_t len) override;
  bool handle_start_map_i() override;
  bool handle_map_key_i(const char* key, size_t len) override;
  bool handle_end_map_i() override;
  bool handle_start_array_i() override;
  bool handle_end_array_i() override;
  Job_Source_var result() override;

  static const Key2_Value_T<unsigned int> key_table[];

private:
  Exchange_Restore_Job_Source* source() { return static_cast<Exchange_Restore_Job_Source*>(result_.get()); }
  bool store_top_level(const std::string& value);
  bool store_nested(const std::string& value);
  bool check_required_keys();

  Job_Source_var result_;
  JSON_States states_;
};

#endif
