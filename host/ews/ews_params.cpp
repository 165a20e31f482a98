#include "host/ews/ews_params.h"

#include <algorithm>
#include <atomic>

namespace
{
const int default_paging_size = 500;
const int default_batch_size = 50;
const int default_retry_budget = 600;
const int default_retry_base_delay_ms = 1000;

std::atomic<int> paging{default_paging_size};
std::atomic<int> batch{default_batch_size};
std::atomic<int> budget{default_retry_budget};
std::atomic<int> base_delay{default_retry_base_delay_ms};
}  // namespace

int EWS_Params::paging_size()
{
  return paging;
}

int EWS_Params::batch_size()
{
  return batch;
}

int EWS_Params::retry_budget()
{
  return budget;
}

int EWS_Params::retry_base_delay_ms()
{
  return base_delay;
}

void EWS_Params::set_paging_size(int value)
{
  paging = std::clamp(value, 1, 1000);
}

void EWS_Params::set_batch_size(int value)
{
  batch = std::clamp(value, 1, 100);
}

void EWS_Params::set_retry_budget(int seconds)
{
  budget = std::clamp(seconds, 0, 86400);
}

void EWS_Params::set_retry_base_delay_ms(int ms)
{
  base_delay = std::clamp(ms, 1, 60000);
}

bool EWS_Params::configure(const nlohmann::ordered_json& ews, std::string& error)
{
  struct Key
  {
    const char* name;
    void (*set)(int);
  };
  const Key keys[] = {{"paging_size", set_paging_size},
                      {"batch_size", set_batch_size},
                      {"retry_budget_seconds", set_retry_budget},
                      {"retry_base_delay_ms", set_retry_base_delay_ms}};
  if (!ews.is_object())
  {
    error = "the EWS settings must be an object";
    return false;
  }
  for (const Key& k : keys)
  {
    const auto it = ews.find(k.name);
    if (it != ews.end() && !it->is_number_integer())
    {
      error = std::string("EWS setting '") + k.name + "' must be an integer";
      return false;
    }
  }
  for (const Key& k : keys)
  {
    const auto it = ews.find(k.name);
    if (it != ews.end())
      k.set(static_cast<int>(std::clamp<long long>(it->get<long long>(), -1000000000LL, 1000000000LL)));
  }
  return true;
}

void EWS_Params::reset()
{
  paging = default_paging_size;
  batch = default_batch_size;
  budget = default_retry_budget;
  base_delay = default_retry_base_delay_ms;
}
