// Injected faults: each mode's documented wire shape, determinism from the fault seed, and the
// control endpoint that changes them at run time.
#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "sim_harness.h"

using namespace exo_sim_test;
using json = nlohmann::ordered_json;

namespace
{

exo_sim::Sim_Options with_faults(const exo_sim::Fault_Settings& f)
{
  exo_sim::Sim_Options o = tiny_options();
  o.faults = f;
  return o;
}

Http_Result set_faults(Sim_Fixture& sim, const json& j)
{
  return http_request("POST", sim.base() + "/_sim/faults", j.dump(), {"Content-Type: application/json"});
}

std::string inbox_list() { return find_folder_body(distinguished("inbox")); }

}  // namespace

TEST(ExoSimFaults, ServerBusyIsASoapFaultWithBackOff)
{
  exo_sim::Fault_Settings f;
  f.busy_rate = 1;
  f.busy_backoff_ms = 297749;
  Sim_Fixture sim(with_faults(f));
  Http_Result r = sim.ews(inbox_list());
  EXPECT_EQ(r.status, 500);
  EXPECT_EQ(r.body.rfind("<?xml", 0), 0u) << "clients only parse 500 bodies that start like XML";
  Soap_Doc d;
  parse_soap(r.body, d);
  ASSERT_TRUE(d.ok);
  EXPECT_TRUE(d.first(T, "ServerVersionInfo"));
  EXPECT_EQ(std::string(d.first("http://schemas.xmlsoap.org/soap/envelope/", "Fault").child("faultcode").text().get()),
            "a:ErrorServerBusy");
  EXPECT_EQ(std::string(d.first(ews_errors_ns, "ResponseCode").text().get()), "ErrorServerBusy");
  pugi::xml_node value = d.first(T, "Value");
  EXPECT_STREQ(value.attribute("Name").value(), "BackOffMilliseconds");
  EXPECT_STREQ(value.text().get(), "297749");
  EXPECT_EQ(sim.status()["faults"]["busy"], 1);
}

TEST(ExoSimFaults, DecisionsAreDeterministicFromTheSeed)
{
  exo_sim::Fault_Settings f;
  f.busy_rate = 0.5;
  f.fault_seed = 7;
  auto run = [&f]
  {
    Sim_Fixture sim(with_faults(f));
    std::vector<long> statuses;
    for (int k = 0; k < 24; ++k)
      statuses.push_back(sim.ews(inbox_list()).status);
    return statuses;
  };
  auto first = run();
  EXPECT_EQ(run(), first);
  long busy = std::count(first.begin(), first.end(), 500L);
  EXPECT_GT(busy, 0);
  EXPECT_LT(busy, 24);
}

TEST(ExoSimFaults, Http503ForEwsAndThrottlingForGraph)
{
  Sim_Fixture sim;
  ASSERT_EQ(set_faults(sim, {{"ews_503_rate", 1.0}, {"graph_429_rate", 1.0}, {"retry_after", 7}}).status, 200);
  EXPECT_EQ(sim.ews(inbox_list()).status, 503);
  Http_Result g = sim.graph_users("");
  EXPECT_EQ(g.status, 429);
  EXPECT_EQ(g.header("Retry-After"), "7");
  EXPECT_EQ(json::parse(g.body)["error"]["code"], "TooManyRequests");
  ASSERT_EQ(set_faults(sim, {{"graph_429_rate", 0}, {"graph_503_rate", 1.0}}).status, 200);
  g = sim.graph_users("");
  EXPECT_EQ(g.status, 503);
  EXPECT_EQ(g.header("Retry-After"), "7");
  ASSERT_EQ(set_faults(sim, {{"graph_503_rate", 0}, {"ews_503_rate", 0}}).status, 200);
  EXPECT_EQ(sim.graph_users("").status, 200);
  EXPECT_EQ(sim.ews(inbox_list()).status, 200);
  auto status = sim.status();
  EXPECT_EQ(status["faults"]["ews_503"], 1);
  EXPECT_EQ(status["faults"]["graph_429"], 1);
  EXPECT_EQ(status["faults"]["graph_503"], 1);
}

TEST(ExoSimFaults, PartialPagesStillLeadToEveryItem)
{
  Sim_Fixture sim;  // "Exactly one page" holds 10 items
  std::string folder = folder_id_by_name(sim, "Exactly one page");
  ASSERT_EQ(set_faults(sim, {{"partial_page_rate", 1.0}}).status, 200);
  Soap_Doc d;
  parse_soap(sim.ews(find_item_body(folder_id(folder), 0, 10)).body, d);
  pugi::xml_node root = d.first(M, "RootFolder");
  EXPECT_EQ(d.all(T, "ItemId").size(), 5u);
  EXPECT_STREQ(root.attribute("IncludesLastItemInRange").value(), "false");
  EXPECT_STREQ(root.attribute("IndexedPagingOffset").value(), "5");
  EXPECT_STREQ(root.attribute("TotalItemsInView").value(), "10");
  auto ids = all_item_ids(sim, folder, 10);
  EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), 10u);
}

TEST(ExoSimFaults, TruncatedExportAndDroppedConnection)
{
  Sim_Fixture sim;
  auto ids = all_item_ids(sim, folder_id_by_name(sim, "Inbox"), 100);
  ASSERT_FALSE(ids.empty());
  ASSERT_EQ(set_faults(sim, {{"truncate_rate", 1.0}}).status, 200);
  Http_Result cut = sim.ews(export_items_body(ids));
  EXPECT_EQ(cut.status, 200);
  const std::string marker = "=== Truncated Data ===";
  ASSERT_GE(cut.body.size(), marker.size());
  EXPECT_EQ(cut.body.substr(cut.body.size() - marker.size()), marker);
  Soap_Doc d;
  parse_soap(cut.body, d);
  EXPECT_FALSE(d.ok) << "a truncated response is not well-formed XML";

  ASSERT_EQ(set_faults(sim, {{"truncate_rate", 0}, {"drop_rate", 1.0}}).status, 200);
  Http_Result dropped = sim.ews(export_items_body(ids));
  EXPECT_NE(dropped.curl_code, 0) << "the client sees a transfer error";
  ASSERT_EQ(set_faults(sim, {{"drop_rate", 0}}).status, 200);
  EXPECT_EQ(sim.ews(export_items_body(ids)).curl_code, 0);
}

TEST(ExoSimFaults, ChosenItemsFailToExportWhileOthersSucceed)
{
  Sim_Fixture sim;
  auto ids = all_item_ids(sim, folder_id_by_name(sim, "Inbox"), 100);
  ASSERT_GE(ids.size(), 3u);
  ASSERT_EQ(set_faults(sim, {{"fail_items", {ids[1]}}, {"fail_item_code", "ErrorItemCorrupt"}}).status, 200);
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({ids[0], ids[1], ids[2]})).body, d);
  auto msgs = d.all(M, "ExportItemsResponseMessage");
  ASSERT_EQ(msgs.size(), 3u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Success");
  EXPECT_STREQ(msgs[1].attribute("ResponseClass").value(), "Error");
  EXPECT_STREQ(msgs[1].child("m:ResponseCode").text().get(), "ErrorItemCorrupt");
  EXPECT_STREQ(msgs[2].attribute("ResponseClass").value(), "Success");
  EXPECT_EQ(sim.status()["items_exported"], 2);
}

TEST(ExoSimFaults, ConcurrencyLimitPerMailboxThrottles)
{
  exo_sim::Fault_Settings f;
  f.max_concurrency = 1;
  f.latency_ms = 400;
  Sim_Fixture sim(with_faults(f));
  std::string token = sim.token(k_ews_scope);
  std::vector<std::future<Http_Result>> calls;
  for (int k = 0; k < 4; ++k)
    calls.push_back(std::async(std::launch::async, [&sim, &token] { return sim.ews(inbox_list(), k_admin, token); }));
  int ok = 0, busy = 0;
  for (auto& c : calls)
  {
    Http_Result r = c.get();
    if (r.status == 200)
      ++ok;
    if (r.status == 500 && r.body.find("MaxConcurrency") != std::string::npos &&
        r.body.find("ErrorServerBusy") != std::string::npos)
      ++busy;
  }
  EXPECT_GE(ok, 1);
  EXPECT_GE(busy, 1);
  EXPECT_EQ(ok + busy, 4);
  // Another mailbox has its own budget, and a lone call passes again.
  EXPECT_EQ(sim.ews(inbox_list(), "alice.archer@demo.exosim.test", token).status, 200);
  EXPECT_EQ(sim.ews(inbox_list(), k_admin, token).status, 200);
}

TEST(ExoSimFaults, LatencyDelaysCalls)
{
  Sim_Fixture sim;
  ASSERT_EQ(set_faults(sim, {{"latency_ms", 250}}).status, 200);
  auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(sim.graph_users("").status, 200);
  EXPECT_EQ(sim.ews(inbox_list()).status, 200);
  EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
}

TEST(ExoSimControl, FaultSettingsAndCounters)
{
  Sim_Fixture sim;
  Http_Result bad = set_faults(sim, {{"no_such_fault", 1}});
  EXPECT_EQ(bad.status, 400);
  EXPECT_EQ(set_faults(sim, {{"busy_rate", "high"}}).status, 400);
  EXPECT_EQ(set_faults(sim, {{"latency_ms", -5}}).status, 400);
  EXPECT_EQ(set_faults(sim, {{"latency_ms", 1e300}}).status, 400);
  EXPECT_EQ(http_request("POST", sim.base() + "/_sim/faults", "{", {}).status, 400);
  json current = json::parse(http_request("GET", sim.base() + "/_sim/faults", "", {}).body);
  EXPECT_EQ(current["busy_rate"], 0);

  http_request("POST", sim.base() + "/_sim/reset", "", {});
  for (int k = 0; k < 3; ++k)
    sim.ews(find_item_body(distinguished("inbox"), 0, 2));
  sim.ews(inbox_list());
  sim.graph_users("");
  json s = sim.status();
  EXPECT_EQ(s["calls"]["FindItem"], 3);
  EXPECT_EQ(s["calls"]["FindFolder"], 1);
  EXPECT_EQ(s["calls"]["users"], 1);
  EXPECT_EQ(s["items_found"], 6);
  EXPECT_GT(s["bytes_out"].get<long>(), 0);
  EXPECT_EQ(s["mailboxes"], 2);
}
