#ifndef TESTS_HOST_EWS_EWS_SIM_FIXTURE_H
#define TESTS_HOST_EWS_EWS_SIM_FIXTURE_H

// An EWS client on a running simulator, acting for one of its mailboxes.

#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"
#include "support/exo_sim_process.h"

#include <memory>
#include <string>
#include <vector>
#include <nlohmann/json.hpp>

struct Ews_Sim
{
  explicit Ews_Sim(const std::vector<std::string>& args = {"--profile", "tiny", "--page-size", "10"})
    : sim(args), auth(std::make_shared<Office365_Auth>(sim.entry(), sim.base() + "/.default"))
  {
    EWS_Params::reset();
    EWS_Params::set_retry_base_delay_ms(10);
    EWS_Params::set_retry_budget(30);
  }
  ~Ews_Sim() { EWS_Params::reset(); }

  std::unique_ptr<EWS_Client> client(const std::string& local = "alice.archer")
  {
    std::unique_ptr<EWS_Client> c(new EWS_Client());
    const std::string mailbox = sim.mailbox(local);
    if (!c->init(sim.entry().ews_endpoint, "", Secure_String(), auth, mailbox.c_str()))
      return nullptr;
    return c;
  }

  static const EWS_Folder* named(const EWS_Folders& folders, const std::string& name)
  {
    for (const EWS_Folder& f : folders)
      if (f.display_name == name)
        return &f;
    return nullptr;
  }

  long fault_count(const char* kind) const { return sim.status()["faults"].value(kind, 0L); }

  Exo_Sim_Process sim;
  std::shared_ptr<Office365_Auth> auth;
};

#endif
