#ifndef TESTS_HOST_EWS_EWS_SCRIPTED_GRAPH_H
#define TESTS_HOST_EWS_EWS_SCRIPTED_GRAPH_H

// Answers Microsoft Graph's mailbox import/export requests from an
// Ews_Fake_Service, in the shapes of Microsoft's v1.0 reference: mailbox ids
// from /users/{upn}/settings/exchange (SMTP addresses found with a users
// $filter), folder and item listings paged by $top/$skip with an absolute
// @odata.nextLink, exportItems with per-element errors, folder creation, and
// import sessions whose URL (with an authtoken) points at a second server.
//
// Two servers: `graph` for Graph itself (every request must carry a bearer
// token) and `import` for the import URLs (which must carry none). Scripted call
// faults of the service answer Graph requests: "HTTP <n>" as that status with
// Retry-After (seconds, rounded up) when a wait is given; any other code as 429
// with that code in the error envelope.

#include "ews_fake_service.h"
#include "support/scripted_server.h"

#include <atomic>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

class Ews_Scripted_Graph
{
  // First, so that it outlives the servers' threads.
  std::shared_ptr<Ews_Fake_Service> service_;

public:
  explicit Ews_Scripted_Graph(std::shared_ptr<Ews_Fake_Service> service);

  std::string graph_url() const { return graph.url(); }

  // Import sessions made from now on expire this many seconds after they are
  // made (default one hour).
  int session_lifetime = 3600;
  // Refuses (401) every import URL handed out so far.
  void revoke_sessions() { revoked_before_ = sessions_made; }
  // Page size the service uses when a request gives no $top (and at most).
  int server_page_size = 1000;

  int sessions_made = 0;
  int imports = 0;
  bool import_had_authorization = false;
  bool graph_missed_authorization = false;
  std::vector<std::string> targets;  // every Graph request line's target, in order

  Scripted_Server graph{[this](const Scripted_Request& r) { return answer_graph(r); }};
  Scripted_Server import{[this](const Scripted_Request& r) { return answer_import(r); }};

private:
  Scripted_Reply answer_graph(const Scripted_Request& request);
  Scripted_Reply answer_import(const Scripted_Request& request);
  Scripted_Reply answer_mailbox(const Scripted_Request& request, size_t box, const std::string& rest,
                                const std::string& query);

  int revoked_before_ = 0;
  std::vector<time_t> session_expiry_;
};

#endif
