// The EWS client's creating operations when a connection breaks after the
// request went out: a folder the lost attempt made is found instead of
// failing, and an item is never sent a second time unless it is known not to
// have landed.

#include "ews_fake_service.h"
#include "ews_scripted_soap.h"
#include "host/ews/ews_b64_data.h"
#include "host/ews/ews_client.h"
#include "host/ews/ews_params.h"
#include "support/log_capture.h"
#include "support/scripted_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace
{
// How the server treats a request that matches: answered, acted on and then the
// connection closed without an answer, or closed before acting.
enum Fate
{
  ANSWER,
  DROP_AFTER_ACTING,
  DROP_BEFORE_ACTING,
};

struct Env
{
  std::shared_ptr<Ews_Fake_Service> service = std::make_shared<Ews_Fake_Service>();
  Ews_Scripted_Soap soap{service};
  // The fates of the next requests whose body holds the key, in order.
  std::vector<std::pair<std::string, Fate>> fates;
  // The call after a dropped one is answered ErrorServerBusy.
  bool busy_after_drop = false;
  Scripted_Server server{[this](const Scripted_Request& r) { return answer(r); }};
  EWS_Client client;

  Env()
  {
    EWS_Params::set_retry_base_delay_ms(5);
    EXPECT_TRUE(client.init(server.url("/EWS/Exchange.asmx"), "svc@contoso.test", Secure_String("pw"), nullptr,
                            service->mailbox(0).upn.c_str()));
  }
  ~Env() { EWS_Params::set_retry_base_delay_ms(1000); }

  Scripted_Reply answer(const Scripted_Request& r)
  {
    for (auto it = fates.begin(); it != fates.end(); ++it)
      if (r.body.find(it->first) != std::string::npos)
      {
        const Fate fate = it->second;
        fates.erase(it);
        Scripted_Reply reply;
        if (fate != DROP_BEFORE_ACTING)
          reply = soap.answer(r);
        reply.drop = fate != ANSWER;
        if (reply.drop && busy_after_drop)
          service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy", "busy", 5));
        return reply;
      }
    return soap.answer(r);
  }

  size_t folders_named(const std::string& parent, const std::string& name)
  {
    size_t n = 0;
    for (const Fake_Ews_Folder& f : service->mailbox(0).folders)
      n += f.parent == parent && f.name == name;
    return n;
  }

  std::vector<std::string> items_in(const std::string& folder)
  {
    std::vector<std::string> ids;
    for (const Fake_Ews_Item& i : service->mailbox(0).items)
      if (i.folder == folder)
        ids.push_back(i.id);
    return ids;
  }
};

std::string b64(const ustring& data) { return EWS_b64_Data::encode(data.data(), data.size()); }
}  // namespace

TEST(EwsClientRestoreFaults, AFolderMadeByALostAttemptIsFoundAndAFolderThatExistedIsRefused)
{
  Env env;
  const ewstype__DistinguishedFolderIdNameType root = ewstype__DistinguishedFolderIdNameType__msgfolderroot;

  // Created, answer lost, the retry told the folder exists: the one folder is
  // looked up below the same parent and its id answered.
  env.fates.push_back({"<t:DisplayName>Restored</t:DisplayName>", DROP_AFTER_ACTING});
  EWS_Folder_Creation_Request made;
  made.display_name = "Restored";
  {
    Log_Capture log;
    ASSERT_TRUE(env.client.create_folder("", made, root)) << env.client.last_error();
    EXPECT_TRUE(log.contains("exists after an attempt whose answer was lost"));
  }
  EXPECT_EQ(env.folders_named(Ews_Fake_Service::root_id, "Restored"), 1u);
  EXPECT_EQ(made.id, env.service->folder_id(0, Ews_Fake_Service::root_id, "Restored"));
  EXPECT_EQ(env.service->calls["CreateFolder"], 2);
  EXPECT_EQ(env.service->calls["FindFolder"], 1);

  // Below a folder given by id, with a busy answer between the lost attempt and
  // the one told the folder exists.
  env.busy_after_drop = true;
  env.fates.push_back({"<t:DisplayName>Inner</t:DisplayName>", DROP_AFTER_ACTING});
  EWS_Folder_Creation_Request inner;
  inner.display_name = "Inner";
  ASSERT_TRUE(env.client.create_folder(made.id, inner, root)) << env.client.last_error();
  EXPECT_EQ(inner.id, env.service->folder_id(0, made.id, "Inner"));
  EXPECT_EQ(env.folders_named(made.id, "Inner"), 1u);
  EXPECT_EQ(env.service->calls["CreateFolder"], 5);  // dropped, busy, exists
  EXPECT_TRUE(env.service->call_faults.empty());
  env.busy_after_drop = false;

  // The lost attempt did not reach the service: the retry creates the folder.
  env.fates.push_back({"<t:DisplayName>Second</t:DisplayName>", DROP_BEFORE_ACTING});
  EWS_Folder_Creation_Request second;
  second.display_name = "Second";
  ASSERT_TRUE(env.client.create_folder("", second, root)) << env.client.last_error();
  EXPECT_EQ(second.id, env.service->folder_id(0, Ews_Fake_Service::root_id, "Second"));

  // A first attempt told the folder exists is a real error: the restore never
  // takes over a folder it did not make, and nothing is looked up.
  const int listings = env.service->calls["FindFolder"];
  EWS_Folder_Creation_Request again;
  again.display_name = "Restored";
  EXPECT_FALSE(env.client.create_folder("", again, root));
  EXPECT_EQ(env.client.last_status().code, "ErrorFolderExists");
  EXPECT_TRUE(again.id.empty());
  EXPECT_EQ(env.service->calls["FindFolder"], listings);
  EXPECT_EQ(env.folders_named(Ews_Fake_Service::root_id, "Restored"), 1u);
}

TEST(EwsClientRestoreFaults, AnUploadWhoseAnswerWasLostIsSettledNeverSentBlindly)
{
  Env env;
  const std::string folder = env.service->folder_id(0, Ews_Fake_Service::root_id, "Empty");
  ASSERT_FALSE(folder.empty());
  std::vector<ustring> one = {Ews_Fake_Service::make_data("first", 3000)};

  // Without a reconciler the item fails, named, and is not sent again.
  env.fates.push_back({b64(one[0]), DROP_AFTER_ACTING});
  {
    Log_Capture log;
    EXPECT_FALSE(env.client.upload_items(folder, one));
    EXPECT_TRUE(log.contains("EWS upload of item 0 into folder of mailbox"));
  }
  EXPECT_EQ(env.client.last_status().code, "outcome unknown");
  EXPECT_EQ(env.service->calls["UploadItems"], 1);
  EXPECT_EQ(env.items_in(folder).size(), 1u);

  // A reconciler that lists the folder and takes the ids not known before.
  std::vector<std::string> known = env.items_in(folder);
  int asked = 0;
  bool can_tell = true;
  env.client.set_upload_reconciler(
    [&](const std::string& parent, size_t count, std::vector<std::string>& landed)
    {
      ++asked;
      EXPECT_EQ(parent, folder);
      EXPECT_EQ(count, 1u);
      EWS_Items items;
      if (!can_tell || !env.client.list_items(parent, make_ews_item_appender(items), 0, 1000))
        return false;
      for (const EWS_Item& i : items)
        if (std::find(known.begin(), known.end(), i.id) == known.end())
          landed.push_back(i.id);
      return true;
    });

  // Landed: counted as uploaded with the id found, not sent again.
  std::vector<ustring> two = {Ews_Fake_Service::make_data("second", 5000)};
  env.fates.push_back({b64(two[0]), DROP_AFTER_ACTING});
  ASSERT_TRUE(env.client.upload_items(folder, two)) << env.client.last_error();
  EXPECT_EQ(asked, 1);
  EXPECT_EQ(env.service->calls["UploadItems"], 2);
  ASSERT_EQ(env.items_in(folder).size(), 2u);
  EXPECT_EQ(env.client.uploaded_ids(), std::vector<std::string>{env.items_in(folder)[1]});
  known = env.items_in(folder);

  // Not landed: sent again, once.
  std::vector<ustring> three = {Ews_Fake_Service::make_data("third", 7000)};
  env.fates.push_back({b64(three[0]), DROP_BEFORE_ACTING});
  ASSERT_TRUE(env.client.upload_items(folder, three)) << env.client.last_error();
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(env.service->calls["UploadItems"], 3);  // the dropped request never reached the service
  ASSERT_EQ(env.items_in(folder).size(), 3u);
  EXPECT_EQ(env.client.uploaded_ids(), std::vector<std::string>{env.items_in(folder)[2]});
  EXPECT_EQ(env.service->mailbox(0).items.back().data, three[0]);

  // Throttling is retried as before, without asking the reconciler.
  env.service->call_faults.push_back(Host_Status::make(HOST_STATUS_THROTTLED, "ErrorServerBusy", "busy", 5));
  std::vector<ustring> four = {Ews_Fake_Service::make_data("fourth", 100)};
  ASSERT_TRUE(env.client.upload_items(folder, four)) << env.client.last_error();
  EXPECT_EQ(asked, 2);
  EXPECT_EQ(env.items_in(folder).size(), 4u);

  // When the reconciler cannot tell, the item fails and is not sent again.
  can_tell = false;
  std::vector<ustring> five = {Ews_Fake_Service::make_data("fifth", 100)};
  env.fates.push_back({b64(five[0]), DROP_BEFORE_ACTING});
  const int sent = env.service->calls["UploadItems"];
  EXPECT_FALSE(env.client.upload_items(folder, five));
  EXPECT_EQ(env.client.last_status().code, "outcome unknown");
  EXPECT_EQ(env.service->calls["UploadItems"], sent);  // the dropped one never reached the service
  EXPECT_EQ(env.items_in(folder).size(), 4u);
}
