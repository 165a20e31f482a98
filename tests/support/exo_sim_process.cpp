#include "support/exo_sim_process.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

nlohmann::json Exo_Sim_Process::status() const
{
  httplib::Client client("127.0.0.1", port_);
  auto res = client.Get("/_sim/status");
  if (!res || res->status != 200)
    throw std::runtime_error("no simulator status");
  return nlohmann::json::parse(res->body);
}

void Exo_Sim_Process::set_faults(const nlohmann::json& faults) const
{
  httplib::Client client("127.0.0.1", port_);
  auto res = client.Post("/_sim/faults", faults.dump(), "application/json");
  if (!res || res->status != 200)
    throw std::runtime_error("cannot set simulator faults");
}

void Exo_Sim_Process::reset_counters() const
{
  httplib::Client client("127.0.0.1", port_);
  client.Post("/_sim/reset", "", "application/json");
}
