#include "backup/exchange/job/exchange_backup_job_options_parser.h"

#include "backup/exchange/core/ews/method_names.h"
#include "backup/exchange/job/module_exports.h"

namespace
{
enum Backup_Option_Key : unsigned int
{
  BACKUP_KEY_METHOD = 1,
  BACKUP_KEY_TRUNCATE = 2,
  BACKUP_KEY_COMPRESSION = 4,
  BACKUP_KEY_CHECK_CONSISTENCY = 8,
  BACKUP_KEY_VSS_PROVIDER = 16,
  BACKUP_KEY_COMPRESSION_LEVEL = 32,
  BACKUP_KEY_IS_OFFICE365 = 64,
  BACKUP_KEY_CHANNELS = 128,
};
}  // namespace

const Key2_Value_T<unsigned int> Exchange_Backup_Job_Options_Parser::key_table_1[] = {
  {"method", 6, BACKUP_KEY_METHOD},
  {"truncate", 8, BACKUP_KEY_TRUNCATE},
  {"compression", 11, BACKUP_KEY_COMPRESSION},
  {"check_consistency", 17, BACKUP_KEY_CHECK_CONSISTENCY},
  {"vss_provider", 12, BACKUP_KEY_VSS_PROVIDER},
  {"compression_level", 17, BACKUP_KEY_COMPRESSION_LEVEL},
  {"is_office365", 12, BACKUP_KEY_IS_OFFICE365},
  {"channels", 8, BACKUP_KEY_CHANNELS},
  {nullptr, 0, 0},
};

Exchange_Backup_Job_Options_Parser::Exchange_Backup_Job_Options_Parser()
  : Exchange_Options_Parser_T<Exchange_Backup_Job_Options>(key_table_1)
{
}

bool Exchange_Backup_Job_Options_Parser::handle_boolean_i(bool value)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  switch (key)
  {
  case BACKUP_KEY_TRUNCATE:
    options()->truncate(value);
    break;
  case BACKUP_KEY_CHECK_CONSISTENCY:
    options()->check_consisctency_ = value;
    break;
  case BACKUP_KEY_IS_OFFICE365:
    options()->is_office365_ = value;
    break;
  default:
    break;  // unknown key, or a key of another JSON type
  }
  seen(key);
  return true;
}

bool Exchange_Backup_Job_Options_Parser::handle_number_i(const char* text, size_t len)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  bool ok = true;
  if (key == BACKUP_KEY_COMPRESSION_LEVEL)
    ok = read_json_count(text, len, options()->compression_level_);
  else if (key == BACKUP_KEY_CHANNELS)
    ok = read_json_count(text, len, options()->channels_);
  if (ok)
    seen(key);
  return ok;
}

bool Exchange_Backup_Job_Options_Parser::handle_string_i(const char* text, size_t len)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  switch (key)
  {
  case BACKUP_KEY_METHOD:
    options()->method(name_to_method(std::string(text, len).c_str(), 0));
    break;
  case BACKUP_KEY_COMPRESSION:
    options()->compression(compression_name_to_value(std::string(text, len).c_str(), 0));
    break;
  case BACKUP_KEY_VSS_PROVIDER:
    options()->vss_provider_.assign(text, len);
    break;
  default:
    break;
  }
  seen(key);
  return true;
}

EXCHANGE_PARSER_CREATOR_EXPORTS(Exchange_Backup_Job_Options_Parser_Creator, Exchange_Backup_Job_Options_Parser)
