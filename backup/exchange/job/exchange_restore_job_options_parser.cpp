#include "backup/exchange/job/exchange_restore_job_options_parser.h"

#include "backup/exchange/job/module_exports.h"

namespace
{
enum Restore_Option_Key : unsigned int
{
  RESTORE_KEY_RELOCATION = 1,
  RESTORE_KEY_AUTO_MOUNT = 2,
  RESTORE_KEY_IS_OFFICE365 = 4,
  RESTORE_KEY_OVERWRITE = 8,
  RESTORE_KEY_CHANNELS = 16,
};
}  // namespace

const Key2_Value_T<unsigned int> Exchange_Restore_Job_Options_Parser::key_table_1[] = {
  {"relocation", 10, RESTORE_KEY_RELOCATION},     {"auto_mount", 10, RESTORE_KEY_AUTO_MOUNT},
  {"is_office365", 12, RESTORE_KEY_IS_OFFICE365}, {"overwrite", 9, RESTORE_KEY_OVERWRITE},
  {"channels", 8, RESTORE_KEY_CHANNELS},          {nullptr, 0, 0},
};

Exchange_Restore_Job_Options_Parser::Exchange_Restore_Job_Options_Parser()
  : Exchange_Options_Parser_T<Exchange_Restore_Job_Options>(key_table_1)
{
}

bool Exchange_Restore_Job_Options_Parser::handle_boolean_i(bool value)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  switch (key)
  {
  case RESTORE_KEY_AUTO_MOUNT:
    options()->auto_mount(value);
    break;
  case RESTORE_KEY_IS_OFFICE365:
    options()->is_office365_ = value;
    break;
  case RESTORE_KEY_OVERWRITE:
    options()->overwrite(value);
    break;
  default:
    break;  // unknown key, or a key of another JSON type
  }
  seen(key);
  return true;
}

bool Exchange_Restore_Job_Options_Parser::handle_number_i(const char* text, size_t len)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  const bool ok = key != RESTORE_KEY_CHANNELS || read_json_count(text, len, options()->channels_);
  if (ok)
    seen(key);
  return ok;
}

bool Exchange_Restore_Job_Options_Parser::handle_string_i(const char* text, size_t len)
{
  unsigned int key = 0;
  if (!value_key(key))
    return false;
  if (key == RESTORE_KEY_RELOCATION)
    options()->relocation(std::string(text, len));
  seen(key);
  return true;
}

EXCHANGE_PARSER_CREATOR_EXPORTS(Exchange_Restore_Job_Options_Parser_Creator, Exchange_Restore_Job_Options_Parser)
