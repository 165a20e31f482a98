#pragma once
// Fault injection for exo-sim. Every decision is a hash of (fault seed, kind, sequence number of
// that kind's calls), so a sequential client sees the same faults in every run with one seed.
// Thread-safe: the server's worker threads call it concurrently.
#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <nlohmann/json.hpp>

namespace exo_sim
{

struct Fault_Settings
{
  uint64_t fault_seed = 1;
  double busy_rate = 0;  // ErrorServerBusy SOAP fault, HTTP 500
  int busy_backoff_ms = 500;
  double ews_503_rate = 0;
  double graph_503_rate = 0;
  double graph_429_rate = 0;
  int retry_after = 1;           // seconds, Graph 429/503
  double partial_page_rate = 0;  // FindItem pages shorter than asked
  double truncate_rate = 0;      // ExportItems cut off with "=== Truncated Data ==="
  double drop_rate = 0;          // EWS connection closed mid-response
  std::set<std::string> fail_items;
  double fail_item_rate = 0;
  std::string fail_item_code = "ErrorItemNotFound";
  int latency_ms = 0;
  int max_concurrency = 0;  // EWS calls in flight per mailbox; 0 = no limit
  // Graph mailbox calls in flight per mailbox (Outlook's documented limit is 4); 0 = no limit.
  int graph_max_concurrency = 4;
  double graph_drop_rate = 0;  // Graph mailbox calls whose connection is closed mid-response
};

nlohmann::ordered_json fault_settings_to_json(const Fault_Settings& settings);
// Reads the keys present in `json` over `settings`. False with `error` on a wrongly typed key
// or an unknown key.
bool fault_settings_from_json(const nlohmann::ordered_json& json, Fault_Settings& settings, std::string& error);

class Fault_Injector
{
public:
  explicit Fault_Injector(const Fault_Settings& settings);

  Fault_Settings settings() const;
  void set_settings(const Fault_Settings& settings);

  // True when this call of `kind` is to be faulted with probability `rate`.
  bool roll(const std::string& kind, double rate);

  // True (with the response code) when exporting `item_id` must fail.
  bool item_fails(const std::string& item_id, std::string& code) const;

  // Counts one call in flight for `mailbox`; false (and nothing counted) when the mailbox is at
  // its concurrency limit. Every true must be paired with leave_mailbox.
  bool enter_mailbox(const std::string& mailbox);
  void leave_mailbox(const std::string& mailbox);

private:
  mutable std::mutex mutex_;
  Fault_Settings settings_;
  std::map<std::string, uint64_t> sequence_;
  std::map<std::string, int> in_flight_;
};

}  // namespace exo_sim
