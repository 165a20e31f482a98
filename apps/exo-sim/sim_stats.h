#pragma once
// Counters of everything the simulator served, and the structured request log (one JSON object
// per call). Tests and benchmarks read the counters from GET /_sim/status to check how many calls a
// client made. Thread-safe.
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

#include <nlohmann/json.hpp>

#include "apps/exo-sim/sim_reply.h"

namespace exo_sim
{

class Sim_Stats
{
public:
  // `log` receives one line per call; null for none. Not owned.
  explicit Sim_Stats(std::FILE* log);

  // Counts and logs one finished call. `bytes` is what was sent, `ms` its duration.
  void record(const Sim_Reply& reply, size_t bytes, double ms);
  // Adds to a named counter ("items_exported", "faults.busy", ...).
  void count(const std::string& key, long n = 1);
  long get(const std::string& key) const;
  // Raises a named counter to `value` when it is below (a high-water mark).
  void raise(const std::string& key, long value);

  nlohmann::ordered_json to_json() const;
  void reset();

private:
  mutable std::mutex mutex_;
  std::FILE* log_;
  std::map<std::string, long> counters_;
};

}  // namespace exo_sim
