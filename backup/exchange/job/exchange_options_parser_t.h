#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_OPTIONS_PARSER_T_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_OPTIONS_PARSER_T_H

#include "backup/exchange/job/json_state.h"
#include "host/job/job_options.h"
#include "host/job/yajl_parser.h"

#include <cerrno>
#include <new>

// The frame shared by the option parsers: it allocates the Options being filled,
// tracks open maps, and resolves top-level keys through the subclass's table.
// Only keys of the top-level object count; values elsewhere fail with err_ 9.
// Subclasses read the values; unknown keys and values of the wrong JSON type are
// skipped and missing keys keep their defaults.
template <typename Options>
class Exchange_Options_Parser_T : public YAJL_Parser<Job_Options>
{
public:
  explicit Exchange_Options_Parser_T(const Key2_Value_T<unsigned int>* table) : table_(table)
  {
    Options* options = new (std::nothrow) Options();
    if (options == nullptr)
      errno = ENOMEM;  // every value handler then fails
    else
      result_.reset(options);
  }

  bool handle_start_map_i() override
  {
    push_json_state(states_, true);
    return true;
  }
  bool handle_map_key_i(const char* key, size_t len) override
  {
    return set_json_state_key(states_, table_, key, len, err_);
  }
  bool handle_end_map_i() override { return pop_json_state(states_, err_); }
  Job_Options_var result() override { return result_; }

protected:
  Options* options() { return static_cast<Options*>(result_.get()); }

  // True with the current key's bit (0 for an unknown key) when a value may be
  // read here; false when there are no options to fill, or, with err_ 9, when
  // the value is not directly inside the top-level object.
  bool value_key(unsigned int& key)
  {
    if (options() == nullptr)
      return false;
    if (states_.size() != 1)
    {
      err_ = JSON_ERROR_MISPLACED_VALUE;
      return false;
    }
    key = static_cast<unsigned int>(states_.back().key);
    return true;
  }

  // Marks the current key as seen.
  void seen(unsigned int key) { states_.back().masks |= key; }

private:
  const Key2_Value_T<unsigned int>* table_;
  Job_Options_var result_;
  JSON_States states_;
};

#endif
