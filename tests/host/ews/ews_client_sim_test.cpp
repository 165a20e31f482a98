#include "host/ews/ews_sim_fixture.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <set>
#include <nlohmann/json.hpp>

namespace
{
std::string inbox_child_id(EWS_Client& client, const std::string& name)
{
  EWS_Folders top, inbox;
  if (!client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true))
    return "";
  const EWS_Folder* in = Ews_Sim::named(top, "Inbox");
  if (!in || !client.list_folders(in->id, inbox, true))
    return "";
  const EWS_Folder* f = Ews_Sim::named(inbox, name);
  return f ? f->id : "";
}

EWS_Items all_items(EWS_Client& client, const std::string& folder_id)
{
  EWS_Items items;
  client.list_items(folder_id, make_ews_item_appender(items), 0, 100000);
  return items;
}
}  // namespace

TEST(EwsClientSim, ListsFoldersShallowDeepAndPaged)
{
  Ews_Sim env;
  auto client = env.client();
  ASSERT_TRUE(client);
  EWS_Folders top;
  ASSERT_TRUE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true))
    << client->last_error();
  const EWS_Folder* inbox = Ews_Sim::named(top, "Inbox");
  ASSERT_NE(inbox, nullptr);
  EXPECT_FALSE(inbox->id.empty());
  EXPECT_FALSE(inbox->change_key.empty());
  EXPECT_GT(inbox->subfolders_count, 0);
  EXPECT_TRUE(inbox->subfolders_counted);
  ASSERT_NE(Ews_Sim::named(top, "Calendar"), nullptr);
  EXPECT_EQ(Ews_Sim::named(top, "Calendar")->type, EWS_FOLDER_TYPE_CALENDAR);
  EXPECT_EQ(Ews_Sim::named(top, "Contacts")->type, EWS_FOLDER_TYPE_CONTACTS);
  EXPECT_EQ(Ews_Sim::named(top, "Tasks")->type, EWS_FOLDER_TYPE_TASKS);
  EXPECT_EQ(Ews_Sim::named(top, "Drafts")->type, EWS_FOLDER_TYPE_FOLDER);
  for (const EWS_Folder& f : top)
    EXPECT_TRUE(f.subfolders.empty());

  // By id; an empty id means the message folder root.
  EWS_Folders inbox_children, root_again;
  ASSERT_TRUE(client->list_folders(inbox->id, inbox_children, true));
  EXPECT_EQ(static_cast<int>(inbox_children.size()), inbox->subfolders_count);
  ASSERT_NE(Ews_Sim::named(inbox_children, "Empty"), nullptr);
  // A leaf is reported with a count of 0, which the backup trusts to skip its FindFolder.
  EXPECT_TRUE(Ews_Sim::named(inbox_children, "Empty")->subfolders_counted);
  EXPECT_EQ(Ews_Sim::named(inbox_children, "Empty")->subfolders_count, 0);
  ASSERT_TRUE(client->list_folders(std::string(), root_again, true));
  EXPECT_EQ(root_again.size(), top.size());

  // Deep: the same first level, nested.
  EWS_Folders deep;
  ASSERT_TRUE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, deep, false));
  ASSERT_EQ(deep.size(), top.size());
  const EWS_Folder* deep_inbox = Ews_Sim::named(deep, "Inbox");
  ASSERT_NE(deep_inbox, nullptr);
  ASSERT_EQ(deep_inbox->subfolders.size(), inbox_children.size());
  for (size_t i = 0; i < inbox_children.size(); ++i)
    EXPECT_EQ(deep_inbox->subfolders[i].id, inbox_children[i].id);

  // Paged FindFolder gives the same result as one page.
  env.sim.reset_counters();
  EWS_Params::set_paging_size(3);
  EWS_Folders paged;
  ASSERT_TRUE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, paged, true));
  ASSERT_EQ(paged.size(), top.size());
  for (size_t i = 0; i < top.size(); ++i)
    EXPECT_EQ(paged[i].id, top[i].id);
  EXPECT_EQ(env.sim.status()["calls"]["FindFolder"], static_cast<int>((top.size() + 2) / 3));
  EXPECT_EQ(env.sim.status().value("anchor_mailbox_missing", 0), 0);
}

TEST(EwsClientSim, ListsItemsPageByPageWithEdges)
{
  Ews_Sim env;
  auto client = env.client();
  const std::string id = inbox_child_id(*client, "Exactly one page");
  ASSERT_FALSE(id.empty());

  EWS_Items items;
  ASSERT_TRUE(client->list_items(id, make_ews_item_appender(items), 0, 10));
  ASSERT_EQ(items.size(), 10u);
  // The page after an exactly full one is empty.
  ASSERT_TRUE(client->list_items(id, make_ews_item_appender(items), 10, 10));
  EXPECT_EQ(items.size(), 10u);

  std::set<std::string> ids;
  for (const EWS_Item& item : items)
  {
    ids.insert(item.id);
    EXPECT_FALSE(item.change_key.empty());
    EXPECT_GT(item.ctime, 0);
    EXPECT_GE(item.mtime, item.ctime);
  }
  EXPECT_EQ(ids.size(), 10u);

  // Pages of 4 from offset 0, 4, 8 cover the same items in order.
  EWS_Items paged;
  for (int offset = 0;; offset += 4)
  {
    const size_t before = paged.size();
    ASSERT_TRUE(client->list_items(id, make_ews_item_appender(paged), offset, 4));
    if (paged.size() - before < 4)
      break;
  }
  ASSERT_EQ(paged.size(), 10u);
  for (size_t i = 0; i < paged.size(); ++i)
    EXPECT_EQ(paged[i].id, items[i].id);

  // Short pages from a server that is not done are followed up, so callers
  // that stop at a short page lose nothing.
  env.sim.set_faults({{"partial_page_rate", 1.0}});
  EWS_Params::set_paging_size(1000);
  EWS_Items partial;
  ASSERT_TRUE(client->list_items(id, make_ews_item_appender(partial), 0, 10));
  EXPECT_EQ(partial.size(), 10u);
  EXPECT_GT(env.fault_count("partial_page"), 0);

  EWS_Items none;
  ASSERT_TRUE(client->list_items(inbox_child_id(*client, "Empty"), make_ews_item_appender(none), 0, 50));
  EXPECT_TRUE(none.empty());
  EXPECT_FALSE(client->list_items("", make_ews_item_appender(none), 0, 5));
}

TEST(EwsClientSim, ExportsItemsAndReportsRefusedOnesPerItem)
{
  Ews_Sim env;
  auto client = env.client();
  const EWS_Items items = all_items(*client, inbox_child_id(*client, "Exactly one page"));
  ASSERT_GE(items.size(), 4u);
  env.sim.set_faults({{"fail_items", {items[1].id}}});

  EWS_Export_Requests requests(4);
  for (size_t i = 0; i < 4; ++i)
    requests[i].id = items[i].id;
  Log_Capture capture;
  ASSERT_TRUE(client->export_items(requests)) << client->last_error();
  EXPECT_TRUE(requests[0].data.ptr);
  EXPECT_GT(requests[0].data.size, 0);
  EXPECT_FALSE(requests[1].data.ptr);
  EXPECT_EQ(requests[1].status.code, "ErrorItemNotFound");
  EXPECT_TRUE(requests[2].data.ptr && requests[3].data.ptr);
  EXPECT_TRUE(capture.contains(items[1].id));

  // Stable content, and batches larger than the batch size are split.
  EWS_Params::set_batch_size(2);
  env.sim.reset_counters();
  EWS_Export_Requests again(requests.begin(), requests.end());
  ASSERT_TRUE(client->export_items(again));
  EXPECT_EQ(env.sim.status()["calls"]["ExportItems"], 2);
  ASSERT_EQ(again[0].data.size, requests[0].data.size);
  EXPECT_EQ(0, memcmp(again[0].data.ptr.get(), requests[0].data.ptr.get(), static_cast<size_t>(again[0].data.size)));

  EWS_Export_Requests bad(1);
  bad[0].id = "not-an-id";
  ASSERT_TRUE(client->export_items(bad));
  EXPECT_FALSE(bad[0].data.ptr);
  EXPECT_EQ(bad[0].status.code, "ErrorInvalidIdMalformed");
}

TEST(EwsClientSim, CreatesFoldersAndUploadsItemsThatExportTheSame)
{
  Ews_Sim env;
  auto source = env.client("alice.archer");
  const EWS_Items items = all_items(*source, inbox_child_id(*source, "Exactly one page"));
  ASSERT_FALSE(items.empty());
  EWS_Export_Requests exported(2);
  exported[0].id = items[0].id;
  exported[1].id = items[1].id;
  ASSERT_TRUE(source->export_items(exported));

  auto target = env.client("admin");
  EWS_Folder_Creation_Request request;
  request.display_name = "Restored";
  ASSERT_TRUE(target->create_folder("", request, ewstype__DistinguishedFolderIdNameType__msgfolderroot))
    << target->last_error();
  ASSERT_FALSE(request.id.empty());
  EWS_Folder_Creation_Request child;
  child.display_name = "Child";
  ASSERT_TRUE(target->create_folder(request.id, child, ewstype__DistinguishedFolderIdNameType__msgfolderroot));

  EWS_Folder_Creation_Request duplicate;
  duplicate.display_name = "restored";
  Log_Capture capture;
  EXPECT_FALSE(target->create_folder("", duplicate, ewstype__DistinguishedFolderIdNameType__msgfolderroot));
  EXPECT_NE(target->last_error().find("ErrorFolderExists"), std::string::npos);
  EXPECT_EQ(target->retries(), 0u);

  std::vector<ustring> blobs;
  for (const EWS_Export_Request& r : exported)
    blobs.emplace_back(r.data.ptr.get(), static_cast<size_t>(r.data.size));
  ASSERT_TRUE(target->upload_items(child.id, blobs)) << target->last_error();
  ASSERT_EQ(target->uploaded_ids().size(), 2u);
  EXPECT_FALSE(target->uploaded_ids()[0].empty());

  const EWS_Items restored = all_items(*target, child.id);
  ASSERT_EQ(restored.size(), 2u);
  EWS_Export_Requests round(1);
  round[0].id = target->uploaded_ids()[0];
  ASSERT_TRUE(target->export_items(round));
  ASSERT_EQ(round[0].data.size, exported[0].data.size);
  EXPECT_EQ(0, memcmp(round[0].data.ptr.get(), exported[0].data.ptr.get(), static_cast<size_t>(round[0].data.size)));

  EWS_Folders top;
  ASSERT_TRUE(target->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, top, true));
  EXPECT_NE(Ews_Sim::named(top, "Restored"), nullptr);
}

TEST(EwsClientSim, ImpersonationOfAMailboxItCannotOpenFailsAtOnce)
{
  Ews_Sim env;
  auto client = env.client();
  ASSERT_TRUE(client->impersonate("nobody@demo.exosim.test"));
  Log_Capture capture;
  EWS_Folders folders;
  EXPECT_FALSE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, folders, true));
  EXPECT_NE(client->last_error().find("ErrorNonExistentMailbox"), std::string::npos) << client->last_error();
  EXPECT_EQ(client->retries(), 0u);
  EXPECT_TRUE(capture.contains("nobody@demo.exosim.test"));

  // Back to a real mailbox on the same client.
  ASSERT_TRUE(client->impersonate(env.sim.mailbox("admin")));
  EXPECT_TRUE(client->list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, folders, true));

  EWS_Client uninitialised;
  EXPECT_FALSE(uninitialised.list_folders(10, folders, true));
  EXPECT_FALSE(uninitialised.init("not a url", "", Secure_String(), env.auth, nullptr));
  EXPECT_FALSE(uninitialised.init(env.sim.entry().ews_endpoint, "", Secure_String(), nullptr, nullptr));
}

TEST(EwsClientSim, BasicAuthenticationForOnPremisesAccounts)
{
  Ews_Sim env({"--profile", "tiny", "--basic-account", "alice.archer@demo.exosim.test:pa55word"});
  EWS_Client client;
  ASSERT_TRUE(client.init(env.sim.entry().ews_endpoint, "alice.archer@demo.exosim.test", Secure_String("pa55word"),
                          nullptr, nullptr));
  EWS_Folders folders;
  ASSERT_TRUE(client.list_folders(10, folders, true)) << client.last_error();
  EXPECT_NE(Ews_Sim::named(folders, "Inbox"), nullptr);

  EWS_Client wrong;
  ASSERT_TRUE(
    wrong.init(env.sim.entry().ews_endpoint, "alice.archer@demo.exosim.test", Secure_String("nope"), nullptr, nullptr));
  Log_Capture capture;
  EXPECT_FALSE(wrong.list_folders(10, folders, true));
  EXPECT_NE(wrong.last_error().find("HTTP 401"), std::string::npos);
  EXPECT_EQ(wrong.retries(), 0u);
  EXPECT_FALSE(capture.contains("nope"));
}
