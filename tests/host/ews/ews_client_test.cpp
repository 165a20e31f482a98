// The client's own logic over the in-memory transport: paging, batching,
// per-item failures, retries, cancellation and the choice of mailbox name form.

#include "ews_fake_transport.h"

#include "host/ews/ews_batches.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace
{
class EwsClient : public ::testing::Test
{
protected:
  void SetUp() override
  {
    EWS_Params::reset();
    EWS_Params::set_retry_base_delay_ms(1);
    EWS_Params::set_retry_budget(1000);
    transport = new Ews_Fake_Transport(service);
    client.set_transport(std::unique_ptr<EWS_Transport>(transport));
    ASSERT_TRUE(client.impersonate(service->mailbox(0).upn));
  }
  void TearDown() override { EWS_Params::reset(); }

  EWS_Export_Requests requests_for(const std::string& folder)
  {
    EWS_Items items;
    EXPECT_TRUE(client.list_items(folder, make_ews_item_appender(items), 0, 1000));
    EWS_Export_Requests requests(items.size());
    for (size_t i = 0; i < items.size(); ++i)
    {
      requests[i].id = items[i].id;
      requests[i].size = items[i].size;
    }
    return requests;
  }
  std::string ten_items() const
  {
    return service->folder_id(0, service->folder_id(0, Ews_Fake_Service::root_id, "Inbox"), "Ten items");
  }

  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();
  Ews_Fake_Transport* transport = nullptr;  // owned by the client
  EWS_Client client;
};

Host_Status busy(long ms) { return Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy", "busy", ms); }
}  // namespace

TEST_F(EwsClient, PagesWithTheCursorFromAnyOffsetAndNestsDeepListings)
{
  EWS_Items all, some;
  ASSERT_TRUE(client.list_items(ten_items(), make_ews_item_appender(all), 0, 100));
  ASSERT_EQ(all.size(), 10u);
  EWS_Params::set_paging_size(2);
  service->calls.clear();
  ASSERT_TRUE(client.list_items(ten_items(), make_ews_item_appender(some), 3, 5));
  ASSERT_EQ(some.size(), 5u);
  for (size_t i = 0; i < 5; ++i)
    EXPECT_EQ(some[i].id, all[i + 3].id);
  EXPECT_EQ(service->calls["FindItem"], 3);

  EWS_Folders deep;
  ASSERT_TRUE(client.list_folders(ewstype__DistinguishedFolderIdNameType__msgfolderroot, deep, false));
  ASSERT_EQ(deep.size(), 3u);
  EXPECT_EQ(deep[0].display_name, "Inbox");
  ASSERT_EQ(deep[0].subfolders.size(), 1u);
  EXPECT_EQ(deep[0].subfolders[0].display_name, "Ten items");
}

TEST_F(EwsClient, OneBadItemNeverFailsItsBatch)
{
  EWS_Export_Requests requests = requests_for(ten_items());
  ASSERT_EQ(requests.size(), 10u);
  service->item_faults[requests[1].id].push_back(Host_Status::make(HOST_STATUS_PERMANENT, "ErrorItemNotFound", ""));
  service->damaged.insert(requests[2].id);
  service->item_faults[requests[3].id].push_back(busy(1));
  service->item_faults[requests[4].id].push_back(
    Host_Status::make(HOST_STATUS_TRANSIENT, "ErrorBatchProcessingStopped", ""));
  Log_Capture capture;
  ASSERT_TRUE(client.export_items(requests)) << client.last_error();
  for (size_t i = 0; i < requests.size(); ++i)
  {
    const bool bad = i == 1 || i == 2;
    EXPECT_EQ(static_cast<bool>(requests[i].data.ptr), !bad) << i;
    EXPECT_EQ(requests[i].status.ok(), !bad) << i << " " << requests[i].status.text();
  }
  EXPECT_EQ(requests[1].status.code, "ErrorItemNotFound");
  EXPECT_EQ(requests[2].status.kind, HOST_STATUS_PERMANENT);
  // Only the two items refused for passing reasons were sent again, once.
  EXPECT_EQ(service->export_batches, (std::vector<size_t>{10, 2}));
  EXPECT_EQ(client.retries(), 1u);
  EXPECT_TRUE(capture.contains(requests[1].id));
  EXPECT_TRUE(capture.contains(requests[2].id));
}

TEST_F(EwsClient, AFailedBatchDoesNotStopTheNextOnes)
{
  EWS_Export_Requests requests = requests_for(ten_items());
  EWS_Params::set_batch_size(3);
  service->call_faults = {Host_Status(), Host_Status::make(HOST_STATUS_PERMANENT, "ErrorAccessDenied", "denied")};
  Log_Capture capture;
  EXPECT_FALSE(client.export_items(requests));
  EXPECT_EQ(service->export_batches, (std::vector<size_t>{3, 3, 1}));
  for (size_t i = 0; i < requests.size(); ++i)
  {
    const bool in_failed_batch = i >= 3 && i < 6;
    EXPECT_EQ(static_cast<bool>(requests[i].data.ptr), !in_failed_batch) << i;
    if (in_failed_batch)
    {
      EXPECT_EQ(requests[i].status.code, "ErrorAccessDenied");
    }
  }
  EXPECT_EQ(client.retries(), 0u);
}

TEST_F(EwsClient, BatchesBySizeAndSendsALargeItemAlone)
{
  const auto batches = ews_batches({100, 100, 5000, 100, 0, 100, 100}, 3, 1000);
  EXPECT_EQ(batches, (std::vector<std::pair<size_t, size_t>>{{0, 2}, {2, 3}, {3, 6}, {6, 7}}));
  EXPECT_EQ(ews_batches({}, 3, 1000).size(), 0u);
  EXPECT_EQ(ews_batches({5, 5}, 0, 0).size(), 2u);

  transport->limits_.max_request_bytes = 1000;
  EWS_Export_Requests requests = requests_for(ten_items());
  ASSERT_TRUE(client.export_items(requests));
  size_t at = 0;
  for (size_t n : service->export_batches)
  {
    long long bytes = 0;
    for (size_t i = at; i < at + n; ++i)
      bytes += requests[i].size;
    EXPECT_TRUE(n == 1 || bytes <= 1000) << n << " items, " << bytes << " bytes";
    at += n;
  }
  EXPECT_EQ(at, requests.size());
  EXPECT_GT(service->export_batches.size(), 3u);

  // Uploads are sized the same way; a refused folder fails every item.
  const std::string target = service->folder_id(0, Ews_Fake_Service::root_id, "Empty");
  std::vector<ustring> blobs(3, Ews_Fake_Service::make_data("x", 600));
  ASSERT_TRUE(client.upload_items(target, blobs)) << client.last_error();
  EXPECT_EQ(service->calls["UploadItems"], 3);
  for (const std::string& id : client.uploaded_ids())
    EXPECT_FALSE(id.empty());
  EXPECT_FALSE(client.upload_items("no-such-folder", blobs));
  EXPECT_EQ(client.last_status().code, "ErrorFolderNotFound");
}

TEST_F(EwsClient, CancelCutsALongBackOffShort)
{
  // The server asks for five minutes; the cancel comes from another thread.
  service->call_faults = {busy(300000)};
  EWS_Folders folders;
  bool listed = true;
  const auto start = std::chrono::steady_clock::now();
  std::thread worker([&] { listed = client.list_folders(10, folders, true); });
  while (transport->requests < 1)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  client.cancel();
  worker.join();
  EXPECT_FALSE(listed);
  EXPECT_EQ(client.last_status().kind, HOST_STATUS_CANCELLED);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  // Stays cancelled until resumed.
  EXPECT_FALSE(client.list_folders(10, folders, true));
  EXPECT_EQ(transport->requests, 1);
  client.resume();
  EXPECT_TRUE(client.list_folders(10, folders, true));

  // A cancel predicate (a job being stopped) is polled during the wait.
  EWS_Export_Requests requests = requests_for(ten_items());
  service->call_faults = {busy(300000)};
  std::atomic<bool> stop{false};
  client.set_cancel_predicate([&stop] { return stop.load(); });
  const int before = transport->requests;
  bool exported = true;
  std::thread exporter([&] { exported = client.export_items(requests); });
  while (transport->requests < before + 1)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  stop = true;
  exporter.join();
  EXPECT_FALSE(exported);
  EXPECT_EQ(requests[0].status.kind, HOST_STATUS_CANCELLED);
  EXPECT_FALSE(requests[0].data.ptr);
}

TEST_F(EwsClient, ImpersonatesByPrincipalNameAndFallsBackToAnSmtpAddress)
{
  EWS_Folders folders;
  ASSERT_TRUE(client.list_folders(10, folders, true));
  EXPECT_EQ(service->forms_seen, (std::vector<EWS_Mailbox_Form>{EWS_MAILBOX_PRINCIPAL_NAME}));

  // A proxy address: refused as a UPN, found as an SMTP address, remembered.
  service->forms_seen.clear();
  ASSERT_TRUE(client.impersonate(service->mailbox(0).proxies[0]));
  ASSERT_TRUE(client.list_folders(10, folders, true)) << client.last_error();
  EXPECT_EQ(service->forms_seen, (std::vector<EWS_Mailbox_Form>{EWS_MAILBOX_PRINCIPAL_NAME, EWS_MAILBOX_SMTP_ADDRESS}));
  EXPECT_EQ(client.mailbox_form(), EWS_MAILBOX_SMTP_ADDRESS);
  ASSERT_TRUE(client.impersonate(service->mailbox(1).upn));
  ASSERT_TRUE(client.impersonate(service->mailbox(0).proxies[0]));
  service->forms_seen.clear();
  ASSERT_TRUE(client.list_folders(10, folders, true));
  EXPECT_EQ(service->forms_seen, (std::vector<EWS_Mailbox_Form>{EWS_MAILBOX_SMTP_ADDRESS}));
  EXPECT_EQ(client.retries(), 0u);

  // No such mailbox in either form: one request each, then a permanent failure.
  ASSERT_TRUE(client.impersonate("nobody@corp.test"));
  service->forms_seen.clear();
  Log_Capture capture;
  EXPECT_FALSE(client.list_folders(10, folders, true));
  EXPECT_EQ(service->forms_seen.size(), 2u);
  EXPECT_EQ(client.last_status().code, "ErrorNonExistentMailbox");
  EXPECT_TRUE(capture.contains("nobody@corp.test"));
}
