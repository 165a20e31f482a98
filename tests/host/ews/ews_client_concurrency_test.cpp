#include "host/ews/ews_sim_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

namespace
{
// The items of the Inbox's "Exactly one page" folder (24 of them with this
// simulator's page size), as export requests with their listed sizes.
EWS_Export_Requests page_requests(EWS_Client& client)
{
  EWS_Export_Requests requests;
  EWS_Folders top, inbox;
  if (!client.list_folders(10, top, true) || !Ews_Sim::named(top, "Inbox"))
    return requests;
  if (!client.list_folders(Ews_Sim::named(top, "Inbox")->id, inbox, true) || !Ews_Sim::named(inbox, "Exactly one page"))
    return requests;
  EWS_Items items;
  if (!client.list_items(Ews_Sim::named(inbox, "Exactly one page")->id, make_ews_item_appender(items), 0, 1000))
    return requests;
  for (const EWS_Item& item : items)
  {
    requests.emplace_back();
    requests.back().id = item.id;
    requests.back().size = item.size;
  }
  return requests;
}

std::string bytes_of(const EWS_Export_Request& r)
{
  return r.data.ptr ? std::string(reinterpret_cast<const char*>(r.data.ptr.get()), static_cast<size_t>(r.data.size))
                    : std::string();
}

const std::vector<std::string> sim_args = {"--profile", "tiny", "--page-size", "24"};
}  // namespace

TEST(EwsClientConcurrency, ExportsEveryItemInOrderOverSeveralConnectionsThroughFaults)
{
  Ews_Sim env(sim_args);
  EWS_Params::set_batch_size(3);  // 24 items: 8 batches for 4 connections
  auto client = env.client();
  ASSERT_TRUE(client);
  EWS_Export_Requests listed = page_requests(*client);
  ASSERT_EQ(listed.size(), 24u);

  // What each item holds, one request at a time.
  EWS_Params::set_export_concurrency(1);
  EWS_Export_Requests one = listed;
  env.sim.reset_counters();
  ASSERT_TRUE(client->export_items(one)) << client->last_error();
  std::map<std::string, std::string> expected;
  for (const EWS_Export_Request& r : one)
  {
    ASSERT_TRUE(r.data.ptr) << r.id;
    expected[r.id] = bytes_of(r);
  }
  EXPECT_EQ(env.sim.status()["calls"].value("ExportItems", 0L), 8);

  // Four at once: with at most one call per mailbox admitted and each call
  // held for a while, a second call in flight is refused as busy; the refused
  // calls are retried and every item still arrives in its own place.
  EWS_Params::set_export_concurrency(4);
  env.sim.set_faults({{"latency_ms", 100}, {"max_concurrency", 1}, {"busy_backoff_ms", 10}});
  env.sim.reset_counters();
  const unsigned retries_before = client->retries();
  EWS_Export_Requests four = listed;
  ASSERT_TRUE(client->export_items(four)) << client->last_error();
  const long refused = env.fault_count("max_concurrency");
  EXPECT_GT(refused, 0);
  EXPECT_EQ(static_cast<long>(client->retries() - retries_before), refused);
  ASSERT_EQ(four.size(), listed.size());
  for (size_t i = 0; i < four.size(); ++i)
  {
    EXPECT_EQ(four[i].id, listed[i].id);
    EXPECT_TRUE(four[i].status.ok()) << four[i].status.text();
    EXPECT_EQ(bytes_of(four[i]), expected[four[i].id]) << four[i].id;
  }

  // Busy answers, 503s and dropped connections on every connection: each
  // retried where it happened, counted once, nothing lost or misplaced.
  env.sim.set_faults({{"latency_ms", 0},
                      {"max_concurrency", 0},
                      {"busy_rate", 0.25},
                      {"busy_backoff_ms", 10},
                      {"ews_503_rate", 0.2},
                      {"drop_rate", 0.2}});
  env.sim.reset_counters();
  const unsigned retries_faults = client->retries();
  Log_Capture log;
  EWS_Export_Requests faulty = listed;
  ASSERT_TRUE(client->export_items(faulty)) << client->last_error();
  const long faults = env.fault_count("busy") + env.fault_count("ews_503") + env.fault_count("drop");
  EXPECT_GT(faults, 0);
  EXPECT_EQ(static_cast<long>(client->retries() - retries_faults), faults);
  // Retries on the worker connections reach this thread's log too.
  EXPECT_EQ(static_cast<long>(log.count("must be retried")), faults) << log.text();
  for (size_t i = 0; i < faulty.size(); ++i)
  {
    EXPECT_EQ(faulty[i].id, listed[i].id);
    EXPECT_EQ(bytes_of(faulty[i]), expected[faulty[i].id]) << faulty[i].id;
  }

  // An item refused for good fails alone, in its own slot.
  env.sim.set_faults({{"busy_rate", 0.0},
                      {"ews_503_rate", 0.0},
                      {"drop_rate", 0.0},
                      {"fail_items", nlohmann::json::array({listed[7].id, listed[20].id})}});
  EWS_Export_Requests refused_two = listed;
  EXPECT_TRUE(client->export_items(refused_two)) << client->last_error();
  for (size_t i = 0; i < refused_two.size(); ++i)
  {
    if (i == 7 || i == 20)
    {
      EXPECT_FALSE(refused_two[i].data.ptr) << i;
      EXPECT_FALSE(refused_two[i].status.ok()) << i;
    }
    else
      EXPECT_EQ(bytes_of(refused_two[i]), expected[refused_two[i].id]) << i;
  }

  // Items of two mailboxes in one call: each batch acts for its own mailbox,
  // and the client acts for its own again afterwards.
  env.sim.set_faults({{"fail_items", nlohmann::json::array()}});
  auto other = env.client("admin");
  ASSERT_TRUE(other);
  EWS_Export_Requests theirs = page_requests(*other);
  ASSERT_EQ(theirs.size(), 24u);
  EWS_Params::set_export_concurrency(1);
  ASSERT_TRUE(other->export_items(theirs)) << other->last_error();
  EWS_Params::set_export_concurrency(4);
  EWS_Export_Requests mixed;
  for (size_t i = 0; i < 24; ++i)
  {
    EWS_Export_Request mine = listed[i];
    EWS_Export_Request their = theirs[i];
    their.data = EWS_b64_Data();
    their.mailbox = env.sim.mailbox("admin");
    if (i % 8 < 4)
      mine.mailbox = client->mailbox();  // named, or left empty: both mean the client's own
    mixed.push_back(mine);
    mixed.push_back(their);
  }
  ASSERT_TRUE(client->export_items(mixed)) << client->last_error();
  EXPECT_EQ(client->mailbox(), env.sim.mailbox("alice.archer"));
  for (size_t i = 0; i < 24; ++i)
  {
    EXPECT_EQ(bytes_of(mixed[2 * i]), expected[listed[i].id]) << i;
    EXPECT_EQ(bytes_of(mixed[2 * i + 1]), bytes_of(theirs[i])) << i;
  }
  // Exported as they are, the other mailbox's items are not found in this one.
  EWS_Export_Requests wrong = theirs;
  for (EWS_Export_Request& r : wrong)
    r.mailbox.clear();
  client->export_items(wrong);
  for (const EWS_Export_Request& r : wrong)
    EXPECT_FALSE(r.data.ptr) << r.id;
}

TEST(EwsClientConcurrency, CancelStopsEveryConnection)
{
  Ews_Sim env(sim_args);
  EWS_Params::set_batch_size(3);
  EWS_Params::set_export_concurrency(4);
  EWS_Params::set_retry_budget(600);  // the suggested wait must be taken, not refused
  auto client = env.client();
  ASSERT_TRUE(client);
  EWS_Export_Requests requests = page_requests(*client);
  ASSERT_EQ(requests.size(), 24u);

  // Every call is refused as busy with a suggested wait of a minute: each
  // connection sleeps until the client is cancelled.
  env.sim.set_faults({{"busy_rate", 1.0}, {"busy_backoff_ms", 60000}});
  env.sim.reset_counters();
  bool ok = true;
  std::thread exporter([&] { ok = client->export_items(requests); });
  for (int i = 0; i < 500 && env.fault_count("busy") < 4; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(env.fault_count("busy"), 4);  // one first attempt per connection
  const auto cancelled_at = std::chrono::steady_clock::now();
  client->cancel();
  exporter.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - cancelled_at).count();
  EXPECT_FALSE(ok);
  // Well under the minute the connections were told to wait.
  EXPECT_LT(seconds, 5.0);
  EXPECT_EQ(client->last_status().kind, HOST_STATUS_CANCELLED);
  for (const EWS_Export_Request& r : requests)
  {
    EXPECT_FALSE(r.data.ptr);
    EXPECT_EQ(r.status.kind, HOST_STATUS_CANCELLED) << r.status.text();
  }
  EXPECT_EQ(env.sim.status()["calls"].value("ExportItems", 0L), 4);

  // Resumed, the same client (and its connections) export everything.
  env.sim.set_faults({{"busy_rate", 0.0}});
  client->resume();
  ASSERT_TRUE(client->export_items(requests)) << client->last_error();
  for (const EWS_Export_Request& r : requests)
    EXPECT_TRUE(r.data.ptr) << r.id;
}
