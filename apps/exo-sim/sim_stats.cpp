#include "apps/exo-sim/sim_stats.h"

#include <algorithm>
#include <ctime>

namespace exo_sim
{

Sim_Stats::Sim_Stats(std::FILE* log) : log_(log) {}

void Sim_Stats::record(const Sim_Reply& reply, size_t bytes, double ms)
{
  nlohmann::ordered_json line;
  char when[32];
  std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &tm);
  line["time"] = when;
  line["service"] = reply.service;
  line["op"] = reply.op;
  line["mailbox"] = reply.mailbox;
  line["items"] = reply.items;
  line["status"] = reply.status;
  line["code"] = reply.code;
  line["bytes"] = bytes;
  line["ms"] = static_cast<long>(ms);
  std::string text = line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
  std::lock_guard<std::mutex> lock(mutex_);
  counters_["calls." + (reply.op.empty() ? reply.service : reply.op)] += 1;
  counters_["http_status." + std::to_string(reply.status)] += 1;
  if (!reply.code.empty())
    counters_["codes." + reply.code] += 1;
  counters_["bytes_out"] += long(bytes);
  if (log_)
  {
    std::fprintf(log_, "%s\n", text.c_str());
    std::fflush(log_);
  }
}

void Sim_Stats::count(const std::string& key, long n)
{
  std::lock_guard<std::mutex> lock(mutex_);
  counters_[key] += n;
}

void Sim_Stats::raise(const std::string& key, long value)
{
  std::lock_guard<std::mutex> lock(mutex_);
  long& v = counters_[key];
  v = std::max(v, value);
}

long Sim_Stats::get(const std::string& key) const
{
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = counters_.find(key);
  return it == counters_.end() ? 0 : it->second;
}

nlohmann::ordered_json Sim_Stats::to_json() const
{
  std::lock_guard<std::mutex> lock(mutex_);
  nlohmann::ordered_json j;
  for (const char* group : {"calls", "http_status", "codes", "faults", "graph_concurrency_high_water"})
    j[group] = nlohmann::ordered_json::object();
  for (const char* flat : {"items_found", "items_exported", "items_uploaded", "folders_created", "bytes_out",
                           "anchor_mailbox_missing", "tokens_issued"})
    j[flat] = 0;
  for (const auto& kv : counters_)
  {
    auto dot = kv.first.find('.');
    if (dot == std::string::npos)
      j[kv.first] = kv.second;
    else
      j[kv.first.substr(0, dot)][kv.first.substr(dot + 1)] = kv.second;
  }
  return j;
}

void Sim_Stats::reset()
{
  std::lock_guard<std::mutex> lock(mutex_);
  counters_.clear();
}

}  // namespace exo_sim
