// What every EWS transport must do, run over each one: the client's paging,
// batching and retrying rest on exactly these behaviours.

#include "ews_conformance_envs.h"

#include <gtest/gtest.h>

#include <cstring>
#include <set>

template <typename Env_T>
class EwsTransportConformance : public ::testing::Test
{
protected:
  // The one transport of a test (a scripted server serves one connection at a
  // time), acting for `name` in `form` from now on.
  EWS_Transport* acting_for(const std::string& name, EWS_Mailbox_Form form)
  {
    if (!transport_)
      transport_ = env.transport();
    EWS_Mailbox m;
    m.name = name;
    m.form = form;
    if (transport_)
      transport_->set_mailbox(m);
    return transport_.get();
  }
  EWS_Transport* transport() { return acting_for(env.upn(), EWS_MAILBOX_PRINCIPAL_NAME); }

  // Every item of a folder, a page of `max` at a time, following the cursor.
  Host_Status all_items(EWS_Transport& t, const std::string& folder, int max, EWS_Items& out, int& pages)
  {
    EWS_Page_Cursor at;
    for (pages = 1;; ++pages)
    {
      EWS_Item_Page page;
      const Host_Status s = t.find_items(folder, at, max, page);
      if (!s.ok())
        return s;
      out.insert(out.end(), page.items.begin(), page.items.end());
      if (page.last || pages > 100)
        return s;
      EXPECT_NE(page.next, at);
      at = page.next;
    }
  }

  Env_T env;
  std::unique_ptr<EWS_Transport> transport_;
};

typedef ::testing::Types<Soap_On_Exo_Sim, Soap_On_Scripted_Server, Graph_On_Exo_Sim, Graph_On_Scripted_Server,
                         Fake_Transport_Env>
  Ews_Transports;
TYPED_TEST_SUITE(EwsTransportConformance, Ews_Transports);

TYPED_TEST(EwsTransportConformance, DeclaresItsNameAndLimits)
{
  auto t = this->transport();
  ASSERT_TRUE(t);
  EXPECT_NE(std::strlen(t->name()), 0u);
  const EWS_Transport_Limits l = t->limits();
  EXPECT_GT(l.max_page_size, 0);
  EXPECT_GT(l.max_export_items, 0);
  EXPECT_GT(l.max_upload_items, 0);
  EXPECT_GT(l.max_request_bytes, 0);
}

TYPED_TEST(EwsTransportConformance, ListsFoldersPageByPageWithTheCursor)
{
  auto t = this->transport();
  EWS_Folder_Ref root;
  EWS_Folder_Page whole;
  ASSERT_TRUE(t->find_folders(root, false, EWS_Page_Cursor(), 1000, whole).ok());
  ASSERT_GE(whole.folders.size(), 3u);
  EXPECT_TRUE(whole.last);

  EWS_Folders paged;
  EWS_Page_Cursor at;
  for (int pages = 0; pages < 100; ++pages)
  {
    EWS_Folder_Page page;
    ASSERT_TRUE(t->find_folders(root, false, at, 2, page).ok());
    EXPECT_LE(page.folders.size(), 2u);
    paged.insert(paged.end(), page.folders.begin(), page.folders.end());
    if (page.last)
      break;
    at = page.next;
  }
  ASSERT_EQ(paged.size(), whole.folders.size());
  for (size_t i = 0; i < paged.size(); ++i)
    EXPECT_EQ(paged[i].id, whole.folders[i].id);

  // A deep listing, followed page by page (a transport may walk the tree one
  // request per page), names each folder's parent: the Inbox's children point at it.
  EWS_Folder_Page deep;
  at = EWS_Page_Cursor();
  for (int pages = 0; pages < 100; ++pages)
  {
    EWS_Folder_Page page;
    ASSERT_TRUE(t->find_folders(root, true, at, 1000, page).ok());
    deep.folders.insert(deep.folders.end(), page.folders.begin(), page.folders.end());
    deep.parent_ids.insert(deep.parent_ids.end(), page.parent_ids.begin(), page.parent_ids.end());
    if (page.last)
      break;
    at = page.next;
  }
  EXPECT_GT(deep.folders.size(), whole.folders.size());
  ASSERT_EQ(deep.parent_ids.size(), deep.folders.size());
  std::string inbox;
  for (const EWS_Folder& f : whole.folders)
    if (f.display_name == "Inbox")
      inbox = f.id;
  size_t children = 0;
  for (const std::string& p : deep.parent_ids)
    children += p == inbox ? 1 : 0;
  EXPECT_GT(children, 0u);
}

TYPED_TEST(EwsTransportConformance, ListsItemsWithTheirSizesPageByPage)
{
  auto t = this->transport();
  const std::string folder = this->env.ten_items(*t);
  ASSERT_FALSE(folder.empty());
  EWS_Items items;
  int pages = 0;
  ASSERT_TRUE(this->all_items(*t, folder, 4, items, pages).ok());
  EXPECT_EQ(items.size(), 10u);
  EXPECT_EQ(pages, 3);
  std::set<std::string> ids;
  for (const EWS_Item& i : items)
  {
    ids.insert(i.id);
    EXPECT_GT(i.size, 0) << i.id;
    EXPECT_GT(i.ctime, 0);
  }
  EXPECT_EQ(ids.size(), 10u);

  // From a later position the listing goes on where it was.
  EWS_Item_Page rest;
  ASSERT_TRUE(t->find_items(folder, EWS_Page_Cursor::at(8), 10, rest).ok());
  ASSERT_EQ(rest.items.size(), 2u);
  EXPECT_EQ(rest.items[0].id, items[8].id);
  EXPECT_TRUE(rest.last);
}

TYPED_TEST(EwsTransportConformance, ExportsEachItemWithItsOwnStatus)
{
  auto t = this->transport();
  EWS_Items items;
  int pages = 0;
  ASSERT_TRUE(this->all_items(*t, this->env.ten_items(*t), 10, items, pages).ok());
  ASSERT_EQ(items.size(), 10u);
  ASSERT_TRUE(this->env.fail_item(items[1].id));

  EWS_Export_Requests requests(4);
  requests[0].id = items[0].id;
  requests[1].id = items[1].id;
  requests[2].id = "not-an-id";
  requests[3].id = items[3].id;
  std::vector<EWS_Export_Request*> batch;
  for (EWS_Export_Request& r : requests)
    batch.push_back(&r);
  ASSERT_TRUE(t->export_items(batch).ok());
  EXPECT_TRUE(requests[0].status.ok()) << requests[0].status.text();
  ASSERT_TRUE(requests[0].data.ptr);
  EXPECT_GT(requests[0].data.size, 0);
  EXPECT_TRUE(requests[3].status.ok() && requests[3].data.ptr);
  for (size_t i : {1u, 2u})
  {
    EXPECT_EQ(requests[i].status.kind, HOST_STATUS_PERMANENT) << requests[i].status.text();
    EXPECT_FALSE(requests[i].status.code.empty());
    EXPECT_FALSE(requests[i].data.ptr);
  }
}

TYPED_TEST(EwsTransportConformance, UndecodableDataFailsThatItemAlone)
{
  auto t = this->transport();
  EWS_Items items;
  int pages = 0;
  ASSERT_TRUE(this->all_items(*t, this->env.ten_items(*t), 10, items, pages).ok());
  ASSERT_GE(items.size(), 3u);
  if (!this->env.damage_item(items[1].id))
    GTEST_SKIP() << "this service cannot damage an item's data";
  EWS_Export_Requests requests(3);
  std::vector<EWS_Export_Request*> batch;
  for (size_t i = 0; i < 3; ++i)
  {
    requests[i].id = items[i].id;
    batch.push_back(&requests[i]);
  }
  ASSERT_TRUE(t->export_items(batch).ok());
  EXPECT_TRUE(requests[0].status.ok() && requests[0].data.ptr);
  EXPECT_EQ(requests[1].status.kind, HOST_STATUS_PERMANENT);
  EXPECT_FALSE(requests[1].data.ptr);
  EXPECT_TRUE(requests[2].status.ok() && requests[2].data.ptr);
}

TYPED_TEST(EwsTransportConformance, CreatesFoldersAndUploadsItemsThatExportTheSame)
{
  auto t = this->transport();
  EWS_Folder_Ref root;
  EWS_Folder_Creation_Request folder;
  folder.display_name = "Restored";
  ASSERT_TRUE(t->create_folder(root, folder).ok());
  ASSERT_FALSE(folder.id.empty());
  EWS_Folder_Creation_Request again;
  again.display_name = "Restored";
  const Host_Status duplicate = t->create_folder(root, again);
  EXPECT_EQ(duplicate.kind, HOST_STATUS_PERMANENT);
  EXPECT_TRUE(t->is_folder_exists(duplicate)) << duplicate.text();
  EXPECT_FALSE(t->is_folder_exists(Host_Status::make(HOST_STATUS_PERMANENT, "ErrorFolderNotFound", "")));

  const ustring a = Ews_Fake_Service::make_data("a", 3000);
  const ustring b = Ews_Fake_Service::make_data("b", 1);
  std::vector<EWS_Upload_Result> results;
  ASSERT_TRUE(t->upload_items(folder.id, {&a, &b}, results).ok());
  ASSERT_EQ(results.size(), 2u);
  EWS_Export_Requests back(2);
  std::vector<EWS_Export_Request*> batch;
  for (size_t i = 0; i < 2; ++i)
  {
    ASSERT_TRUE(results[i].status.ok()) << results[i].status.text();
    ASSERT_FALSE(results[i].id.empty());
    back[i].id = results[i].id;
    batch.push_back(&back[i]);
  }
  ASSERT_TRUE(t->export_items(batch).ok());
  ASSERT_TRUE(back[0].data.ptr && back[1].data.ptr);
  EXPECT_EQ(ustring(back[0].data.ptr.get(), static_cast<size_t>(back[0].data.size)), a);
  EXPECT_EQ(ustring(back[1].data.ptr.get(), static_cast<size_t>(back[1].data.size)), b);
}

TYPED_TEST(EwsTransportConformance, ReportsThrottlingWithTheSuggestedWait)
{
  auto t = this->transport();
  this->env.throttle(4321);
  EWS_Folder_Ref root;
  EWS_Folder_Page page;
  const Host_Status s = t->find_folders(root, false, EWS_Page_Cursor(), 10, page);
  this->env.calm();
  EXPECT_EQ(s.kind, HOST_STATUS_THROTTLED) << s.text();
  EXPECT_FALSE(s.code.empty());
  // EWS gives the wait in milliseconds; Graph's Retry-After in whole seconds.
  if (std::string(t->name()) == "graph")
    EXPECT_EQ(s.retry_after_ms, 5000);
  else
  {
    EXPECT_EQ(s.code, "ErrorServerBusy");
    EXPECT_EQ(s.retry_after_ms, 4321);
  }
  EXPECT_EQ(s.message.find('\n'), std::string::npos) << s.message;  // trimmed
  ASSERT_FALSE(s.message.empty());
  EXPECT_NE(s.message.front(), ' ');
  EXPECT_TRUE(t->find_folders(root, false, EWS_Page_Cursor(), 10, page).ok());
}

TYPED_TEST(EwsTransportConformance, NamesMailboxesByPrincipalNameOrSmtpAddress)
{
  const Mailbox_Names names = this->env.renamed();
  EWS_Folder_Ref root;
  EWS_Folder_Page page;
  auto by_upn = this->acting_for(names.upn, EWS_MAILBOX_PRINCIPAL_NAME);
  EXPECT_TRUE(by_upn->find_folders(root, false, EWS_Page_Cursor(), 10, page).ok());

  auto nobody = this->acting_for("nobody@nowhere.test", EWS_MAILBOX_PRINCIPAL_NAME);
  const Host_Status unknown = nobody->find_folders(root, false, EWS_Page_Cursor(), 10, page);
  EXPECT_EQ(unknown.kind, HOST_STATUS_PERMANENT);
  EXPECT_TRUE(nobody->is_unknown_mailbox(unknown)) << unknown.text();

  // A proxy address is an SMTP address, not a user principal name; nor is the
  // primary SMTP address of a user whose principal name differs.
  auto proxy_as_upn = this->acting_for(names.proxy, EWS_MAILBOX_PRINCIPAL_NAME);
  EXPECT_TRUE(proxy_as_upn->is_unknown_mailbox(proxy_as_upn->find_folders(root, false, EWS_Page_Cursor(), 10, page)));
  auto smtp_as_upn = this->acting_for(names.smtp, EWS_MAILBOX_PRINCIPAL_NAME);
  EXPECT_TRUE(smtp_as_upn->is_unknown_mailbox(smtp_as_upn->find_folders(root, false, EWS_Page_Cursor(), 10, page)));

  auto by_smtp = this->acting_for(names.smtp, EWS_MAILBOX_SMTP_ADDRESS);
  EXPECT_TRUE(by_smtp->find_folders(root, false, EWS_Page_Cursor(), 10, page).ok());
  auto proxy = this->acting_for(names.proxy, EWS_MAILBOX_SMTP_ADDRESS);
  EXPECT_TRUE(proxy->find_folders(root, false, EWS_Page_Cursor(), 10, page).ok());
}
