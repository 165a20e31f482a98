#pragma once
// Microsoft Graph's mailbox import/export API over the same mailboxes the EWS service serves:
// GET /v1.0/users/{id|upn}/settings/exchange (the mailbox id), and under
// /v1.0/admin/exchange/mailboxes/{mailboxId}: folders, folders/{id}, folders/{id}/childFolders,
// folders/{id}/items (listing with $top/$skip/@odata.nextLink), folder creation, exportItems and
// createImportSession; and the pre-authenticated importUrl that createImportSession hands out.
// Bearer tokens with the Graph audience, the per-mailbox concurrency limit, latency, dropped
// connections and per-item export failures apply here; 429/503 faults are rolled by the server
// before a call reaches this service. Never throws on bad input. Thread-safe.
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "apps/exo-sim/fault_injector.h"
#include "apps/exo-sim/import_sessions.h"
#include "apps/exo-sim/mailbox_gate.h"
#include "apps/exo-sim/mailbox_store.h"
#include "apps/exo-sim/sim_reply.h"
#include "apps/exo-sim/sim_stats.h"
#include "apps/exo-sim/token_service.h"

namespace exo_sim
{

struct Graph_Mailbox_Request
{
  std::string method;                                       // GET or POST
  std::vector<std::pair<std::string, std::string>> params;  // decoded query pairs, in order
  std::string authorization;
  std::string host;  // Host header, for absolute next links and import URLs
  std::string client_request_id;
  std::string body;
};

class Graph_Mailbox_Service
{
public:
  Graph_Mailbox_Service(Mailbox_Store& store, Token_Service& tokens, Fault_Injector& faults, Sim_Stats& stats,
                        int import_session_lifetime);

  // GET /v1.0/users/{user}/settings/exchange.
  Sim_Reply exchange_settings(const Graph_Mailbox_Request& request, const std::string& user);
  // Any call under /v1.0/admin/exchange/mailboxes/; `rest` is the path after that prefix.
  Sim_Reply mailboxes(const Graph_Mailbox_Request& request, const std::string& rest);
  // POST {importUrl}: /api/gv1.0/Mailboxes('{mailboxId}')/importItem?authtoken=...
  Sim_Reply import_item(const Graph_Mailbox_Request& request, const std::string& mailbox_id);

  // The operation a call under /v1.0/admin/exchange/mailboxes/ names (listFolders, exportItems, ...),
  // for the counters and the request log.
  static std::string operation(const std::string& method, const std::string& rest);

  // The opaque, stable "MBX:xxxxxxxx@yyyyyyyy" id of a mailbox, and back (-1 when unknown).
  std::string mailbox_id(int mailbox) const;
  int find_mailbox_id(const std::string& id) const;

private:
  struct Call
  {
    const Graph_Mailbox_Request* request = nullptr;
    int mailbox = -1;
    std::vector<std::string> segments;  // path segments after the mailbox id
  };

  Sim_Reply settings_call(const Graph_Mailbox_Request& request, const std::string& user);
  Sim_Reply mailbox_call(const Graph_Mailbox_Request& request, const std::vector<std::string>& segments);
  Sim_Reply import_call(const Graph_Mailbox_Request& request, const std::string& mailbox_id);
  Sim_Reply route(Call& call);
  // Runs `work` inside one of the mailbox's concurrency slots, with the injected latency spent
  // holding it, and may drop the connection of a successful reply; a call beyond the limit gets 429.
  template <typename Work_T_>
  Sim_Reply in_slot(const Call& call, Work_T_ work);
  // A Graph folder id or well-known name; false with a 400/404 reply otherwise.
  bool resolve_folder(const Call& call, const std::string& folder_id, int& folder, Sim_Reply& reply);

  Sim_Reply list_folders(const Call& call, int parent);
  Sim_Reply get_folder(const Call& call, int folder);
  Sim_Reply list_items(const Call& call, int folder);
  Sim_Reply create_folder(const Call& call, int parent);
  Sim_Reply export_items(const Call& call);
  Sim_Reply create_import_session(const Call& call);
  Sim_Reply import_one(const Call& call);

  nlohmann::ordered_json folder_json(const Call& call, const Folder_View& view) const;
  nlohmann::ordered_json item_json(const Item_View& view, bool with_subject) const;
  std::string context(const Call& call, const std::string& tail) const;
  std::string mailbox_url(const Call& call) const;  // absolute, on the simulator's base
  Sim_Reply error(const Call& call, int status, const std::string& code, const std::string& message) const;

  Mailbox_Store& store_;
  Token_Service& tokens_;
  Fault_Injector& faults_;
  Sim_Stats& stats_;
  Import_Sessions sessions_;
  Mailbox_Gate gate_;
};

}  // namespace exo_sim
