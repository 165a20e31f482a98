#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_OPTIONS_PARSER_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_BACKUP_JOB_OPTIONS_PARSER_H

#include "backup/exchange/job/exchange_backup_job_options.h"
#include "backup/exchange/job/exchange_options_parser_t.h"

// Rebuilds Exchange_Backup_Job_Options from its JSON. "channels" and
// "compression_level" must be whole numbers of at least 1; a bad one is logged
// and stops the parse.
class Exchange_Backup_Job_Options_Parser : public Exchange_Options_Parser_T<Exchange_Backup_Job_Options>
{
public:
  Exchange_Backup_Job_Options_Parser();

  bool handle_boolean_i(bool value) override;
  bool handle_number_i(const char* text, size_t len) override;
  bool handle_string_i(const char* text, size_t len) override;

  static const Key2_Value_T<unsigned int> key_table_1[];
};

#endif
