#pragma once
// Microsoft Graph GET /v1.0/users over the simulated tenant's mailboxes: $select, $orderby,
// $count (with ConsistencyLevel: eventual), $top, $search, $skiptoken and @odata.nextLink.
#include <string>
#include <utility>
#include <vector>

#include "apps/exo-sim/mailbox_store.h"
#include "apps/exo-sim/sim_reply.h"
#include "apps/exo-sim/token_service.h"

namespace exo_sim
{

struct Graph_Request
{
  std::vector<std::pair<std::string, std::string>> params;  // decoded query pairs, in order
  std::string authorization;
  std::string consistency_level;
  std::string host;  // Host header, for the absolute next link
  std::string client_request_id;
};

class Graph_Service
{
public:
  Graph_Service(Mailbox_Store& store, Token_Service& tokens);

  Sim_Reply list_users(const Graph_Request& request);

  // Graph's error body: {"error":{"code","message","innerError":{...}}}.
  static Sim_Reply error(int status, const std::string& code, const std::string& message,
                         const std::string& client_request_id);
  // 401 InvalidAuthenticationToken with Graph's WWW-Authenticate challenge.
  static Sim_Reply unauthorized(const std::string& reason, const std::string& client_request_id);

private:
  Mailbox_Store& store_;
  Token_Service& tokens_;
};

}  // namespace exo_sim
