#include "host/job/default_backup_job_source_parser.h"

#include "host/base/log.h"

#include <cerrno>
#include <cstring>
#include <new>

namespace
{
struct Source_Key
{
  const char* key;
  unsigned int bit;
};

const Source_Key source_keys[] = {
  {"id", Default_Backup_Job_Source_Parser::KEY_ID},
  {"name", Default_Backup_Job_Source_Parser::KEY_NAME},
  {"entries", Default_Backup_Job_Source_Parser::KEY_ENTRIES},
};
}  // namespace

Default_Backup_Job_Source_Parser::Default_Backup_Job_Source_Parser() : source_(nullptr)
{
  source_ = new (std::nothrow) Default_Backup_Job_Source();
  if (source_ == nullptr)
    errno = ENOMEM;
  else
    result_.reset(source_);
}

bool Default_Backup_Job_Source_Parser::handle_start_map_i()
{
  states_.push_back(State{true, 0, 0});
  return true;
}

bool Default_Backup_Job_Source_Parser::handle_start_array_i()
{
  states_.push_back(State{false, 0, 0});
  return true;
}

bool Default_Backup_Job_Source_Parser::handle_map_key_i(const char* key, size_t len)
{
  if (states_.empty())
  {
    err_ = 3;
    return false;
  }
  if (states_.size() != 1)
    return true;
  states_.back().key = 0;
  for (const Source_Key& k : source_keys)
    if (std::strlen(k.key) == len && std::memcmp(k.key, key, len) == 0)
      states_.back().key = k.bit;
  return true;
}

bool Default_Backup_Job_Source_Parser::handle_string_i(const char* text, size_t len)
{
  if (source_ == nullptr)
    return true;
  const std::string value(text, len);
  if (states_.size() == 1)
    return store_top_level(value);
  if (states_.size() == 2 && !states_.back().obj && states_[0].key == KEY_ENTRIES)
  {
    if (!Default_Backup_Job_Source::valid_entry(value))
    {
      LOG_MSG(LM_ERROR, "Invalid backup source entry '%s': expected '<kind>://<instance>/<name>'.\n", value.c_str());
      err_ = 10;
      return false;
    }
    source_->entries().push_back(value);
    return true;
  }
  if (states_.size() >= 2 && states_[0].key == 0)
    return true;  // inside a value of an unknown key
  err_ = 9;
  return false;
}

bool Default_Backup_Job_Source_Parser::store_top_level(const std::string& value)
{
  State& top = states_.back();
  switch (top.key)
  {
  case 0:
    return true;
  case KEY_ID:
    source_->id(value);
    break;
  case KEY_NAME:
    source_->name(value);
    break;
  default:
    err_ = 9;
    return false;
  }
  top.masks |= top.key;
  return true;
}

bool Default_Backup_Job_Source_Parser::handle_end_array_i()
{
  if (states_.empty())
  {
    err_ = 3;
    return false;
  }
  states_.pop_back();
  if (states_.size() == 1 && states_.back().key == KEY_ENTRIES)
    states_.back().masks |= KEY_ENTRIES;
  return true;
}

bool Default_Backup_Job_Source_Parser::handle_end_map_i()
{
  if (states_.empty())
  {
    err_ = 3;
    return false;
  }
  if (states_.size() == 1 && !check_required_keys())
  {
    err_ = 7;
    return false;
  }
  states_.pop_back();
  return true;
}

bool Default_Backup_Job_Source_Parser::check_required_keys()
{
  const unsigned int missing = REQUIRED_KEYS & ~states_.back().masks;
  for (const Source_Key& k : source_keys)
    if (missing & k.bit)
      LOG_MSG(LM_ERROR, "Failed to parse job definition source, lack of '%s'.\n", k.key);
  return missing == 0;
}

Job_Source_var Default_Backup_Job_Source_Parser::result() { return result_; }
