#pragma once
// The EWS SOAP endpoint (POST /EWS/Exchange.asmx): authentication (bearer token with the EWS
// audience, or basic auth with a configured account), RequestServerVersion, ExchangeImpersonation,
// the per-mailbox concurrency budget, injected faults, and the operations GetFolder, ConvertId,
// FindFolder, FindItem, ExportItems, UploadItems and CreateFolder. Never throws on bad input:
// every malformed request gets a SOAP fault or an error response message. Thread-safe.
#include <string>

#include <pugixml.hpp>

#include "apps/exo-sim/fault_injector.h"
#include "apps/exo-sim/mailbox_store.h"
#include "apps/exo-sim/sim_reply.h"
#include "apps/exo-sim/sim_stats.h"
#include "apps/exo-sim/token_service.h"

namespace exo_sim
{

struct Ews_Request
{
  std::string authorization;
  std::string anchor_mailbox;  // X-AnchorMailbox header
  std::string body;
};

class Ews_Service
{
public:
  Ews_Service(Mailbox_Store& store, Token_Service& tokens, Fault_Injector& faults, Sim_Stats& stats);

  Sim_Reply handle(const Ews_Request& request);

private:
  struct Call
  {
    int mailbox = -1;
    int version = 0;  // rank of the requested schema version
    pugi::xml_node op;
  };

  Sim_Reply soap_fault_reply(const std::string& code, const std::string& message,
                             const std::vector<std::pair<std::string, std::string>>& values = {});
  Sim_Reply unauthorized(const std::string& reason);
  bool authenticate(const Ews_Request& request, int& basic_mailbox, Sim_Reply& reply);
  bool check_version(const pugi::xml_node& header, Call& call, Sim_Reply& reply);
  bool impersonate(const pugi::xml_node& header, const Ews_Request& request, int basic_mailbox, Call& call,
                   Sim_Reply& reply);
  Sim_Reply dispatch(Call& call);

  // Resolves a t:FolderId / t:DistinguishedFolderId; on failure `code` holds the response code.
  bool resolve_folder(const pugi::xml_node& id, int default_mailbox, int& mailbox, int& folder, std::string& code);

  Sim_Reply get_folder(Call& call);
  Sim_Reply convert_id(Call& call);
  Sim_Reply find_folder(Call& call);
  Sim_Reply find_item(Call& call);
  Sim_Reply export_items(Call& call);
  Sim_Reply upload_items(Call& call);
  Sim_Reply create_folder(Call& call);

  Mailbox_Store& store_;
  Token_Service& tokens_;
  Fault_Injector& faults_;
  Sim_Stats& stats_;
};

}  // namespace exo_sim
