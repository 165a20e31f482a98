#include "backup/exchange/job/exchange_restore_job_source_parser.h"

#include "backup/exchange/job/module_exports.h"
#include "host/base/log.h"

#include <cerrno>
#include <new>

namespace
{
enum Restore_Source_Key : unsigned int
{
  KEY_ID = 1,
  KEY_NAME = 2,
  KEY_CATALOG_ID = 4,
  KEY_ORIGINAL = 8,
  KEY_RESTORE_AS = 16,
  KEY_STORAGES = 32,
  REQUIRED_KEYS = KEY_ID | KEY_CATALOG_ID | KEY_RESTORE_AS,
};
}  // namespace

const Key2_Value_T<unsigned int> Exchange_Restore_Job_Source_Parser::key_table[] = {
  {"id", 2, KEY_ID},
  {"name", 4, KEY_NAME},
  {"catalog_id", 10, KEY_CATALOG_ID},
  {"catalog_uuid", 12, KEY_CATALOG_ID},
  {"original", 8, KEY_ORIGINAL},
  {"restore_as", 10, KEY_RESTORE_AS},
  {"storages", 8, KEY_STORAGES},
  {nullptr, 0, 0},
};

Exchange_Restore_Job_Source_Parser::Exchange_Restore_Job_Source_Parser()
{
  Exchange_Restore_Job_Source* source = new (std::nothrow) Exchange_Restore_Job_Source();
  if (source == nullptr)
    errno = ENOMEM;  // values are then skipped and the required keys reported missing
  else
    result_.reset(source);
}

bool Exchange_Restore_Job_Source_Parser::handle_start_map_i()
{
  push_json_state(states_, true);
  return true;
}

bool Exchange_Restore_Job_Source_Parser::handle_start_array_i()
{
  push_json_state(states_, false);
  return true;
}

bool Exchange_Restore_Job_Source_Parser::handle_map_key_i(const char* key, size_t len)
{
  return set_json_state_key(states_, key_table, key, len, err_);
}

bool Exchange_Restore_Job_Source_Parser::handle_string_i(const char* text, size_t len)
{
  if (source() == nullptr)
    return true;
  const std::string value(text, len);
  if (states_.size() == 1)
    return store_top_level(value);
  if (states_.size() == 2)
    return store_nested(value);
  err_ = JSON_ERROR_MISPLACED_VALUE;
  return false;
}

bool Exchange_Restore_Job_Source_Parser::store_top_level(const std::string& value)
{
  JSON_State& top = states_.back();
  switch (top.key)
  {
  case 0:
    return true;
  case KEY_ID:
    source()->id(value);
    break;
  case KEY_NAME:
    source()->name(value);
    break;
  case KEY_CATALOG_ID:
    source()->catalog_id(value);
    break;
  case KEY_ORIGINAL:
    source()->original(value);
    break;
  case KEY_RESTORE_AS:
    source()->restore_as(value);
    break;
  default:
    err_ = JSON_ERROR_MISPLACED_VALUE;
    return false;  // a string for "storages"
  }
  top.masks |= top.key;
  return true;
}

// A string one level below the top-level object: an element of the "storages"
// array, or a value inside an array or object under some other key.
bool Exchange_Restore_Job_Source_Parser::store_nested(const std::string& value)
{
  const JSON_State& top = states_.back();
  const JSON_State& parent = states_.front();
  if (!top.obj)
  {
    if (parent.key == KEY_STORAGES)
      source()->storages().push_back(value);
    return true;
  }
  if (parent.key == 0)
    return true;  // an object under an unknown key is skipped whole
  err_ = JSON_ERROR_MISPLACED_VALUE;
  return false;
}

bool Exchange_Restore_Job_Source_Parser::handle_end_array_i()
{
  if (!pop_json_state(states_, err_))
    return false;
  if (!states_.empty() && states_.back().key == KEY_STORAGES)
    states_.back().masks |= KEY_STORAGES;
  return true;
}

bool Exchange_Restore_Job_Source_Parser::handle_end_map_i()
{
  if (states_.empty())
  {
    err_ = JSON_ERROR_UNBALANCED;
    return false;
  }
  if (states_.size() == 1 && !check_required_keys())
  {
    err_ = JSON_ERROR_MISSING_KEY;
    return false;
  }
  states_.pop_back();
  return true;
}

bool Exchange_Restore_Job_Source_Parser::check_required_keys()
{
  const unsigned int missing = REQUIRED_KEYS & ~static_cast<unsigned int>(states_.back().masks);
  for (unsigned int bit = 1; bit <= missing; bit <<= 1)
    if (missing & bit)
      LOG_MSG(LM_ERROR, "Failed to parse job definition source, lack of '%s'.\n",
              get_key_value_entry(key_table, bit)->key);
  return missing == 0;
}

Job_Source_var Exchange_Restore_Job_Source_Parser::result() { return result_; }

EXCHANGE_PARSER_CREATOR_EXPORTS(Exchange_Restore_Job_Source_Parser_Creator, Exchange_Restore_Job_Source_Parser)
