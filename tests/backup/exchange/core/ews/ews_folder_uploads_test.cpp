// Uploads of one restore run into one folder, settled after lost answers: two
// uploads whose answers were lost at the same time are reconciled together from
// one listing of the folder, so each item ends up there exactly once or fails.

#include "backup/exchange/core/ews/ews_folder_uploads.h"
#include "host/ews/ews_b64_data.h"
#include "host/ews/ews_params.h"
#include "support/scripted_server.h"
#include "tests/host/ews/ews_fake_service.h"
#include "tests/host/ews/ews_scripted_soap.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace
{
enum Fate
{
  DROP_AFTER_ACTING,
  DROP_BEFORE_ACTING,
};

// A SOAP service of fake mailboxes whose server closes the connection of
// chosen requests without answering, after or before acting on them.
struct Service
{
  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();
  Ews_Scripted_Soap soap{service};
  std::mutex lock;
  std::vector<std::pair<std::string, Fate>> fates;  // by a text of the request body
  Scripted_Server server{[this](const Scripted_Request& r) { return answer(r); }};

  Scripted_Reply answer(const Scripted_Request& r)
  {
    std::lock_guard<std::mutex> guard(lock);
    for (auto it = fates.begin(); it != fates.end(); ++it)
      if (r.body.find(it->first) != std::string::npos)
      {
        const Fate fate = it->second;
        fates.erase(it);
        Scripted_Reply reply;
        if (fate == DROP_AFTER_ACTING)
          reply = soap.answer(r);
        reply.drop = true;
        return reply;
      }
    // The server serves one connection at a time: the clients of the two
    // uploads must not keep theirs.
    Scripted_Reply reply = soap.answer(r);
    reply.headers["Connection"] = "close";
    return reply;
  }

  void drop(const ustring& item, Fate fate)
  {
    std::lock_guard<std::mutex> guard(lock);
    fates.push_back({EWS_b64_Data::encode(item.data(), item.size()), fate});
  }

  std::unique_ptr<EWS_Client> client()
  {
    std::unique_ptr<EWS_Client> c(new EWS_Client);
    EXPECT_TRUE(c->init(server.url("/EWS/Exchange.asmx"), "svc@contoso.test", Secure_String("pw"), nullptr,
                        service->mailbox(0).upn.c_str()));
    return c;
  }

  int calls(const char* operation)
  {
    std::lock_guard<std::mutex> guard(lock);
    return service->calls[operation];
  }

  std::multiset<ustring> contents(const std::string& folder)
  {
    std::lock_guard<std::mutex> guard(lock);
    std::multiset<ustring> out;
    for (const Fake_Ews_Item& i : service->mailbox(0).items)
      if (i.folder == folder)
        out.insert(i.data);
    return out;
  }
};

// One upload as the item writer does it: inside the folder's bracket, with the
// record as the client's reconciler. Returns whether the item was uploaded.
bool upload(EWS_Folder_Uploads& uploads, EWS_Client& client, const ustring& item, bool begun)
{
  if (!begun && !uploads.begin())
    return false;
  client.set_upload_reconciler([&](const std::string&, size_t count, std::vector<std::string>& landed)
                               { return uploads.reconcile(client, count, landed); });
  const bool ok = client.upload_items(uploads.folder_id(), std::vector<ustring>{item});
  client.set_upload_reconciler(EWS_Upload_Reconciler());
  uploads.end(client.uploaded_ids());
  return ok;
}

// Two uploads already inside their brackets, run on two threads at once.
void upload_both(EWS_Folder_Uploads& uploads, EWS_Client& a, const ustring& item_a, bool& ok_a, EWS_Client& b,
                 const ustring& item_b, bool& ok_b)
{
  ASSERT_TRUE(uploads.begin());
  ASSERT_TRUE(uploads.begin());
  std::thread first([&] { ok_a = upload(uploads, a, item_a, true); });
  std::thread second([&] { ok_b = upload(uploads, b, item_b, true); });
  first.join();
  second.join();
}
}  // namespace

TEST(EwsFolderUploads, ConcurrentUploadsWithLostAnswersEndUpOnceOrFail)
{
  EWS_Params::set_retry_base_delay_ms(5);
  Service s;
  const std::string folder = s.service->folder_id(0, Ews_Fake_Service::root_id, "Empty");
  EWS_Folder_Uploads uploads(folder);
  std::unique_ptr<EWS_Client> a = s.client(), b = s.client();
  std::multiset<ustring> want;

  // A plain upload is claimed with the id it was given.
  const ustring plain = Ews_Fake_Service::make_data("plain", 2000);
  ASSERT_TRUE(upload(uploads, *a, plain, false));
  want.insert(plain);
  EXPECT_EQ(uploads.claimed(), 1u);

  // Both acted on, both answers lost: the one listing finds two unclaimed items
  // for two waiting uploads; each takes one and nothing is sent again.
  const ustring a1 = Ews_Fake_Service::make_data("a1", 3000), b1 = Ews_Fake_Service::make_data("b1", 4000);
  s.drop(a1, DROP_AFTER_ACTING);
  s.drop(b1, DROP_AFTER_ACTING);
  bool ok_a = false, ok_b = false;
  ASSERT_NO_FATAL_FAILURE(upload_both(uploads, *a, a1, ok_a, *b, b1, ok_b));
  EXPECT_TRUE(ok_a) << a->last_error();
  EXPECT_TRUE(ok_b) << b->last_error();
  want.insert(a1);
  want.insert(b1);
  EXPECT_EQ(s.contents(folder), want);
  EXPECT_EQ(s.calls("UploadItems"), 3);
  EXPECT_EQ(s.calls("FindItem"), 1);
  EXPECT_EQ(uploads.claimed(), 3u);
  std::set<std::string> ids(a->uploaded_ids().begin(), a->uploaded_ids().end());
  ids.insert(b->uploaded_ids().begin(), b->uploaded_ids().end());
  EXPECT_EQ(ids.size(), 2u);
  for (const std::string& id : ids)
    EXPECT_NE(id, "");

  // Neither reached the service: both are sent again, once.
  const ustring a2 = Ews_Fake_Service::make_data("a2", 3000), b2 = Ews_Fake_Service::make_data("b2", 4000);
  s.drop(a2, DROP_BEFORE_ACTING);
  s.drop(b2, DROP_BEFORE_ACTING);
  ASSERT_NO_FATAL_FAILURE(upload_both(uploads, *a, a2, ok_a, *b, b2, ok_b));
  EXPECT_TRUE(ok_a) << a->last_error();
  EXPECT_TRUE(ok_b) << b->last_error();
  want.insert(a2);
  want.insert(b2);
  EXPECT_EQ(s.contents(folder), want);
  EXPECT_EQ(uploads.claimed(), 5u);

  // One landed and one did not: which is which cannot be told from ids, so
  // both fail and neither is sent again; the one that landed stays, and is not
  // taken later for another upload's item.
  const ustring a3 = Ews_Fake_Service::make_data("a3", 3000), b3 = Ews_Fake_Service::make_data("b3", 4000);
  s.drop(a3, DROP_AFTER_ACTING);
  s.drop(b3, DROP_BEFORE_ACTING);
  const int sent = s.calls("UploadItems");
  const int listings = s.calls("FindItem");
  ASSERT_NO_FATAL_FAILURE(upload_both(uploads, *a, a3, ok_a, *b, b3, ok_b));
  EXPECT_EQ(s.calls("FindItem"), listings + 1);
  EXPECT_FALSE(ok_a);
  EXPECT_FALSE(ok_b);
  EXPECT_EQ(a->last_status().code, "outcome unknown");
  EXPECT_EQ(b->last_status().code, "outcome unknown");
  EXPECT_EQ(s.calls("UploadItems"), sent + 1);
  want.insert(a3);
  EXPECT_EQ(s.contents(folder), want);

  // An upload that starts while another waits to be reconciled is held back
  // until that is settled, so the listing cannot see its item.
  const ustring a4 = Ews_Fake_Service::make_data("a4", 3000), b4 = Ews_Fake_Service::make_data("b4", 4000);
  s.drop(a4, DROP_AFTER_ACTING);
  ASSERT_TRUE(uploads.begin());  // another upload is in its bracket, not yet sent
  ASSERT_TRUE(uploads.begin());
  std::thread lost([&] { ok_a = upload(uploads, *a, a4, true); });
  for (int i = 0; i < 2000 && s.calls("UploadItems") < sent + 2; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  std::thread late([&] { ok_b = upload(uploads, *b, b4, false); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  // The lost one's reconciliation waits for the bracket left open above.
  EXPECT_EQ(s.calls("FindItem"), listings + 1);
  uploads.end(std::vector<std::string>());
  lost.join();
  late.join();
  EXPECT_TRUE(ok_a) << a->last_error();
  EXPECT_TRUE(ok_b) << b->last_error();
  want.insert(a4);
  want.insert(b4);
  EXPECT_EQ(s.contents(folder), want);
  EXPECT_EQ(s.calls("FindItem"), listings + 2);
  EXPECT_EQ(uploads.claimed(), want.size());
  EWS_Params::set_retry_base_delay_ms(1000);
}
