#ifndef HOST_EWS_EWS_PARAMS_H
#define HOST_EWS_EWS_PARAMS_H

#include <nlohmann/json_fwd.hpp>

#include <string>

class Agent_Config;

// Process-wide settings of the EWS client, read by every EWS_Client call.
// Defaults stay inside Exchange Online's published limits; the agent may
// override them from its configuration. Thread-safe.
class EWS_Params
{
public:
  // Items or folders asked for per FindItem/FindFolder page: default 500, 1..1000
  // (a page larger than 1000 has no effect in Exchange Online).
  static int paging_size();
  // Items per ExportItems call: default 50, 1..100 (Microsoft's recommended cap).
  static int batch_size();
  // ExportItems requests one export_items call keeps in flight at once, each
  // over its own connection: default 4, 1..16.
  static int export_concurrency();
  // Seconds one operation may spend retrying throttled or failed requests
  // before it fails: default 600, 0..86400.
  static int retry_budget();
  // First wait of the exponential back-off after a dropped connection or a
  // server error without a suggested delay, in milliseconds: default 1000.
  static int retry_base_delay_ms();

  // Each setter clamps its value into the range above.
  static void set_paging_size(int value);
  static void set_batch_size(int value);
  static void set_export_concurrency(int value);
  static void set_retry_budget(int seconds);
  static void set_retry_base_delay_ms(int ms);

  // Applies the keys "paging_size", "batch_size", "export_concurrency",
  // "retry_budget_seconds" and "retry_base_delay_ms" of an "ews" configuration
  // object; other keys are ignored. False with `error` when a present key is not an integer.
  static bool configure(const nlohmann::ordered_json& ews, std::string& error);
  // Applies the agent configuration's settings "ews.paging_size", "ews.batch_size",
  // "ews.export_concurrency", "ews.retry_budget_seconds" and
  // "ews.retry_base_delay_ms" (docs/agent-config.md).
  // A setting that is not there leaves its value as it is; one outside its range
  // is clamped, with a warning in the log.
  static void configure(const Agent_Config& config);
  // Back to the defaults.
  static void reset();
};

#endif
