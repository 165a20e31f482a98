#pragma once
// The exo-sim HTTP server: routes the token endpoint, Graph, EWS and the /_sim control endpoints
// to their services, applies latency and Graph throttling faults, records every call, and can
// cut a response short (a dropped connection).
#include <memory>
#include <string>

#include <httplib.h>

#include "apps/exo-sim/ews_service.h"
#include "apps/exo-sim/fault_injector.h"
#include "apps/exo-sim/graph_mailbox_service.h"
#include "apps/exo-sim/graph_service.h"
#include "apps/exo-sim/mailbox_store.h"
#include "apps/exo-sim/sim_options.h"
#include "apps/exo-sim/sim_stats.h"
#include "apps/exo-sim/token_service.h"

namespace exo_sim
{

class Sim_Server
{
public:
  // `log` receives the request log (not owned; may be null).
  Sim_Server(const Sim_Options& options, std::FILE* log);
  ~Sim_Server();

  // Loads the state directory when it holds a saved state. False with `error` on a damaged one.
  bool load_state(std::string& error);
  bool save_state(std::string& error);

  // Binds the listening socket; returns the bound port, or -1.
  int bind();
  // Serves until stop(); call after bind().
  bool run();
  // Stops a running server; a stop before run() has started serving is lost, so callers that
  // may race with run() wait for is_running() first.
  void stop();
  bool is_running() const { return server_.is_running(); }

  Mailbox_Store& store() { return *store_; }
  Sim_Stats& stats() { return stats_; }
  Fault_Injector& faults() { return faults_; }

private:
  void install_routes();
  void install_graph_mailbox_routes();
  void send(const Sim_Reply& reply, httplib::Response& res, double started_ms);
  bool graph_throttled(Sim_Reply& reply, const std::string& client_request_id);
  void add_latency();

  Sim_Options options_;
  std::unique_ptr<Mailbox_Store> store_;
  Token_Service tokens_;
  Fault_Injector faults_;
  Sim_Stats stats_;
  std::unique_ptr<Graph_Service> graph_;
  std::unique_ptr<Graph_Mailbox_Service> graph_mailbox_;
  std::unique_ptr<Ews_Service> ews_;
  httplib::Server server_;
  int port_ = -1;
};

}  // namespace exo_sim
