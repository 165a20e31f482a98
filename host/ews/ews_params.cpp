#include "host/ews/ews_params.h"

#include "host/base/agent_config.h"
#include "host/base/log.h"

#include <algorithm>
#include <atomic>
#include <nlohmann/json.hpp>

namespace
{
// One setting: its key in an "ews" configuration object, its range and default.
struct Param
{
  const char* key;
  int min;
  int max;
  int fallback;
  std::atomic<int>* value;
};

std::atomic<int> paging{500};
std::atomic<int> batch{50};
std::atomic<int> concurrency{4};
std::atomic<int> budget{600};
std::atomic<int> base_delay{1000};

const Param params[] = {
  {"paging_size", 1, 1000, 500, &paging},
  {"batch_size", 1, 100, 50, &batch},
  {"export_concurrency", 1, 16, 4, &concurrency},
  {"retry_budget_seconds", 0, 86400, 600, &budget},
  {"retry_base_delay_ms", 1, 60000, 1000, &base_delay},
};

const Param& param(const std::atomic<int>& value)
{
  for (const Param& p : params)
    if (p.value == &value)
      return p;
  return params[0];
}

int clamped(const Param& p, long long value) { return static_cast<int>(std::clamp<long long>(value, p.min, p.max)); }

void set(std::atomic<int>& value, long long requested) { value = clamped(param(value), requested); }
}  // namespace

int EWS_Params::paging_size() { return paging; }

int EWS_Params::batch_size() { return batch; }

int EWS_Params::export_concurrency() { return concurrency; }

int EWS_Params::retry_budget() { return budget; }

int EWS_Params::retry_base_delay_ms() { return base_delay; }

void EWS_Params::set_paging_size(int value) { set(paging, value); }

void EWS_Params::set_batch_size(int value) { set(batch, value); }

void EWS_Params::set_export_concurrency(int value) { set(concurrency, value); }

void EWS_Params::set_retry_budget(int seconds) { set(budget, seconds); }

void EWS_Params::set_retry_base_delay_ms(int ms) { set(base_delay, ms); }

bool EWS_Params::configure(const nlohmann::ordered_json& ews, std::string& error)
{
  if (!ews.is_object())
  {
    error = "the EWS settings must be an object";
    return false;
  }
  for (const Param& p : params)
  {
    const auto it = ews.find(p.key);
    if (it != ews.end() && !it->is_number_integer())
    {
      error = std::string("EWS setting '") + p.key + "' must be an integer";
      return false;
    }
  }
  for (const Param& p : params)
  {
    const auto it = ews.find(p.key);
    if (it != ews.end())
      *p.value =
        clamped(p, it->is_number_unsigned()
                     ? static_cast<long long>(std::min<unsigned long long>(it->get<unsigned long long>(), p.max))
                     : it->get<long long>());
  }
  return true;
}

void EWS_Params::configure(const Agent_Config& config)
{
  for (const Param& p : params)
  {
    const std::string name = std::string("ews.") + p.key;
    const long requested = config.setting(name, *p.value);
    *p.value = clamped(p, requested);
    if (*p.value != requested)
      LOG_MSG(LM_WARNING, "Setting %s = %q is outside %d..%d; using %d\n", name.c_str(),
              static_cast<ACE_INT64>(requested), p.min, p.max, p.value->load());
  }
  LOG_MSG(LM_DEBUG,
          "EWS settings: paging_size %d, batch_size %d, retry_budget_seconds %d, retry_base_delay_ms %d, "
          "export_concurrency %d\n",
          paging_size(), batch_size(), retry_budget(), retry_base_delay_ms(), export_concurrency());
}

void EWS_Params::reset()
{
  for (const Param& p : params)
    *p.value = p.fallback;
}
