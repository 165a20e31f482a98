// The Graph transport where the conformance suite does not reach: server-driven
// paging, exports split by 20, import sessions, throttling through the client,
// and the import URL's secrecy.

#include "ews_scripted_graph.h"

#include "host/ews/ews_client.h"
#include "host/ews/ews_graph_shapes.h"
#include "host/ews/ews_graph_status.h"
#include "host/ews/ews_params.h"
#include "host/ews/ews_request_budget.h"
#include "host/ews/ews_transport_factory.h"
#include "support/exo_sim_process.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <set>

namespace
{
class EwsGraphTransport : public ::testing::Test
{
protected:
  void SetUp() override
  {
    EWS_Params::reset();
    EWS_Params::set_retry_base_delay_ms(1);
    EWS_Params::set_retry_budget(30);
    // The scripted server serves one connection at a time.
    EWS_Params::set_export_concurrency(1);
    EWS_Transport_Settings settings;
    settings.endpoint = graph.graph_url();
    std::unique_ptr<EWS_Transport> t = EWS_Transport_Factory::create("graph", settings);
    ASSERT_TRUE(t);
    EWS_Credentials c;
    c.bearer_token = "scripted-token";
    t->set_credentials(c);
    client.set_transport(std::move(t));
    ASSERT_TRUE(client.impersonate(service->mailbox(0).upn));
  }
  void TearDown() override { EWS_Params::reset(); }

  std::string folder(const std::string& parent, const std::string& name) const
  {
    return service->folder_id(0, parent, name);
  }
  std::string inbox() const { return folder(Ews_Fake_Service::root_id, "Inbox"); }

  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();
  Ews_Scripted_Graph graph{service};
  EWS_Client client;
};

std::vector<std::string> ids_of(const EWS_Items& items)
{
  std::vector<std::string> ids;
  for (const EWS_Item& i : items)
    ids.push_back(i.id);
  return ids;
}
}  // namespace

TEST_F(EwsGraphTransport, FollowsNextLinksWithoutSkippingOrRepeating)
{
  EWS_Items all;
  ASSERT_TRUE(client.list_items(inbox(), make_ews_item_appender(all), 0, 1000));
  ASSERT_EQ(all.size(), 10u);

  // The server pages by 3 whatever $top asks: its next links are followed.
  graph.server_page_size = 3;
  EWS_Params::set_paging_size(4);
  EWS_Items linked;
  ASSERT_TRUE(client.list_items(inbox(), make_ews_item_appender(linked), 0, 1000));
  EXPECT_EQ(ids_of(linked), ids_of(all));
  size_t followed = 0;
  for (const std::string& t : graph.targets)
    followed += t.find("%24skip=") != std::string::npos ? 1 : 0;
  EXPECT_GE(followed, 3u);

  // A window of the listing, as the module asks for it, is exactly that window.
  EWS_Items window;
  ASSERT_TRUE(client.list_items(inbox(), make_ews_item_appender(window), 4, 5));
  const std::vector<std::string> ids = ids_of(all);
  EXPECT_EQ(ids_of(window), std::vector<std::string>(ids.begin() + 4, ids.begin() + 9));

  // A page exactly full, then an empty one; and an empty folder.
  graph.server_page_size = 5;
  EWS_Params::set_paging_size(5);
  EWS_Items full;
  ASSERT_TRUE(client.list_items(inbox(), make_ews_item_appender(full), 0, 1000));
  EXPECT_EQ(ids_of(full), ids_of(all));
  EWS_Items none;
  ASSERT_TRUE(client.list_items(folder(Ews_Fake_Service::root_id, "Empty"), make_ews_item_appender(none), 0, 1000));
  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(graph.graph_missed_authorization);
}

TEST_F(EwsGraphTransport, ListsTheFolderTreeDeepWithParentsAndKinds)
{
  graph.server_page_size = 2;
  EWS_Folders tree;
  ASSERT_TRUE(client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, tree, false));
  ASSERT_EQ(tree.size(), 3u);
  EXPECT_EQ(tree[0].display_name, "Inbox");
  ASSERT_EQ(tree[0].subfolders.size(), 1u);
  EXPECT_EQ(tree[0].subfolders[0].display_name, "Ten items");
  EXPECT_EQ(tree[0].items_count, 10);
  EXPECT_EQ(tree[1].type, EWS_FOLDER_TYPE_CALENDAR);
  // Folders that say they have no children are not asked for them.
  for (const std::string& t : graph.targets)
    EXPECT_EQ(t.find(folder(Ews_Fake_Service::root_id, "Empty") + "/childFolders"), std::string::npos) << t;
}

TEST_F(EwsGraphTransport, ExportsTwentyIdsPerRequestAndFailsItemsAlone)
{
  EWS_Items items;
  ASSERT_TRUE(client.list_items(inbox(), make_ews_item_appender(items), 0, 1000));
  EWS_Export_Requests requests(45);
  for (size_t i = 0; i < requests.size(); ++i)
    requests[i].id = items[i % items.size()].id;
  requests[7].id = "not-an-id";
  service->item_faults[items[3].id].push_back(
    Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound", "The specified object was not found in the store."));
  // A passing refusal of one item is asked again; the others are not.
  service->item_faults[items[5].id].push_back(
    Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy", "The server cannot service this request right now."));
  EXPECT_TRUE(client.export_items(requests));
  for (size_t n : service->export_batches)
    EXPECT_LE(n, 20u);
  EXPECT_GE(service->export_batches.size(), 3u);
  EXPECT_EQ(requests[7].status.kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(requests[3].status.code, "ErrorItemNotFound");
  EXPECT_TRUE(requests[5].status.ok()) << requests[5].status.text();
  size_t exported = 0;
  for (const EWS_Export_Request& r : requests)
    exported += r.status.ok() && r.data.ptr ? 1 : 0;
  EXPECT_EQ(exported, 43u);
  const ustring& original = service->mailbox(0).items[0].data;
  EXPECT_EQ(ustring(requests[0].data.ptr.get(), static_cast<size_t>(requests[0].data.size)), original);
}

TEST_F(EwsGraphTransport, ImportSessionsAreReusedRenewedAndNeverLogged)
{
  Log_Capture capture;
  EWS_Folder_Creation_Request target;
  target.display_name = "Restored";
  ASSERT_TRUE(client.create_folder("", target, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  const std::vector<ustring> items = {Ews_Fake_Service::make_data("x", 700), Ews_Fake_Service::make_data("y", 5),
                                      Ews_Fake_Service::make_data("z", 90)};
  ASSERT_TRUE(client.upload_items(target.id, items));
  EXPECT_EQ(graph.sessions_made, 1);
  EXPECT_EQ(graph.imports, 3);
  EXPECT_FALSE(graph.import_had_authorization);

  // Refused: a new session, and the item goes through it.
  graph.revoke_sessions();
  ASSERT_TRUE(client.upload_items(target.id, {items[0]}));
  EXPECT_EQ(graph.sessions_made, 2);

  // A session near its expiry is not used: each upload gets a fresh one.
  graph.session_lifetime = 60;
  graph.revoke_sessions();
  ASSERT_TRUE(client.upload_items(target.id, {items[1]}));
  ASSERT_TRUE(client.upload_items(target.id, {items[2]}));
  EXPECT_EQ(graph.sessions_made, 4);

  // An item the service refuses fails alone, and its log line holds no URL.
  EXPECT_FALSE(client.upload_items("no-such-folder", {items[0]}));
  EXPECT_TRUE(capture.contains("ErrorFolderNotFound"));
  EXPECT_FALSE(capture.contains("authtoken")) << capture.text();
  EXPECT_FALSE(capture.contains("SECRET-")) << capture.text();
  EXPECT_EQ(client.last_error().find("SECRET-"), std::string::npos);
}

TEST_F(EwsGraphTransport, ThrottlingWaitsWhatRetryAfterAsksThroughTheClient)
{
  Log_Capture capture;
  service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "HTTP 503", "busy", 1000));
  service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "ApplicationThrottled",
                                                   "Application is over its MailboxConcurrency limit.", 1000));
  EWS_Folders top;
  ASSERT_TRUE(client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true));
  EXPECT_EQ(top.size(), 3u);
  EXPECT_EQ(client.retries(), 2u);
  EXPECT_EQ(capture.count("must be retried"), 2u);
  EXPECT_TRUE(capture.contains("retry 1 in 1000 ms"));

  // An unknown mailbox fails at once, named as such.
  ASSERT_TRUE(client.impersonate("nobody@nowhere.test"));
  EXPECT_FALSE(client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true));
  EXPECT_EQ(client.last_status().code, EWS_Graph_Status::unknown_mailbox);
}

TEST(EwsGraphStatus, MapsGraphAnswersOntoHostStatusKinds)
{
  const auto answer = [](long status, const std::string& body, const char* retry_after)
  {
    HTTP_Response r;
    r.status(status);
    r.body() = body;
    if (retry_after)
      r.headers().put("Retry-After", retry_after);
    return EWS_Graph_Status::of_answer(r);
  };
  const std::string envelope = R"({"error":{"code":"activityLimitReached","message":" Too many "}})";
  Host_Status s = answer(429, envelope, "7");
  EXPECT_EQ(s.kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(s.code, "activityLimitReached");
  EXPECT_EQ(s.message, "Too many");
  EXPECT_EQ(s.retry_after_ms, 7000);
  EXPECT_EQ(answer(503, "", nullptr).kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(answer(504, "", "2").kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(answer(504, "", nullptr).kind, HOST_STATUS_TRANSIENT);
  EXPECT_EQ(answer(401, envelope, nullptr).kind, HOST_STATUS_UNAUTHORIZED);
  s = answer(404, R"({"error":{"code":"ErrorItemNotFound","message":"gone"}})", nullptr);
  EXPECT_EQ(s.kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(s.code, "ErrorItemNotFound");
  // The import endpoint's bare {"Message": ...}.
  s = answer(409, R"({"Message":"Invalid import session."})", nullptr);
  EXPECT_EQ(s.kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(s.code, "HTTP 409");
  EXPECT_EQ(s.message, "Invalid import session.");

  const auto item = [](const char* json)
  { return EWS_Graph_Status::of_item_error(nlohmann::ordered_json::parse(json)); };
  EXPECT_EQ(item(R"({"code":"ErrorServerBusy","message":"later"})").kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(item(R"({"Code":"ErrorArchiveFolderMovedPermanently"})").kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(item(R"({"Code":"ErrorArchiveFolderMovedPermanently"})").code, "ErrorArchiveFolderMovedPermanently");

  EXPECT_EQ(EWS_Graph_Shapes::item_type_of("IPM.Schedule.Meeting.Request"), EWS_ITEM_TYPE_MEETINGREQUEST);
  EXPECT_EQ(EWS_Graph_Shapes::item_type_of("IPM.Note.SMIME"), EWS_ITEM_TYPE_MESSAGE);
  EXPECT_EQ(EWS_Graph_Shapes::item_type_of("IPM.Notebook"), EWS_ITEM_TYPE_ITEM);
  EXPECT_EQ(EWS_Graph_Shapes::folder_type_of("IPF.Contact.MOC.QuickContacts"), EWS_FOLDER_TYPE_CONTACTS);
}

TEST(EwsRequestBudget, CountsRequestsPerMailboxOverTheWindow)
{
  EWS_Request_Budget budget(3, 60);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(budget.take("ann@corp.test", 1000 + i), 0);
  // Spent: the wait ends when the first slice leaves the window.
  const long wait = budget.take("ANN@corp.test", 5000);
  EXPECT_GT(wait, 0);
  EXPECT_LE(wait, 60000);
  EXPECT_EQ(budget.take("bob@corp.test", 5000), 0);
  EXPECT_NE(budget.take("ann@corp.test", 5000 + wait - 1), 0);
  EXPECT_EQ(budget.take("ann@corp.test", 5000 + wait), 0);
}

TEST(EwsGraphOnSim, ExportLanesStayWithinGraphsLimitOfFourPerMailbox)
{
  Exo_Sim_Process sim({"--profile", "tiny", "--page-size", "24"});
  Office365_Auth_Entry entry = sim.entry();
  entry.transport = "graph";
  EWS_Client client;
  const std::string alice = sim.mailbox("alice.archer");
  ASSERT_TRUE(client.init(entry.ews_endpoint, "", Secure_String(),
                          std::make_shared<Office365_Auth>(entry, "unused/.default"), alice.c_str()));
  EWS_Folders top, inbox;
  ASSERT_TRUE(client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true));
  for (const EWS_Folder& f : top)
  {
    if (f.display_name == "Inbox")
    {
      ASSERT_TRUE(client.list_folders(f.id, inbox, true));
    }
  }
  EWS_Items items;
  for (const EWS_Folder& f : inbox)
  {
    if (f.display_name == "Exactly one page")
    {
      ASSERT_TRUE(client.list_items(f.id, make_ews_item_appender(items), 0, 1000));
    }
  }
  ASSERT_EQ(items.size(), 24u);

  // Eight batches and eight lanes asked for; the service takes four at once.
  EWS_Params::set_batch_size(3);
  EWS_Params::set_export_concurrency(8);
  sim.set_faults({{"latency_ms", 100}, {"graph_max_concurrency", 4}});
  EWS_Export_Requests requests(items.size());
  for (size_t i = 0; i < items.size(); ++i)
    requests[i].id = items[i].id;
  EXPECT_TRUE(client.export_items(requests)) << client.last_error();
  EWS_Params::reset();
  for (const EWS_Export_Request& r : requests)
    EXPECT_TRUE(r.status.ok() && r.data.ptr) << r.id << " " << r.status.text();
  const nlohmann::json status = sim.status();
  EXPECT_EQ(status["faults"].value("graph_concurrency", 0L), 0) << status.dump();
  EXPECT_EQ(client.retries(), 0u);
  EXPECT_GE(status["graph_concurrency_high_water"].value(alice, 0L), 2);
  EXPECT_LE(status["graph_concurrency_high_water"].value(alice, 0L), 4);
}
