#ifndef TESTS_HOST_EWS_EWS_CONFORMANCE_ENVS_H
#define TESTS_HOST_EWS_EWS_CONFORMANCE_ENVS_H

// The services the transport conformance suite runs against. Each gives
// transports acting for one of its mailboxes, the names of that mailbox, a
// folder of ten items, and the faults it can inject; a fault it cannot inject
// answers false and the test that needs it is skipped.

#include "ews_fake_service.h"
#include "ews_fake_transport.h"
#include "ews_scripted_graph.h"
#include "ews_scripted_soap.h"

#include "host/ews/ews_transport_factory.h"
#include "host/office365/office365_auth.h"
#include "support/exo_sim_process.h"
#include "support/scripted_server.h"

#include <memory>
#include <string>
#include <nlohmann/json.hpp>

// The names of one user whose principal name is not an SMTP address of theirs.
struct Mailbox_Names
{
  std::string upn;
  std::string smtp;   // the primary SMTP address
  std::string proxy;  // another SMTP address of the same mailbox
};

// The SOAP transport against the simulator.
struct Soap_On_Exo_Sim
{
  Exo_Sim_Process sim{{"--profile", "tiny", "--page-size", "10", "--renamed-users", "3"}};
  std::shared_ptr<Office365_Auth> auth = std::make_shared<Office365_Auth>(sim.entry(), sim.base() + "/.default");

  std::unique_ptr<EWS_Transport> transport()
  {
    EWS_Transport_Settings settings;
    settings.endpoint = sim.entry().ews_endpoint;
    std::unique_ptr<EWS_Transport> t = EWS_Transport_Factory::create("ews", settings);
    EWS_Credentials c;
    if (t && auth->get_token(c.bearer_token))
      t->set_credentials(c);
    return t;
  }
  // The tests' own mailbox signs in with its primary address (UPN = mail).
  std::string upn() const { return sim.mailbox("alice.archer"); }
  // A user whose principal name is in a directory domain without mail, with a proxy
  // address at the tenant's initial domain (see docs/exo-sim.md, "Users").
  Mailbox_Names renamed() const
  {
    return {"kenji.kato@corp.demo.exosim.test", sim.mailbox("kenji.kato"), "kenji.kato@exosimdemo.onmicrosoft.com"};
  }
  std::string ten_items(EWS_Transport& t)
  {
    EWS_Folder_Page top, inbox;
    EWS_Folder_Ref root;
    if (!t.find_folders(root, false, EWS_Page_Cursor(), 1000, top).ok())
      return "";
    for (const EWS_Folder& f : top.folders)
      if (f.display_name == "Inbox")
      {
        EWS_Folder_Ref ref;
        ref.id = f.id;
        if (!t.find_folders(ref, false, EWS_Page_Cursor(), 1000, inbox).ok())
          return "";
      }
    for (const EWS_Folder& f : inbox.folders)
      if (f.display_name == "Exactly one page")
        return f.id;
    return "";
  }
  void throttle(long back_off_ms) { sim.set_faults({{"busy_rate", 1.0}, {"busy_backoff_ms", back_off_ms}}); }
  void calm() { sim.set_faults({{"busy_rate", 0.0}}); }
  bool fail_item(const std::string& id)
  {
    sim.set_faults({{"fail_items", {id}}});
    return true;
  }
  bool damage_item(const std::string&) { return false; }
};

// The Graph transport against the simulator's Graph mailbox API.
struct Graph_On_Exo_Sim : Soap_On_Exo_Sim
{
  std::unique_ptr<EWS_Transport> transport()
  {
    EWS_Transport_Settings settings;
    settings.endpoint = sim.entry().ms_graph_endpoint;
    std::unique_ptr<EWS_Transport> t = EWS_Transport_Factory::create("graph", settings);
    EWS_Credentials c;
    if (t && auth->get_token(c.bearer_token))
      t->set_credentials(c);
    return t;
  }
  // Graph's Retry-After is in whole seconds.
  void throttle(long back_off_ms)
  {
    sim.set_faults({{"graph_429_rate", 1.0}, {"retry_after", (back_off_ms + 999) / 1000}});
  }
  void calm() { sim.set_faults({{"graph_429_rate", 0.0}}); }
};

// The part the two environments over Ews_Fake_Service share.
struct Fake_Service_Env
{
  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();

  std::string upn() const { return service->mailbox(0).upn; }
  Mailbox_Names renamed() const
  {
    return {service->mailbox(0).upn, service->mailbox(0).smtp, service->mailbox(0).proxies.at(0)};
  }
  std::string ten_items(EWS_Transport&) const
  {
    return service->folder_id(0, service->folder_id(0, Ews_Fake_Service::root_id, "Inbox"), "Ten items");
  }
  void throttle(long back_off_ms)
  {
    service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy",
                                                     "The server cannot service this request right now.", back_off_ms));
  }
  void calm() { service->call_faults.clear(); }
  bool fail_item(const std::string& id)
  {
    service->item_faults[id].push_back(Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound",
                                                         "The specified object was not found in the store."));
    return true;
  }
  bool damage_item(const std::string& id)
  {
    service->damaged.insert(id);
    return true;
  }
};

// The SOAP transport against a scripted server answering in Microsoft's sample style.
struct Soap_On_Scripted_Server : Fake_Service_Env
{
  Ews_Scripted_Soap soap{service};
  Scripted_Server server{[this](const Scripted_Request& r) { return soap.answer(r); }};

  std::unique_ptr<EWS_Transport> transport()
  {
    EWS_Transport_Settings settings;
    settings.endpoint = server.url("/EWS/Exchange.asmx");
    std::unique_ptr<EWS_Transport> t = EWS_Transport_Factory::create("ews", settings);
    EWS_Credentials c;
    c.bearer_token = "scripted";
    if (t)
      t->set_credentials(c);
    return t;
  }
};

// The Graph transport against a scripted server answering in the shapes of
// Microsoft's Graph v1.0 reference.
struct Graph_On_Scripted_Server : Fake_Service_Env
{
  Ews_Scripted_Graph graph{service};

  std::unique_ptr<EWS_Transport> transport()
  {
    EWS_Transport_Settings settings;
    settings.endpoint = graph.graph_url();
    std::unique_ptr<EWS_Transport> t = EWS_Transport_Factory::create("graph", settings);
    EWS_Credentials c;
    c.bearer_token = "scripted";
    if (t)
      t->set_credentials(c);
    return t;
  }
};

// The in-memory fake, which must behave as the real transports do.
struct Fake_Transport_Env : Fake_Service_Env
{
  std::unique_ptr<EWS_Transport> transport() { return std::unique_ptr<EWS_Transport>(new Ews_Fake_Transport(service)); }
};

#endif
