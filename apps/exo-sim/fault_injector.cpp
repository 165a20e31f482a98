#include "apps/exo-sim/fault_injector.h"

#include <limits>

#include "apps/exo-sim/sim_hash.h"

namespace exo_sim
{

nlohmann::ordered_json fault_settings_to_json(const Fault_Settings& s)
{
  nlohmann::ordered_json j;
  j["fault_seed"] = s.fault_seed;
  j["busy_rate"] = s.busy_rate;
  j["busy_backoff_ms"] = s.busy_backoff_ms;
  j["ews_503_rate"] = s.ews_503_rate;
  j["graph_503_rate"] = s.graph_503_rate;
  j["graph_429_rate"] = s.graph_429_rate;
  j["retry_after"] = s.retry_after;
  j["partial_page_rate"] = s.partial_page_rate;
  j["truncate_rate"] = s.truncate_rate;
  j["drop_rate"] = s.drop_rate;
  j["fail_items"] = nlohmann::ordered_json::array();
  for (const auto& id : s.fail_items)
    j["fail_items"].push_back(id);
  j["fail_item_rate"] = s.fail_item_rate;
  j["fail_item_code"] = s.fail_item_code;
  j["latency_ms"] = s.latency_ms;
  j["max_concurrency"] = s.max_concurrency;
  j["graph_max_concurrency"] = s.graph_max_concurrency;
  j["graph_drop_rate"] = s.graph_drop_rate;
  return j;
}

namespace
{

// Reads a non-negative number that fits T_ (rates are also capped at 1 by their callers' meaning).
template <typename T_>
bool read_number_T(const nlohmann::ordered_json& v, T_& out)
{
  if (!v.is_number())
    return false;
  double d = v.get<double>();
  if (!(d >= 0) || d >= static_cast<double>(std::numeric_limits<T_>::max()))
    return false;
  out = v.is_number_float() ? static_cast<T_>(d) : v.get<T_>();
  return true;
}

bool read_fail_items(const nlohmann::ordered_json& v, std::set<std::string>& out)
{
  if (!v.is_array())
    return false;
  std::set<std::string> ids;
  for (const auto& e : v)
  {
    if (!e.is_string())
      return false;
    ids.insert(e.get<std::string>());
  }
  out.swap(ids);
  return true;
}

bool read_key(const std::string& key, const nlohmann::ordered_json& v, Fault_Settings& s, bool& known)
{
  known = true;
  if (key == "fault_seed")
    return read_number_T(v, s.fault_seed);
  if (key == "busy_rate")
    return read_number_T(v, s.busy_rate);
  if (key == "busy_backoff_ms")
    return read_number_T(v, s.busy_backoff_ms);
  if (key == "ews_503_rate")
    return read_number_T(v, s.ews_503_rate);
  if (key == "graph_503_rate")
    return read_number_T(v, s.graph_503_rate);
  if (key == "graph_429_rate")
    return read_number_T(v, s.graph_429_rate);
  if (key == "retry_after")
    return read_number_T(v, s.retry_after);
  if (key == "partial_page_rate")
    return read_number_T(v, s.partial_page_rate);
  if (key == "truncate_rate")
    return read_number_T(v, s.truncate_rate);
  if (key == "drop_rate")
    return read_number_T(v, s.drop_rate);
  if (key == "fail_items")
    return read_fail_items(v, s.fail_items);
  if (key == "fail_item_rate")
    return read_number_T(v, s.fail_item_rate);
  if (key == "latency_ms")
    return read_number_T(v, s.latency_ms);
  if (key == "max_concurrency")
    return read_number_T(v, s.max_concurrency);
  if (key == "graph_max_concurrency")
    return read_number_T(v, s.graph_max_concurrency);
  if (key == "graph_drop_rate")
    return read_number_T(v, s.graph_drop_rate);
  if (key == "fail_item_code")
  {
    if (!v.is_string())
      return false;
    s.fail_item_code = v.get<std::string>();
    return true;
  }
  known = false;
  return false;
}

}  // namespace

bool fault_settings_from_json(const nlohmann::ordered_json& json, Fault_Settings& settings, std::string& error)
{
  if (!json.is_object())
  {
    error = "fault settings must be a JSON object";
    return false;
  }
  Fault_Settings s = settings;
  for (auto it = json.begin(); it != json.end(); ++it)
  {
    bool known = false;
    if (!read_key(it.key(), it.value(), s, known))
    {
      error = (known ? "wrong type for fault setting '" : "unknown fault setting '") + it.key() + "'";
      return false;
    }
  }
  settings = s;
  return true;
}

Fault_Injector::Fault_Injector(const Fault_Settings& settings) : settings_(settings) {}

Fault_Settings Fault_Injector::settings() const
{
  std::lock_guard<std::mutex> lock(mutex_);
  return settings_;
}

void Fault_Injector::set_settings(const Fault_Settings& settings)
{
  std::lock_guard<std::mutex> lock(mutex_);
  settings_ = settings;
  sequence_.clear();
}

bool Fault_Injector::roll(const std::string& kind, double rate)
{
  if (rate <= 0)
    return false;
  std::lock_guard<std::mutex> lock(mutex_);
  uint64_t n = sequence_[kind]++;
  return unit_interval(mix64(settings_.fault_seed, hash_text(kind), n)) < rate;
}

bool Fault_Injector::item_fails(const std::string& item_id, std::string& code) const
{
  std::lock_guard<std::mutex> lock(mutex_);
  bool fails = settings_.fail_items.count(item_id) > 0 ||
               (settings_.fail_item_rate > 0 &&
                unit_interval(mix64(settings_.fault_seed, hash_text(item_id))) < settings_.fail_item_rate);
  if (fails)
    code = settings_.fail_item_code;
  return fails;
}

bool Fault_Injector::enter_mailbox(const std::string& mailbox)
{
  std::lock_guard<std::mutex> lock(mutex_);
  int& n = in_flight_[mailbox];
  if (settings_.max_concurrency > 0 && n >= settings_.max_concurrency)
    return false;
  ++n;
  return true;
}

void Fault_Injector::leave_mailbox(const std::string& mailbox)
{
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = in_flight_.find(mailbox);
  if (it != in_flight_.end() && --it->second <= 0)
    in_flight_.erase(it);
}

}  // namespace exo_sim
