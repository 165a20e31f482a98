// Graph's mailbox import/export API, driven over HTTP with libcurl as a client would, together with
// EWS over the same mailboxes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <thread>

#include "apps/exo-sim/base64_codec.h"
#include "sim_harness.h"

using namespace exo_sim_test;
using json = nlohmann::ordered_json;

namespace
{

struct Graph_Client
{
  Sim_Fixture& sim;
  std::string token;
  std::string mailbox;  // primaryMailboxId

  explicit Graph_Client(Sim_Fixture& s, const std::string& user = k_admin) : sim(s), token(s.token(k_graph_scope))
  {
    mailbox = json::parse(get(sim.base() + "/v1.0/users/" + user + "/settings/exchange").body)["primaryMailboxId"];
  }
  std::string url(const std::string& tail) const
  {
    return sim.base() + "/v1.0/admin/exchange/mailboxes/" + mailbox + tail;
  }
  Http_Result get(const std::string& full_url) const
  {
    return http_request("GET", full_url, "", {"Authorization: Bearer " + token});
  }
  Http_Result post(const std::string& full_url, const json& body) const
  {
    return http_request("POST", full_url, body.dump(),
                        {"Authorization: Bearer " + token, "Content-Type: application/json"});
  }
  // Every element of a listing, following @odata.nextLink verbatim; `pages` counts the requests.
  std::vector<json> all(const std::string& tail, int& pages) const
  {
    std::vector<json> out;
    std::string next = url(tail);
    for (pages = 0; !next.empty() && pages < 100; ++pages)
    {
      Http_Result r = get(next);
      EXPECT_EQ(r.status, 200) << r.body;
      json j = json::parse(r.body);
      for (const auto& v : j["value"])
        out.push_back(v);
      next = j.contains("@odata.nextLink") ? j["@odata.nextLink"].get<std::string>() : "";
      if (!next.empty())
      {
        EXPECT_EQ(next.rfind(sim.base() + "/v1.0/", 0), 0u) << next;
      }
    }
    return out;
  }
  std::string folder_named(const std::string& parent_tail, const std::string& name) const
  {
    int pages = 0;
    for (const auto& f : all(parent_tail + "?$top=50", pages))
      if (f["displayName"] == name)
        return f["id"];
    return "";
  }
  json export_items(const std::vector<std::string>& ids) const
  {
    Http_Result r = post(url("/exportItems"), {{"itemIds", ids}});
    EXPECT_EQ(r.status, 200) << r.body;
    return json::parse(r.body)["value"];
  }
  std::string import_url() const
  {
    Http_Result r = http_request("POST", url("/createImportSession"), "", {"Authorization: Bearer " + token});
    EXPECT_EQ(r.status, 200) << r.body;
    return json::parse(r.body).value("importUrl", "");
  }
};

void expect_graph_error(const Http_Result& r, long status, const std::string& code)
{
  EXPECT_EQ(r.status, status) << r.body;
  json j = json::parse(r.body, nullptr, false);
  ASSERT_TRUE(j.is_object()) << r.body;
  EXPECT_EQ(j["error"]["code"], code) << r.body;
  EXPECT_TRUE(j["error"]["message"].is_string());
  EXPECT_TRUE(j["error"]["innerError"]["request-id"].is_string());
  EXPECT_TRUE(j["error"]["innerError"]["date"].is_string());
}

std::string decoded(const json& element)
{
  std::string bytes;
  EXPECT_TRUE(exo_sim::base64_decode(element.value("data", ""), bytes));
  return bytes;
}

}  // namespace

TEST(ExoSimGraphMailbox, MailboxIdIsStableAndEveryCallNeedsAGraphToken)
{
  Sim_Fixture sim;
  Graph_Client g(sim);
  EXPECT_EQ(g.mailbox.rfind("MBX:", 0), 0u);
  EXPECT_NE(g.mailbox.find('@'), std::string::npos);
  std::string user_id;
  json users = json::parse(sim.graph_users("$select=id,userPrincipalName", false).body);
  for (const auto& u : users["value"])
    if (u["userPrincipalName"] == k_admin)
      user_id = u["id"];
  Http_Result by_id = g.get(sim.base() + "/v1.0/users/" + user_id + "/settings/exchange");
  ASSERT_EQ(by_id.status, 200) << by_id.body;
  EXPECT_EQ(json::parse(by_id.body)["primaryMailboxId"], g.mailbox);
  EXPECT_TRUE(json::parse(by_id.body)["@odata.context"].is_string());
  EXPECT_NE(Graph_Client(sim, "alice.archer@demo.exosim.test").mailbox, g.mailbox);
  {
    Sim_Fixture again;  // same seed: same id
    EXPECT_EQ(Graph_Client(again).mailbox, g.mailbox);
  }
  expect_graph_error(g.get(sim.base() + "/v1.0/users/nobody@demo.exosim.test/settings/exchange"), 404,
                     "Request_ResourceNotFound");
  expect_graph_error(g.get(sim.base() + "/v1.0/admin/exchange/mailboxes/MBX:00000000@00000000/folders"), 404,
                     "ErrorInvalidMailbox");

  std::string ews_token = sim.token(k_ews_scope);
  for (const std::string& auth : {std::string(), "Authorization: Bearer " + ews_token})
  {
    std::vector<std::string> headers;
    if (!auth.empty())
      headers.push_back(auth);
    expect_graph_error(http_request("GET", g.url("/folders"), "", headers), 401, "InvalidAuthenticationToken");
    expect_graph_error(http_request("POST", g.url("/exportItems"), "{\"itemIds\":[]}", headers), 401,
                       "InvalidAuthenticationToken");
    expect_graph_error(http_request("POST", g.url("/createImportSession"), "", headers), 401,
                       "InvalidAuthenticationToken");
    expect_graph_error(http_request("GET", sim.base() + "/v1.0/users/" + k_admin + "/settings/exchange", "", headers),
                       401, "InvalidAuthenticationToken");
  }
}

TEST(ExoSimGraphMailbox, FoldersListTheTopOfTheStoreAndPageToTheEnd)
{
  exo_sim::Sim_Options o = tiny_options();
  o.profile.hidden_folders = true;
  Sim_Fixture sim(o);
  Graph_Client g(sim);
  int pages = 0;
  std::vector<json> top = g.all("/folders?$top=4", pages);
  ASSERT_EQ(top.size(), 11u);  // Inbox ... Journal; the hidden ones only on request
  EXPECT_EQ(pages, 3);
  EXPECT_EQ(top[0]["displayName"], "Inbox");
  EXPECT_EQ(top[0]["wellKnownName"], "inbox");
  EXPECT_EQ(top[0]["@odata.type"], "#microsoft.graph.mailboxFolder");
  EXPECT_EQ(top[6]["type"], "IPF.Appointment");
  EXPECT_EQ(g.all("/folders?includeHiddenFolders=true&$top=100", pages).size(), 15u);

  json root = json::parse(g.get(g.url("/folders/msgfolderroot")).body);
  EXPECT_EQ(root["wellKnownName"], "msgfolderroot");
  EXPECT_EQ(top[0]["parentFolderId"], root["id"]);
  json inbox = json::parse(g.get(g.url("/folders/Inbox")).body);
  EXPECT_EQ(inbox["id"], top[0]["id"]);
  EXPECT_EQ(json::parse(g.get(g.url("/folders/" + inbox["id"].get<std::string>())).body)["displayName"], "Inbox");

  // A chain of four pages gives every child once, in the order of one big page, and its last
  // page has no next link.
  std::string children = "/folders/" + inbox["id"].get<std::string>() + "/childFolders";
  std::vector<json> paged = g.all(children + "?$top=2", pages);
  std::vector<json> whole = g.all(children + "?$top=100", pages);
  EXPECT_EQ(pages, 1);
  ASSERT_EQ(paged.size(), size_t(inbox["childFolderCount"].get<int>()));
  std::set<std::string> ids;
  for (size_t k = 0; k < paged.size(); ++k)
  {
    EXPECT_EQ(paged[k]["id"], whole[k]["id"]);
    EXPECT_TRUE(paged[k]["wellKnownName"].is_null());
    ids.insert(paged[k]["id"].get<std::string>());
  }
  EXPECT_EQ(ids.size(), paged.size());
  g.all(children + "?$top=2", pages);
  EXPECT_EQ(pages, 4);

  json selected = json::parse(g.get(g.url(children + "?$top=1&$select=displayName,noSuchProperty")).body);
  EXPECT_EQ(selected["value"][0].size(), 4u) << selected.dump();  // @odata.type, id, displayName, parentMailboxUrl
  EXPECT_EQ(selected["value"][0]["parentMailboxUrl"], g.url(""));
  EXPECT_EQ(selected["@odata.context"], "https://graph.microsoft.com/v1.0/$metadata#admin/exchange/mailboxes/" +
                                          g.mailbox + "/folders('" + inbox["id"].get<std::string>() +
                                          "')/childFolders");
  std::vector<json> calendars = g.all("/folders?$filter=type%20eq%20'ipf.appointment'&$top=1", pages);
  ASSERT_EQ(calendars.size(), 1u);
  EXPECT_EQ(calendars[0]["wellKnownName"], "calendar");
  EXPECT_EQ(g.all("/folders?$filter=totalItemCount%20ge%200%20and%20type%20eq%20'IPF.Note'&$top=2", pages).size(), 6u);
  EXPECT_EQ(pages, 3);
  expect_graph_error(g.get(g.url("/folders?$filter=startswith(displayName,'I')")), 400, "BadRequest");
  expect_graph_error(g.get(g.url("/folders?$orderby=displayName")), 400, "BadRequest");
  expect_graph_error(g.get(g.url("/folders/AAMkAGYzZjZmRi")), 400, "ErrorInvalidIdMalformed");
  expect_graph_error(g.get(g.url("/folders/EDSVRjowOjk5OQ==")), 404, "ErrorItemNotFound");  // folder 999
}

TEST(ExoSimGraphMailbox, ItemsPageWithoutSkippingOrRepeating)
{
  Sim_Fixture sim;  // "Exactly one page" holds 10 items
  Graph_Client g(sim);
  std::string inbox = "/folders/inbox/childFolders";
  std::string full = g.folder_named(inbox, "Exactly one page"), empty = g.folder_named(inbox, "Empty");
  int pages = 0;
  std::vector<json> one = g.all("/folders/" + full + "/items?$top=10", pages);
  EXPECT_EQ(one.size(), 10u);
  EXPECT_EQ(pages, 1) << "a page that ends the folder has no next link";
  std::vector<json> halves = g.all("/folders/" + full + "/items?$top=5", pages);
  EXPECT_EQ(pages, 2);
  ASSERT_EQ(halves.size(), 10u);
  for (size_t k = 0; k < 10; ++k)
    EXPECT_EQ(halves[k]["id"], one[k]["id"]);
  std::vector<json> thirds = g.all("/folders/" + full + "/items?$top=3", pages);
  EXPECT_EQ(pages, 4);
  EXPECT_EQ(thirds.size(), 10u);

  const json& item = one[0];
  EXPECT_EQ(item["@odata.type"], "#microsoft.graph.mailboxItem");
  EXPECT_EQ(item["@odata.etag"], "W/\"" + item["changeKey"].get<std::string>() + "\"");
  EXPECT_TRUE(item["size"].is_number_integer());
  EXPECT_EQ(item["type"].get<std::string>().rfind("IPM.", 0), 0u);
  EXPECT_TRUE(item["categories"].is_array());
  EXPECT_EQ(item["createdDateTime"].get<std::string>().back(), 'Z');
  EXPECT_EQ(decoded(g.export_items({item["id"]})[0]).size(), size_t(item["size"].get<int64_t>()));

  Http_Result r = g.get(g.url("/folders/" + empty + "/items"));
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(json::parse(r.body)["value"].size(), 0u);
  EXPECT_FALSE(json::parse(r.body).contains("@odata.nextLink"));
  EXPECT_EQ(json::parse(g.get(g.url("/folders/" + full + "/items?$skip=10")).body)["value"].size(), 0u);
  EXPECT_EQ(json::parse(g.get(g.url("/folders/" + full + "/items?$count=true&$top=1")).body)["@odata.count"], 10);

  // A date range as in Microsoft's example gives the items inside it, paged like any listing.
  std::vector<std::string> created;
  for (const auto& i : one)
    created.push_back(i["createdDateTime"]);
  std::sort(created.begin(), created.end());
  std::string from = created[3].substr(0, 10), to = created[8];
  size_t inside = 0;
  for (const auto& c : created)
    inside += c >= from + "T00:00:00Z" && c < to;
  std::vector<json> ranged = g.all("/folders('" + full + "')/items?$filter=createdDateTime%20ge%20" + from +
                                     "%20and%20createdDateTime%20lt%20" + to + "&$select=type,size&$top=2",
                                   pages);
  EXPECT_EQ(ranged.size(), inside);
  EXPECT_EQ(pages, int((inside + 1) / 2));
  for (const auto& i : ranged)
    EXPECT_FALSE(i.contains("createdDateTime"));
  expect_graph_error(g.get(g.url("/folders/" + full + "/items?$top=0")), 400, "BadRequest");

  // The subject comes as the expanded PidTagSubject extended property, and the next link
  // carries the expansion on; a folder call and any other expansion are refused.
  const std::string subject = "$expand=singleValueExtendedProperties(%24filter%3Did%20eq%20%27String%200x0037%27)";
  std::vector<json> named = g.all("/folders/" + full + "/items?$top=4&" + subject, pages);
  ASSERT_EQ(named.size(), 10u);
  EXPECT_EQ(pages, 3);
  // (The generated items include some without a subject: those carry no property.)
  std::set<std::string> subjects;
  for (const auto& i : named)
    if (i.contains("singleValueExtendedProperties"))
    {
      EXPECT_EQ(i["singleValueExtendedProperties"][0]["id"], "String 0x37");
      subjects.insert(i["singleValueExtendedProperties"][0]["value"].get<std::string>());
    }
  EXPECT_GT(subjects.size(), 3u);
  EXPECT_FALSE(one[0].contains("singleValueExtendedProperties"));
  expect_graph_error(g.get(g.url("/folders/" + full + "?" + subject)), 400, "BadRequest");
  expect_graph_error(g.get(g.url("/folders/" + full + "/items?$expand=attachments")), 400, "BadRequest");
}

TEST(ExoSimGraphMailbox, ExportItemsAnswersEveryIdInRequestOrder)
{
  exo_sim::Sim_Options o = tiny_options();
  Sim_Fixture probe(o);
  std::vector<std::string> ews_ids = all_item_ids(probe, folder_id_by_name(probe, "Exactly one page"), 50);
  ASSERT_EQ(ews_ids.size(), 10u);
  o.faults.fail_items.insert(ews_ids[3]);  // EWS ids name the same items for the fault
  Sim_Fixture sim(o);
  Graph_Client g(sim);
  int pages = 0;
  std::vector<json> items =
    g.all("/folders/" + g.folder_named("/folders/inbox/childFolders", "Exactly one page") + "/items?$top=10", pages);
  ASSERT_EQ(items.size(), 10u);

  std::vector<std::string> ids(21, items[0]["id"]);
  expect_graph_error(g.post(g.url("/exportItems"), {{"itemIds", ids}}), 400, "ErrorInvalidRequest");
  ids.resize(20);
  EXPECT_EQ(g.export_items(ids).size(), 20u);

  std::string unknown = "EDSVSTowOjI6OTk5";  // item 999 of a folder
  json value = g.export_items({items[1]["id"], "not-an-id", items[3]["id"], unknown, items[0]["id"]});
  ASSERT_EQ(value.size(), 5u);
  EXPECT_EQ(value[0]["itemId"], items[1]["id"]);
  EXPECT_EQ(value[0]["changeKey"], items[1]["changeKey"]);
  EXPECT_EQ(value[1]["error"]["code"], "ErrorInvalidIdMalformed");
  EXPECT_EQ(value[2]["error"]["code"], "ErrorItemNotFound");  // the injected failure
  EXPECT_EQ(value[3]["itemId"], unknown);
  EXPECT_EQ(value[3]["error"]["code"], "ErrorItemNotFound");
  EXPECT_FALSE(value[3].contains("data"));
  EXPECT_EQ(value[4]["itemId"], items[0]["id"]);

  // The same bytes EWS ExportItems gives for the same item.
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({ews_ids[1]})).body, d);
  std::string ews_bytes;
  ASSERT_TRUE(exo_sim::base64_decode(d.first(M, "Data").text().get(), ews_bytes));
  EXPECT_EQ(decoded(value[0]), ews_bytes);
  EXPECT_EQ(sim.status()["faults"]["item_export"], 1);
}

TEST(ExoSimGraphMailbox, ImportAndFoldersWorkAcrossBothApis)
{
  Sim_Fixture sim;
  Graph_Client g(sim);
  json source = g.export_items({json::parse(g.get(g.url("/folders/inbox/items?$top=1")).body)["value"][0]["id"]})[0];

  // A folder made through EWS takes a Graph import; the item exports byte-equal through both.
  Soap_Doc c;
  parse_soap(sim.ews(create_folder_body(distinguished("inbox"), "From EWS")).body, c);
  std::string ews_folder = c.first(T, "FolderId").attribute("Id").value();
  std::string graph_folder = g.folder_named("/folders/inbox/childFolders", "From EWS");
  ASSERT_FALSE(graph_folder.empty());
  std::string import_url = g.import_url();
  ASSERT_EQ(import_url.find("Authorization"), std::string::npos);
  json body = {{"FolderId", graph_folder}, {"Mode", "create"}, {"Data", source["data"]}};
  Http_Result imported = http_request("POST", import_url, body.dump(), {"Content-Type: application/json"});
  ASSERT_EQ(imported.status, 200) << imported.body;
  json created = json::parse(imported.body);
  EXPECT_EQ(decoded(g.export_items({created["itemId"]})[0]), decoded(source));
  std::vector<std::string> ews_items = all_item_ids(sim, ews_folder, 10);
  ASSERT_EQ(ews_items.size(), 1u);
  Soap_Doc e;
  parse_soap(sim.ews(export_items_body(ews_items)).body, e);
  EXPECT_EQ(std::string(e.first(M, "Data").text().get()), source["data"].get<std::string>());

  // A folder made through Graph lists in EWS, takes an EWS upload, and Graph lists that item.
  Http_Result made = g.post(g.url("/folders"), {{"displayName", "From Graph"}, {"type", "IPF.Note"}});
  ASSERT_EQ(made.status, 201) << made.body;
  EXPECT_EQ(json::parse(made.body)["totalItemCount"], 0);
  std::string from_graph = folder_id_by_name(sim, "From Graph");
  ASSERT_FALSE(from_graph.empty());
  sim.ews("<m:UploadItems><m:Items>" + upload_item_xml(from_graph, source["data"].get<std::string>()) +
          "</m:Items></m:UploadItems>");
  std::string graph_id = json::parse(made.body)["id"];
  json listed = json::parse(g.get(g.url("/folders/" + graph_id + "/items")).body)["value"];
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(decoded(g.export_items({listed[0]["id"]})[0]), decoded(source));

  // Updating needs the current change key.
  json update = {{"FolderId", graph_folder},
                 {"Mode", "update"},
                 {"ItemId", created["itemId"]},
                 {"ChangeKey", "CQAAABYAAAAAAAAAAAAAAA=="},
                 {"Data", "AQAAAAgAAAAAAAAA"}};
  expect_graph_error(http_request("POST", import_url, update.dump(), {}), 409, "ErrorIrresolvableConflict");
  update["ChangeKey"] = created["changeKey"];
  Http_Result updated = http_request("POST", import_url, update.dump(), {});
  ASSERT_EQ(updated.status, 200) << updated.body;
  EXPECT_NE(json::parse(updated.body)["changeKey"], created["changeKey"]);
  json create_with_id = {
    {"FolderId", graph_folder}, {"Mode", "create"}, {"ItemId", created["itemId"]}, {"Data", "AA=="}};
  expect_graph_error(http_request("POST", import_url, create_with_id.dump(), {}), 400, "ErrorInvalidRequest");

  // Sibling names are unique, case-insensitively, whichever API made the first.
  expect_graph_error(g.post(g.url("/folders/inbox/childFolders"), {{"displayName", "from ews"}, {"type", "IPF.Note"}}),
                     409, "ErrorFolderExists");
  expect_graph_error(g.post(g.url("/folders"), {{"displayName", "No type"}}), 400, "ErrorInvalidRequest");
  json status = sim.status();
  EXPECT_EQ(status["calls"]["importItem"], 4);
  EXPECT_EQ(status["calls"]["createFolder"], 3);
}

TEST(ExoSimGraphMailbox, ImportUrlsRefuseExpiredForgedAndForeignSessions)
{
  exo_sim::Sim_Options o = tiny_options();
  o.import_session_lifetime = 0;  // expired as soon as it is made
  Sim_Fixture expiring(o);
  Graph_Client e(expiring);
  json body = {{"FolderId", json::parse(e.get(e.url("/folders/inbox")).body)["id"]},
               {"Mode", "create"},
               {"Data", "AQAAAAgAAAAAAAAA"}};
  expect_graph_error(http_request("POST", e.import_url(), body.dump(), {}), 401, "InvalidAuthenticationToken");

  Sim_Fixture sim;
  Graph_Client admin(sim), alice(sim, "alice.archer@demo.exosim.test");
  std::string url = admin.import_url();
  EXPECT_EQ(http_request("POST", url, body.dump(), {}).status, 200);
  std::string forged = url.substr(0, url.find("authtoken=") + 10) + "AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA";
  expect_graph_error(http_request("POST", forged, body.dump(), {}), 403, "ErrorAccessDenied");
  std::string foreign = alice.import_url();
  foreign.replace(foreign.find(alice.mailbox), alice.mailbox.size(), admin.mailbox);
  expect_graph_error(http_request("POST", foreign, body.dump(), {}), 403, "ErrorAccessDenied");
  expect_graph_error(http_request("POST", url.substr(0, url.find('?')), body.dump(), {}), 401,
                     "InvalidAuthenticationToken");
}

TEST(ExoSimGraphMailbox, ThrottlingDropsAndTheConcurrencyLimit)
{
  Sim_Fixture sim;
  Graph_Client g(sim);
  exo_sim::Fault_Settings s = sim.server().faults().settings();
  s.graph_429_rate = 1;
  s.retry_after = 7;
  sim.server().faults().set_settings(s);
  Http_Result r = g.get(g.url("/folders"));
  expect_graph_error(r, 429, "TooManyRequests");
  EXPECT_EQ(r.header("Retry-After"), "7");
  s.graph_429_rate = 0;
  s.graph_503_rate = 1;
  sim.server().faults().set_settings(s);
  r = g.post(g.url("/exportItems"), {{"itemIds", {"x"}}});
  expect_graph_error(r, 503, "ServiceUnavailable");
  EXPECT_EQ(r.header("Retry-After"), "7");
  s.graph_503_rate = 0;
  s.graph_drop_rate = 1;
  sim.server().faults().set_settings(s);
  EXPECT_NE(g.get(g.url("/folders/inbox/items")).curl_code, 0);

  // Five requests at once on one mailbox, each held in the mailbox by the latency: four are served,
  // the fifth is refused as Outlook refuses it.
  s.graph_drop_rate = 0;
  s.latency_ms = 1500;
  sim.server().faults().set_settings(s);
  std::vector<Http_Result> results(5);
  std::vector<std::thread> threads;
  for (auto& res : results)
    threads.emplace_back([&g, &res] { res = g.get(g.url("/folders")); });
  for (auto& t : threads)
    t.join();
  int ok = 0;
  for (const auto& res : results)
  {
    if (res.status == 200)
      ++ok;
    else
    {
      expect_graph_error(res, 429, "ApplicationThrottled");
      EXPECT_EQ(res.header("Retry-After"), "7");
    }
  }
  EXPECT_EQ(ok, 4);
  json status = sim.status();
  EXPECT_EQ(status["graph_concurrency_high_water"][k_admin], 4);
  EXPECT_EQ(status["faults"]["graph_concurrency"], 1);
  EXPECT_EQ(status["faults"]["graph_429"], 1);
  EXPECT_EQ(status["faults"]["graph_503"], 1);
  EXPECT_EQ(status["faults"]["graph_drop"], 1);
  EXPECT_EQ(status["calls"]["listFolders"], 6);
}

TEST(ExoSimGraphMailbox, SavedStateKeepsGraphFoldersAndImports)
{
  char tmpl[] = "/tmp/exo-sim-graph-XXXXXX";
  ASSERT_NE(mkdtemp(tmpl), nullptr);
  exo_sim::Sim_Options o = tiny_options();
  o.state_dir = tmpl;
  std::string mailbox, folder, item, data;
  {
    Sim_Fixture sim(o);
    Graph_Client g(sim);
    mailbox = g.mailbox;
    folder = json::parse(g.post(g.url("/folders"), {{"displayName", "Kept"}, {"type", "IPF.Note"}}).body)["id"];
    data = exo_sim::base64_encode("opaque item bytes");
    json body = {{"FolderId", folder}, {"Mode", "create"}, {"Data", data}};
    item = json::parse(http_request("POST", g.import_url(), body.dump(), {}).body)["itemId"];
    ASSERT_EQ(http_request("POST", sim.base() + "/_sim/save", "", {}).status, 200);
  }
  Sim_Fixture sim(o);
  Graph_Client g(sim);
  EXPECT_EQ(g.mailbox, mailbox);
  EXPECT_EQ(g.folder_named("/folders", "Kept"), folder);
  EXPECT_EQ(g.export_items({item})[0]["data"], data);
  EXPECT_EQ(std::system(("rm -rf " + std::string(tmpl)).c_str()), 0);
}
