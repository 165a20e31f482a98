// Wire details of the SOAP transport that the conformance suite does not reach:
// errors nested in other errors, per-item throttling, the impersonation element.

#include "ews_fake_service.h"
#include "ews_scripted_soap.h"

#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"
#include "host/ews/ews_transport_factory.h"
#include "support/scripted_server.h"

#include <gtest/gtest.h>

namespace
{
struct Scripted_Ews
{
  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();
  Ews_Scripted_Soap soap{service};
  Scripted_Server server{[this](const Scripted_Request& r) { return soap.answer(r); }};

  std::unique_ptr<EWS_Transport> transport(const std::string& mailbox)
  {
    EWS_Transport_Settings settings;
    settings.endpoint = server.url("/EWS/Exchange.asmx");
    auto t = EWS_Transport_Factory::create("ews", settings);
    EWS_Mailbox m;
    m.name = mailbox;
    t->set_mailbox(m);
    return t;
  }
};
}  // namespace

TEST(EwsSoapTransport, ReadsABackOffNestedInAnInnerErrorAndPerItemThrottling)
{
  Scripted_Ews ews;
  auto t = ews.transport(ews.service->mailbox(0).upn);
  ews.service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "inner ErrorServerBusy", "", 777));
  EWS_Folder_Page page;
  const Host_Status nested = t->find_folders(EWS_Folder_Ref(), false, EWS_Page_Cursor(), 10, page);
  EXPECT_EQ(nested.kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(nested.code, "ErrorInternalServerError");
  EXPECT_EQ(nested.retry_after_ms, 777);

  const std::string inbox = ews.service->folder_id(0, Ews_Fake_Service::root_id, "Inbox");
  EWS_Item_Page items;
  ASSERT_TRUE(t->find_items(inbox, EWS_Page_Cursor(), 3, items).ok());
  ASSERT_EQ(items.items.size(), 3u);
  EXPECT_FALSE(items.last);
  EXPECT_EQ(items.next, EWS_Page_Cursor::at(3));
  ews.service->item_faults[items.items[1].id].push_back(Host_Status::make(
    HOST_STATUS_THROTTLED, "ErrorServerBusy", "The server cannot service this request right now.", 55));
  EWS_Export_Requests requests(3);
  std::vector<EWS_Export_Request*> batch;
  for (size_t i = 0; i < 3; ++i)
  {
    requests[i].id = items.items[i].id;
    batch.push_back(&requests[i]);
  }
  ASSERT_TRUE(t->export_items(batch).ok());
  EXPECT_TRUE(requests[0].status.ok() && requests[2].status.ok());
  EXPECT_EQ(requests[1].status.kind, HOST_STATUS_THROTTLED);
  EXPECT_EQ(requests[1].status.retry_after_ms, 55);
  EXPECT_EQ(requests[1].status.code, "ErrorServerBusy");
  EXPECT_EQ(requests[1].status.message, "The server cannot service this request right now.");
}

TEST(EwsSoapTransport, ImpersonatesByPrincipalNameAndAnSmtpAddressWhenThatFails)
{
  Scripted_Ews ews;
  EWS_Params::reset();
  EWS_Client client;
  ASSERT_TRUE(client.init(ews.server.url("/EWS/Exchange.asmx"), "svc@corp.test", Secure_String("pw"), nullptr,
                          ews.service->mailbox(0).upn.c_str()));
  EWS_Folders folders;
  ASSERT_TRUE(client.list_folders(10, folders, true)) << client.last_error();
  EXPECT_EQ(ews.soap.last_form, "PrincipalName");
  // The primary SMTP address differs from the UPN: found as an SMTP address.
  ASSERT_TRUE(client.impersonate(ews.service->mailbox(1).smtp));
  ASSERT_TRUE(client.list_folders(10, folders, true)) << client.last_error();
  EXPECT_EQ(ews.soap.last_form, "SmtpAddress");
  EXPECT_EQ(ews.service->calls["FindFolder"], 3);
  EXPECT_EQ(client.retries(), 0u);
}

TEST(EwsSoapTransport, ACutExportAnswerKeepsWhatArrivedAndTheClientAsksOnlyForTheRest)
{
  Scripted_Ews ews;
  EWS_Params::reset();
  EWS_Params::set_retry_base_delay_ms(1);
  EWS_Client client;
  ASSERT_TRUE(client.init(ews.server.url("/EWS/Exchange.asmx"), "svc@corp.test", Secure_String("pw"), nullptr,
                          ews.service->mailbox(0).upn.c_str()));
  EWS_Items items;
  const std::string inbox = ews.service->folder_id(0, Ews_Fake_Service::root_id, "Inbox");
  ASSERT_TRUE(client.list_items(inbox, make_ews_item_appender(items), 0, 100));
  ASSERT_EQ(items.size(), 10u);
  EWS_Export_Requests requests(items.size());
  for (size_t i = 0; i < items.size(); ++i)
    requests[i].id = items[i].id;
  ews.service->damaged.insert(items[5].id);
  ews.service->call_faults.push_back(Host_Status::make(HOST_STATUS_TRANSIENT, "cut after 2", ""));
  ASSERT_TRUE(client.export_items(requests)) << client.last_error();
  EXPECT_EQ(ews.service->export_batches, (std::vector<size_t>{10, 8}));
  EXPECT_EQ(client.retries(), 1u);
  for (size_t i = 0; i < requests.size(); ++i)
  {
    if (i == 5)
      continue;
    ASSERT_TRUE(requests[i].data.ptr) << i << " " << requests[i].status.text();
    const ustring& expected = ews.service->mailbox(0).items[i].data;
    EXPECT_EQ(ustring(requests[i].data.ptr.get(), static_cast<size_t>(requests[i].data.size)), expected) << i;
  }
  EXPECT_EQ(requests[5].status.code, "invalid export data");
  EXPECT_FALSE(requests[5].data.ptr);
  EWS_Params::reset();
}
