// EWS operations over generated mailboxes: response shapes, paging edges, per-item errors,
// upload -> export round trips, and the SOAP faults for bad requests.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "apps/exo-sim/base64_codec.h"
#include "sim_harness.h"

using namespace exo_sim_test;

namespace
{

const char* const S = "http://schemas.xmlsoap.org/soap/envelope/";

std::string child_text(const pugi::xml_node& node, const char* local)
{
  for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling())
  {
    std::string name = c.name();
    auto colon = name.find(':');
    if ((colon == std::string::npos ? name : name.substr(colon + 1)) == local)
      return c.text().get();
  }
  return "";
}

bool has_child(const pugi::xml_node& node, const char* local)
{
  for (pugi::xml_node c = node.first_child(); c; c = c.next_sibling())
  {
    std::string name = c.name();
    if (name == local ||
        (name.size() > strlen(local) &&
         name.compare(name.size() - strlen(local) - 1, std::string::npos, std::string(":") + local) == 0))
      return true;
  }
  return false;
}

// Checks the envelope every EWS response has and returns the response messages.
std::vector<pugi::xml_node> messages(const Soap_Doc& d, const std::string& op)
{
  EXPECT_TRUE(d.ok);
  EXPECT_TRUE(d.first(S, "Envelope"));
  pugi::xml_node version = d.first(T, "ServerVersionInfo");
  EXPECT_TRUE(version) << "ServerVersionInfo header";
  EXPECT_STREQ(version.attribute("MajorVersion").value(), "15");
  EXPECT_TRUE(version.attribute("Version"));
  EXPECT_TRUE(d.first(M, (op + "Response").c_str()));
  return d.all(M, (op + "ResponseMessage").c_str());
}

void expect_fault(const Http_Result& r, const std::string& code)
{
  EXPECT_EQ(r.status, 500) << r.body;
  Soap_Doc d;
  parse_soap(r.body, d);
  ASSERT_TRUE(d.ok) << r.body;
  EXPECT_TRUE(d.first(T, "ServerVersionInfo"));
  pugi::xml_node fault = d.first(S, "Fault");
  ASSERT_TRUE(fault) << r.body;
  EXPECT_EQ(child_text(fault, "faultcode"), "a:" + code);
  EXPECT_EQ(std::string(d.first(ews_errors_ns, "ResponseCode").text().get()), code);
  EXPECT_TRUE(d.first(ews_errors_ns, "Message"));
}

std::string export_one(Sim_Fixture& sim, const std::string& id)
{
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({id})).body, d);
  std::string bytes;
  EXPECT_TRUE(exo_sim::base64_decode(d.first(M, "Data").text().get(), bytes));
  return bytes;
}

}  // namespace

TEST(ExoSimFindFolder, ShallowFromMsgFolderRootListsWellKnownFoldersByType)
{
  Sim_Fixture sim;
  Http_Result r = sim.ews(find_folder_body(distinguished("msgfolderroot")));
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_NE(r.header("Content-Type").find("text/xml"), std::string::npos);
  Soap_Doc d;
  parse_soap(r.body, d);
  auto msgs = messages(d, "FindFolder");
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Success");
  EXPECT_EQ(std::string(d.first(M, "ResponseCode").text().get()), "NoError");
  pugi::xml_node root = d.first(M, "RootFolder");
  EXPECT_STREQ(root.attribute("TotalItemsInView").value(), "11");
  EXPECT_STREQ(root.attribute("IncludesLastItemInRange").value(), "true");
  auto folders = d.all(T, "Folder");
  ASSERT_EQ(folders.size(), 8u);  // 6 mail folders, Notes, Journal
  EXPECT_EQ(child_text(folders[0], "DisplayName"), "Inbox");
  for (const auto& f : folders)
  {
    pugi::xml_node id = f.child("t:FolderId");
    EXPECT_FALSE(std::string(id.attribute("Id").value()).empty());
    EXPECT_FALSE(std::string(id.attribute("ChangeKey").value()).empty());
    for (const char* p : {"DisplayName", "TotalCount", "ChildFolderCount", "UnreadCount"})
      EXPECT_TRUE(has_child(f, p)) << p;
  }
  auto calendars = d.all(T, "CalendarFolder");
  ASSERT_EQ(calendars.size(), 1u);
  EXPECT_EQ(child_text(calendars[0], "DisplayName"), "Calendar");
  EXPECT_FALSE(has_child(calendars[0], "UnreadCount")) << "calendar folders have no unread count";
  EXPECT_EQ(d.all(T, "ContactsFolder").size(), 1u);
  EXPECT_EQ(d.all(T, "TasksFolder").size(), 1u);
}

TEST(ExoSimFindFolder, DeepTraversalAgreesWithChildCountsAndShapes)
{
  exo_sim::Sim_Options o = tiny_options();
  o.profile.depth = 2;
  Sim_Fixture sim(o);
  Soap_Doc deep;
  parse_soap(sim.ews(find_folder_body(distinguished("inbox"), "Deep", "AllProperties")).body, deep);
  std::map<std::string, int> children_seen, child_count;
  std::set<std::string> names;
  for (const auto& f : deep.all(T, "Folder"))
  {
    std::string id = f.child("t:FolderId").attribute("Id").value();
    child_count[id] = std::stoi(child_text(f, "ChildFolderCount"));
    children_seen[f.child("t:ParentFolderId").attribute("Id").value()]++;
    EXPECT_EQ(child_text(f, "FolderClass"), "IPF.Note");
    names.insert(child_text(f, "DisplayName"));
  }
  for (const char* awkward : {"Empty", "Exactly one page", "Large items", "Sales/Marketing 100% (a%20b)"})
    EXPECT_TRUE(names.count(awkward)) << awkward;
  bool unicode = false;
  for (const auto& n : names)
    unicode = unicode || static_cast<unsigned char>(n[0]) >= 0x80;
  EXPECT_TRUE(unicode) << "a folder with a Unicode name";
  for (const auto& kv : child_count)
    EXPECT_EQ(kv.second, children_seen[kv.first]) << kv.first;

  // The shallow listing of the inbox holds exactly the inbox's direct children.
  std::string inbox = folder_id_by_name(sim, "Inbox");
  Soap_Doc shallow;
  parse_soap(sim.ews(find_folder_body(folder_id(inbox), "Shallow", "IdOnly")).body, shallow);
  auto direct = shallow.all(T, "Folder");
  EXPECT_EQ(int(direct.size()), children_seen[inbox]);
  EXPECT_LT(direct.size(), deep.all(T, "Folder").size());
  for (const auto& f : direct)
    EXPECT_FALSE(has_child(f, "DisplayName")) << "IdOnly returns ids only";
}

TEST(ExoSimFindFolder, IndexedPageFolderViewPages)
{
  Sim_Fixture sim;
  std::string view = "<m:IndexedPageFolderView MaxEntriesReturned=\"4\" Offset=\"8\" BasePoint=\"Beginning\"/>";
  Soap_Doc d;
  parse_soap(sim.ews(find_folder_body(distinguished("msgfolderroot"), "Shallow", "IdOnly", view)).body, d);
  pugi::xml_node root = d.first(M, "RootFolder");
  EXPECT_STREQ(root.attribute("IndexedPagingOffset").value(), "11");
  EXPECT_STREQ(root.attribute("TotalItemsInView").value(), "11");
  EXPECT_STREQ(root.attribute("IncludesLastItemInRange").value(), "true");
  EXPECT_EQ(d.all(T, "FolderId").size(), 3u);
}

TEST(ExoSimFindFolder, UnknownAndMalformedFolderIdsGetErrorResponses)
{
  Sim_Fixture sim;
  std::string good = folder_id_by_name(sim, "Inbox");
  std::string foreign = folder_id_by_name(sim, "Inbox", "alice.archer@demo.exosim.test");
  ASSERT_NE(good, foreign);
  Soap_Doc d;
  parse_soap(sim
               .ews(find_folder_body(folder_id("not base64 !") + folder_id(foreign) + folder_id(good) +
                                     distinguished("archiveroot")))
               .body,
             d);
  auto msgs = messages(d, "FindFolder");
  ASSERT_EQ(msgs.size(), 4u);
  std::vector<std::string> codes;
  for (const auto& m : msgs)
    codes.push_back(child_text(m, "ResponseCode"));
  EXPECT_EQ(codes, (std::vector<std::string>{"ErrorInvalidIdMalformed", "ErrorFolderNotFound", "NoError",
                                             "ErrorFolderNotFound"}));
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Error");
  EXPECT_FALSE(child_text(msgs[0], "MessageText").empty());
  EXPECT_EQ(child_text(msgs[0], "DescriptiveLinkKey"), "0");
}

TEST(ExoSimFindItem, PagingEdgesExactPageAndEmptyFolder)
{
  Sim_Fixture sim;  // page size 10
  std::string exact = folder_id_by_name(sim, "Exactly one page");
  Soap_Doc d;
  parse_soap(sim.ews(find_item_body(folder_id(exact), 0, 10)).body, d);
  pugi::xml_node root = d.first(M, "RootFolder");
  EXPECT_STREQ(root.attribute("IndexedPagingOffset").value(), "10");
  EXPECT_STREQ(root.attribute("TotalItemsInView").value(), "10");
  EXPECT_STREQ(root.attribute("IncludesLastItemInRange").value(), "true");
  EXPECT_EQ(d.all(T, "ItemId").size(), 10u);

  Soap_Doc nine;
  parse_soap(sim.ews(find_item_body(folder_id(exact), 0, 9)).body, nine);
  EXPECT_STREQ(nine.first(M, "RootFolder").attribute("IncludesLastItemInRange").value(), "false");
  Soap_Doc rest;
  parse_soap(sim.ews(find_item_body(folder_id(exact), 9, 9)).body, rest);
  EXPECT_EQ(rest.all(T, "ItemId").size(), 1u);
  EXPECT_STREQ(rest.first(M, "RootFolder").attribute("IncludesLastItemInRange").value(), "true");

  Soap_Doc empty;
  parse_soap(sim.ews(find_item_body(folder_id(folder_id_by_name(sim, "Empty")), 0, 10)).body, empty);
  root = empty.first(M, "RootFolder");
  EXPECT_STREQ(root.attribute("TotalItemsInView").value(), "0");
  EXPECT_STREQ(root.attribute("IncludesLastItemInRange").value(), "true");
  EXPECT_TRUE(empty.first(T, "Items"));
  EXPECT_EQ(empty.all(T, "ItemId").size(), 0u);
}

TEST(ExoSimFindItem, PagingVisitsEveryItemOnceWithTypedElements)
{
  Sim_Fixture sim;
  std::set<std::string> kinds;
  std::set<std::string> subjects_seen;
  int empty_subjects = 0;
  for (const char* folder : {"Inbox", "Calendar", "Contacts", "Tasks", "Notes", "Exactly one page"})
  {
    std::string id = folder_id_by_name(sim, folder);
    auto ids = all_item_ids(sim, id, 3);
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size()) << folder;
    Soap_Doc d;
    parse_soap(sim.ews(find_item_body(folder_id(id), 0, 1000)).body, d);
    EXPECT_EQ(d.all(T, "ItemId").size(), ids.size()) << folder;
    for (pugi::xml_node items = d.first(T, "Items"), item = items.first_child(); item; item = item.next_sibling())
    {
      std::string name = item.name();
      kinds.insert(name.substr(name.find(':') + 1));
      pugi::xml_node item_id = item.child("t:ItemId");
      EXPECT_FALSE(std::string(item_id.attribute("ChangeKey").value()).empty());
      EXPECT_TRUE(has_child(item, "DateTimeCreated"));
      EXPECT_TRUE(has_child(item, "LastModifiedTime"));
      EXPECT_EQ(child_text(item, "DateTimeCreated").back(), 'Z');
      if (!has_child(item, "Subject"))
        ++empty_subjects;
      subjects_seen.insert(child_text(item, "Subject"));
    }
  }
  for (const char* k : {"Message", "CalendarItem", "Contact", "Task", "Item"})
    EXPECT_TRUE(kinds.count(k)) << k;
  const std::set<std::string> allowed = {"Message",
                                         "CalendarItem",
                                         "Contact",
                                         "DistributionList",
                                         "MeetingRequest",
                                         "MeetingResponse",
                                         "MeetingCancellation",
                                         "MeetingMessage",
                                         "Task",
                                         "PostItem",
                                         "Item"};
  for (const auto& k : kinds)
    EXPECT_TRUE(allowed.count(k)) << k;
  EXPECT_GT(subjects_seen.size(), 3u);
}

TEST(ExoSimExportItems, ExportsStableBlobsWithPerItemErrors)
{
  Sim_Fixture sim;
  std::string inbox = folder_id_by_name(sim, "Inbox");
  auto ids = all_item_ids(sim, inbox, 100);
  ASSERT_GE(ids.size(), 2u);
  std::string missing = ids[0];
  missing[missing.size() - 3] = missing[missing.size() - 3] == 'A' ? 'B' : 'A';  // another (absent) item
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({ids[0], "%%%", ids[1], folder_id_by_name(sim, "Drafts")})).body, d);
  auto msgs = messages(d, "ExportItems");
  ASSERT_EQ(msgs.size(), 4u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Success");
  EXPECT_EQ(child_text(msgs[1], "ResponseCode"), "ErrorInvalidIdMalformed");
  EXPECT_STREQ(msgs[1].attribute("ResponseClass").value(), "Error");
  EXPECT_STREQ(msgs[2].attribute("ResponseClass").value(), "Success");
  EXPECT_STREQ(msgs[3].attribute("ResponseClass").value(), "Error") << "a folder id is no item id";
  EXPECT_STREQ(msgs[0].child("m:ItemId").attribute("Id").value(), ids[0].c_str());
  std::string blob;
  ASSERT_TRUE(exo_sim::base64_decode(msgs[0].child("m:Data").text().get(), blob));
  ASSERT_GE(blob.size(), 8u);
  EXPECT_EQ(blob.substr(0, 8), std::string("\x01\x00\x00\x00\x08\x00\x00\x00", 8));
  EXPECT_EQ(export_one(sim, ids[0]), blob) << "the same bytes on every export";
  EXPECT_NE(export_one(sim, ids[1]), blob);

  // Same seed in another simulator: same ids, same bytes.
  Sim_Fixture twin;
  EXPECT_EQ(all_item_ids(twin, folder_id_by_name(twin, "Inbox"), 100), ids);
  EXPECT_EQ(export_one(twin, ids[0]), blob);
  exo_sim::Sim_Options other = tiny_options();
  other.seed = 99;
  Sim_Fixture different(other);
  EXPECT_NE(export_one(different, ids[0]), blob);
}

TEST(ExoSimExportItems, LargeItemsAreSeveralMegabytes)
{
  exo_sim::Sim_Options o = tiny_options();
  o.profile.large_item_mib = 3;
  Sim_Fixture sim(o);
  auto ids = all_item_ids(sim, folder_id_by_name(sim, "Large items"), 10);
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_GE(export_one(sim, ids[0]).size(), 3u * 1024 * 1024);
}

TEST(ExoSimUploadItems, UploadThenExportRoundTripsByteForByte)
{
  Sim_Fixture sim;
  std::string inbox = folder_id_by_name(sim, "Inbox");
  auto ids = all_item_ids(sim, inbox, 100);
  ASSERT_FALSE(ids.empty());
  std::string original = export_one(sim, ids[0]);

  Soap_Doc created;
  parse_soap(sim.ews(create_folder_body(distinguished("msgfolderroot"), "Restored")).body, created);
  auto cmsgs = messages(created, "CreateFolder");
  ASSERT_EQ(cmsgs.size(), 1u);
  ASSERT_EQ(child_text(cmsgs[0], "ResponseCode"), "NoError");
  std::string restored = created.first(T, "FolderId").attribute("Id").value();
  ASSERT_FALSE(restored.empty());

  std::string body = "<m:UploadItems><m:Items>" + upload_item_xml(restored, exo_sim::base64_encode(original)) +
                     upload_item_xml(restored, "@@not base64@@") + upload_item_xml("bogus", "AAAA") +
                     "</m:Items></m:UploadItems>";
  Soap_Doc up;
  parse_soap(sim.ews(body).body, up);
  auto umsgs = messages(up, "UploadItems");
  ASSERT_EQ(umsgs.size(), 3u);
  EXPECT_EQ(child_text(umsgs[0], "ResponseCode"), "NoError");
  EXPECT_STREQ(umsgs[1].attribute("ResponseClass").value(), "Error");
  EXPECT_EQ(child_text(umsgs[2], "ResponseCode"), "ErrorInvalidIdMalformed");
  std::string new_id = umsgs[0].child("m:ItemId").attribute("Id").value();
  ASSERT_FALSE(new_id.empty());
  EXPECT_NE(new_id, ids[0]);

  EXPECT_EQ(export_one(sim, new_id), original);
  EXPECT_EQ(all_item_ids(sim, restored, 10), std::vector<std::string>{new_id});
  Soap_Doc listed;
  parse_soap(sim.ews(find_item_body(folder_id(inbox), 0, 1)).body, listed);
  Soap_Doc copy;
  parse_soap(sim.ews(find_item_body(folder_id(restored), 0, 1)).body, copy);
  EXPECT_EQ(child_text(copy.first(T, "Items").first_child(), "Subject"),
            child_text(listed.first(T, "Items").first_child(), "Subject"));
  EXPECT_EQ(sim.status()["items_uploaded"], 1);
}

TEST(ExoSimCreateFolder, DuplicateNamesUnderOneParentAreRefused)
{
  Sim_Fixture sim;
  ASSERT_EQ(sim.ews(create_folder_body(distinguished("msgfolderroot"), "Restore 1")).status, 200);
  Soap_Doc dup;
  parse_soap(sim.ews(create_folder_body(distinguished("msgfolderroot"), "RESTORE 1")).body, dup);
  auto msgs = messages(dup, "CreateFolder");
  ASSERT_EQ(msgs.size(), 1u);
  EXPECT_STREQ(msgs[0].attribute("ResponseClass").value(), "Error");
  EXPECT_EQ(child_text(msgs[0], "ResponseCode"), "ErrorFolderExists");
  pugi::xml_node folders = dup.first(M, "Folders");
  ASSERT_TRUE(folders);
  EXPECT_FALSE(folders.first_child());
  // Same name elsewhere is fine; an existing generated folder name clashes too.
  Soap_Doc other;
  parse_soap(sim.ews(create_folder_body(distinguished("inbox"), "Restore 1", "CalendarFolder")).body, other);
  EXPECT_EQ(std::string(other.first(M, "ResponseCode").text().get()), "NoError");
  EXPECT_TRUE(other.first(T, "CalendarFolder"));
  Soap_Doc clash;
  parse_soap(sim.ews(create_folder_body(distinguished("msgfolderroot"), "Inbox")).body, clash);
  EXPECT_EQ(std::string(clash.first(M, "ResponseCode").text().get()), "ErrorFolderExists");
  Soap_Doc missing;
  parse_soap(sim.ews(create_folder_body(folder_id("AAMkRjowOjk5OTk="), "X")).body, missing);
  EXPECT_EQ(std::string(missing.first(M, "ResponseCode").text().get()), "ErrorFolderNotFound");
  // The new folder is visible to FindFolder.
  EXPECT_FALSE(folder_id_by_name(sim, "Restore 1").empty());
}

TEST(ExoSimEnvelope, RequestServerVersionIsChecked)
{
  Sim_Fixture sim;
  std::string body = find_folder_body(distinguished("msgfolderroot"));
  for (const char* ok : {"Exchange2007", "Exchange2007_SP1", "Exchange2010", "Exchange2010_SP1", "Exchange2013_SP1",
                         "Exchange2016", "V2017_04_14", "V2018_01_08", ""})
    EXPECT_EQ(sim.ews(body, k_admin, "", ok).status, 200) << ok;
  for (const char* bad : {"Exchange2007_SP2", "Exchange2019", "Exchange2099", "exchange2016"})
  {
    SCOPED_TRACE(bad);
    expect_fault(sim.ews(body, k_admin, "", bad), "ErrorInvalidServerVersion");
  }
  // Export and upload came with Exchange 2010 SP1.
  expect_fault(sim.ews(export_items_body({"AAMkAAA="}), k_admin, "", "Exchange2010"), "ErrorIncorrectSchemaVersion");
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({"AAMkAAA="}), k_admin, "", "Exchange2010_SP1").body, d);
  EXPECT_EQ(std::string(d.first(M, "ResponseCode").text().get()), "ErrorInvalidIdMalformed");
}

TEST(ExoSimEnvelope, ImpersonationAndAnchorMailbox)
{
  Sim_Fixture sim;
  std::string body = find_folder_body(distinguished("msgfolderroot"));
  expect_fault(sim.ews(body, "nobody@demo.exosim.test"), "ErrorNonExistentMailbox");
  expect_fault(sim.ews(body, ""), "ErrorInvalidExchangeImpersonationHeaderData");
  long before = sim.status()["anchor_mailbox_missing"];
  EXPECT_EQ(sim.ews(body, k_admin, "", "Exchange2016", false).status, 200);
  EXPECT_EQ(sim.status()["anchor_mailbox_missing"].get<long>(), before + 1);
  EXPECT_EQ(sim.ews(body, k_admin).status, 200);
  EXPECT_EQ(sim.status()["anchor_mailbox_missing"].get<long>(), before + 1);
  // SmtpAddress and PrincipalName forms, and another prefix for every namespace.
  std::string envelope =
    "<e:Envelope xmlns:e=\"http://schemas.xmlsoap.org/soap/envelope/\"><e:Header>"
    "<RequestServerVersion xmlns=\"http://schemas.microsoft.com/exchange/services/2006/types\" "
    "Version=\"Exchange2016\"/>"
    "<x:ExchangeImpersonation xmlns:x=\"http://schemas.microsoft.com/exchange/services/2006/types\"><x:ConnectingSID>"
    "<x:SmtpAddress>alice.archer@demo.exosim.test</x:SmtpAddress></x:ConnectingSID></x:ExchangeImpersonation>"
    "</e:Header><e:Body><FindFolder xmlns=\"http://schemas.microsoft.com/exchange/services/2006/messages\" "
    "xmlns:y=\"http://schemas.microsoft.com/exchange/services/2006/types\" Traversal=\"Shallow\"><FolderShape>"
    "<y:BaseShape>IdOnly</y:BaseShape></FolderShape><ParentFolderIds><y:DistinguishedFolderId Id=\"inbox\"/>"
    "</ParentFolderIds></FindFolder></e:Body></e:Envelope>";
  Http_Result r = sim.ews_raw(
    envelope, {"Authorization: Bearer " + sim.token(k_ews_scope), "X-AnchorMailbox: alice.archer@demo.exosim.test"});
  EXPECT_EQ(r.status, 200) << r.body;
  Soap_Doc d;
  parse_soap(r.body, d);
  EXPECT_EQ(std::string(d.first(M, "ResponseCode").text().get()), "NoError");
}

TEST(ExoSimEnvelope, MalformedXmlAndUnknownOperationsGetFaults)
{
  Sim_Fixture sim;
  std::string token = "Authorization: Bearer " + sim.token(k_ews_scope);
  expect_fault(sim.ews_raw("<soap:Envelope><unclosed>", {token}), "ErrorSchemaValidation");
  expect_fault(sim.ews_raw("", {token}), "ErrorSchemaValidation");
  expect_fault(sim.ews_raw("<soap:Envelope xmlns:soap=\"https://schemas.xmlsoap.org/soap/envelope/\"><soap:Body>"
                           "<m:FindFolder xmlns:m=\"http://schemas.microsoft.com/exchange/services/2006/messages\"/>"
                           "</soap:Body></soap:Envelope>",
                           {token}),
               "ErrorSchemaValidation");
  expect_fault(sim.ews_raw(soap_envelope(impersonation_header(k_admin), "just text"), {token}),
               "ErrorSchemaValidation");
  expect_fault(sim.ews("<m:FindFolder Traversal=\"Deep\"><m:FolderShape><t:BaseShape>IdOnly</t:BaseShape>"
                       "</m:FolderShape><m:IndexedPageFolderView MaxEntriesReturned=\"-1\" Offset=\"x\"/>"
                       "<m:ParentFolderIds>" +
                       distinguished("inbox") + "</m:ParentFolderIds></m:FindFolder>"),
               "ErrorSchemaValidation");
  expect_fault(sim.ews("<m:GetItem><m:ItemShape/></m:GetItem>"), "ErrorInvalidRequest");
  expect_fault(sim.ews("<m:FindItem Traversal=\"Sideways\"/>"), "ErrorSchemaValidation");
  expect_fault(sim.ews("<m:ExportItems><m:ItemIds/></m:ExportItems>"), "ErrorSchemaValidation");
  EXPECT_EQ(sim.ews(find_folder_body(distinguished("inbox"))).status, 200) << "still serving";
  EXPECT_EQ(sim.ews_raw("<x/>", {}).status, 401) << "no credentials";
}

TEST(ExoSimEnvelope, BasicAuthAccountsUseTheirOwnMailbox)
{
  exo_sim::Sim_Options o = tiny_options();
  o.tenant.basic_accounts.push_back({"alice.archer@demo.exosim.test", "Passw0rd!"});
  Sim_Fixture sim(o);
  std::string envelope =
    soap_envelope("<t:RequestServerVersion Version=\"Exchange2010_SP1\"/>", find_folder_body(distinguished("inbox")));
  std::string good = "Authorization: Basic " + exo_sim::base64_encode("alice.archer@demo.exosim.test:Passw0rd!");
  std::string bad = "Authorization: Basic " + exo_sim::base64_encode("alice.archer@demo.exosim.test:nope");
  EXPECT_EQ(sim.ews_raw(envelope, {good}).status, 200);
  EXPECT_EQ(sim.ews_raw(envelope, {bad}).status, 401);
}

TEST(ExoSimUploadItems, UpdateActionsAndAssociatedItems)
{
  Sim_Fixture sim;
  std::string drafts = folder_id_by_name(sim, "Drafts");
  std::string inbox = folder_id_by_name(sim, "Inbox");
  int before = int(all_item_ids(sim, drafts, 100).size());
  auto upload = [&](const std::string& item_xml)
  {
    Soap_Doc d;
    parse_soap(sim.ews("<m:UploadItems><m:Items>" + item_xml + "</m:Items></m:UploadItems>").body, d);
    auto msgs = d.all(M, "UploadItemsResponseMessage");
    EXPECT_EQ(msgs.size(), 1u);
    return std::make_pair(child_text(msgs.at(0), "ResponseCode"),
                          std::string(msgs.at(0).child("m:ItemId").attribute("Id").value()));
  };
  auto first = upload(upload_item_xml(drafts, exo_sim::base64_encode("version one")));
  ASSERT_EQ(first.first, "NoError");
  // Update replaces the data of the same item in its folder.
  std::string update = "<t:Item CreateAction=\"Update\"><t:ParentFolderId Id=\"" + drafts + "\"/><t:ItemId Id=\"" +
                       first.second + "\"/><t:Data>" + exo_sim::base64_encode("version two") + "</t:Data></t:Item>";
  auto updated = upload(update);
  EXPECT_EQ(updated.first, "NoError");
  EXPECT_EQ(updated.second, first.second);
  EXPECT_EQ(export_one(sim, first.second), "version two");
  // Update against another parent folder fails; UpdateOrCreate there creates a new item.
  std::string wrong = update;
  wrong.replace(wrong.find(drafts), drafts.size(), inbox);
  EXPECT_EQ(upload(wrong).first, "ErrorItemNotFound");
  std::string either = wrong;
  either.replace(either.find("\"Update\""), 8, "\"UpdateOrCreate\"");
  auto created = upload(either);
  EXPECT_EQ(created.first, "NoError");
  EXPECT_NE(created.second, first.second);
  // CreateNew with an ItemId is refused.
  std::string bad = update;
  bad.replace(bad.find("\"Update\""), 8, "\"CreateNew\"");
  EXPECT_EQ(upload(bad).first, "ErrorInvalidRequest");
  EXPECT_EQ(int(all_item_ids(sim, drafts, 100).size()), before + 1);

  // A folder-associated item shows only in the Associated traversal.
  auto fai = upload("<t:Item CreateAction=\"CreateNew\" IsAssociated=\"true\"><t:ParentFolderId Id=\"" + drafts +
                    "\"/><t:Data>" + exo_sim::base64_encode("view settings") + "</t:Data></t:Item>");
  ASSERT_EQ(fai.first, "NoError");
  EXPECT_EQ(int(all_item_ids(sim, drafts, 100).size()), before + 1);
  Soap_Doc assoc;
  parse_soap(sim.ews(find_item_body(folder_id(drafts), 0, 10, "IdOnly", "Associated")).body, assoc);
  auto ids = assoc.all(T, "ItemId");
  ASSERT_EQ(ids.size(), 1u);
  EXPECT_EQ(std::string(ids[0].attribute("Id").value()), fai.second);
}
