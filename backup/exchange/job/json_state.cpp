#include "backup/exchange/job/json_state.h"

#include "backup/exchange/job/natoi.h"
#include "host/base/log.h"

#include <cerrno>
#include <climits>

void push_json_state(JSON_States& states, bool obj) { states.push_back(JSON_State{obj, 0, 0}); }

bool set_json_state_key(JSON_States& states, const Key2_Value_T<unsigned int>* table, const char* key, size_t len,
                        int& err)
{
  if (states.empty())
  {
    err = JSON_ERROR_UNBALANCED;
    return false;
  }
  if (states.size() == 1)
    states.back().key = get_key_value_entry(table, key, len)->value;
  return true;
}

bool pop_json_state(JSON_States& states, int& err)
{
  if (states.empty())
  {
    err = JSON_ERROR_UNBALANCED;
    return false;
  }
  states.pop_back();
  return true;
}

bool read_json_count(const char* text, size_t len, int& field)
{
  field = natoi<int>(text, len);
  const int error = errno;
  if (field == INT_MAX && error == ERANGE)
  {
    LOG_MSG(LM_ERROR, "Integer overflow number: %s.\n", std::string(text, len).c_str());
    return false;
  }
  if ((field == 0 && error == EINVAL) || field < 1)
  {
    LOG_MSG(LM_ERROR, "Invalid number: %s.\n", std::string(text, len).c_str());
    return false;
  }
  return true;
}
