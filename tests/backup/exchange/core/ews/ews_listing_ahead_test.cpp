#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/ews_listing_ahead.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"
#include "host/job/job_log_callback.h"
#include "support/plain_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
class Ahead_Run
{
public:
  explicit Ahead_Run(Fake_Mailboxes& boxes) : boxes_(boxes), job_(plain_definition())
  {
    ctx_.reset(new EWS_Backup_Context("svc", Secure_String("pw"), "pool-1", "host-1/nightly", 1, 1, nullptr,
                                      job_.activity(), job_));
    ctx_->client_maker(boxes.maker());
  }

  EWS_Backup_Context& ctx() { return *ctx_; }
  Job& job() { return job_; }

  // The top folders of `mailbox` as its root's FindFolder reports them.
  EWS_Folders roots(const std::string& mailbox)
  {
    EWS_Folders out;
    for (const Fake_Folder& f : boxes_.mailboxes[mailbox])
    {
      EWS_Folder folder;
      folder.id = f.id;
      folder.display_name = f.name;
      folder.subfolders_count = static_cast<int>(f.subfolders.size());
      folder.subfolders_counted = true;
      out.push_back(folder);
    }
    return out;
  }

  // The last error the listing thread logged (it logs to the job's log).
  std::string last_error()
  {
    std::shared_ptr<Job_Log_Callback> log = std::dynamic_pointer_cast<Job_Log_Callback>(Job_log_msg_callback(job_));
    return log ? log->last_error() : std::string();
  }

  std::vector<std::string> listed()
  {
    std::lock_guard<std::mutex> guard(boxes_.listed_lock);
    return boxes_.listed_folders;
  }

  template <typename F>
  static bool eventually(F done)
  {
    for (int i = 0; i < 3000; ++i)
    {
      if (done())
        return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

private:
  Fake_Mailboxes& boxes_;
  Plain_Job job_;
  EWS_Backup_Context_Ptr ctx_;
};

std::vector<std::string> ids(const EWS_Items& items)
{
  std::vector<std::string> out;
  for (const EWS_Item& item : items)
    out.push_back(item.id);
  return out;
}
}  // namespace

TEST(EwsListingAhead, OneListerListsInTheStreamsOrderAndKeepsOnlyAFewWaiting)
{
  // A (with A1 below it, and A1 with A2), then five more top folders.
  Fake_Mailboxes boxes;
  Fake_Folder a = Fake_Mailboxes::folder("A", "A", 3);
  Fake_Folder a1 = Fake_Mailboxes::folder("A1", "A1", 1);
  a1.subfolders.push_back(Fake_Mailboxes::folder("A2", "A2", 0));
  a.subfolders.push_back(a1);
  boxes.mailboxes["m@x"] = {a};
  for (const char* id : {"B", "C", "D", "E", "F"})
    boxes.mailboxes["m@x"].push_back(Fake_Mailboxes::folder(id, id, 1));
  Ahead_Run run(boxes);
  EWS_Listing_Ahead ahead(run.ctx(), 1);
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));

  // Depth first, a folder's subfolders before its later siblings; no more than
  // the waiting room while nothing is taken.
  ASSERT_TRUE(Ahead_Run::eventually([&] { return run.listed().size() == EWS_Listing_Ahead::max_waiting_folders; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(run.listed(), (std::vector<std::string>{"A", "A1", "A2", "B"}));

  EWS_Folder_Listing listing;
  ASSERT_TRUE(ahead.take("A", listing));
  EXPECT_TRUE(listing.ok);
  EXPECT_EQ(ids(listing.items), (std::vector<std::string>{"A-item-0", "A-item-1", "A-item-2"}));
  ASSERT_EQ(listing.subfolders.size(), 1u);
  EXPECT_EQ(listing.subfolders[0].id, "A1");
  for (const char* id : {"A1", "A2", "B", "C", "D", "E", "F"})
  {
    ASSERT_TRUE(ahead.take(id, listing)) << id;
    EXPECT_TRUE(listing.ok) << id;
    EXPECT_EQ(listing.id, id);
  }
  EXPECT_TRUE(ahead.take("F", listing) == false);
  EXPECT_EQ(run.listed(), (std::vector<std::string>{"A", "A1", "A2", "B", "C", "D", "E", "F"}));
  // Only the folders reported with subfolders were asked for them.
  EXPECT_EQ(boxes.find_folders_calls, 2);
  EXPECT_EQ(boxes.find_items_calls, 8);
}

TEST(EwsListingAhead, FoldersPassedByAreDroppedAndUnplannedOnesAreLeftToTheCaller)
{
  Fake_Mailboxes boxes;
  for (const char* id : {"L0", "L1", "L2", "L3", "L4", "L5"})
    boxes.mailboxes["m@x"].push_back(Fake_Mailboxes::folder(id, id, 2));
  boxes.unlistable_folders = {"L4"};
  Ahead_Run run(boxes);
  EWS_Listing_Ahead ahead(run.ctx(), 1);
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));
  ASSERT_TRUE(Ahead_Run::eventually([&] { return run.listed().size() == 4; }));

  // L5 waits behind four listings the stream passed by: they are dropped, and
  // L4, passed by before it was begun, is never listed.
  EWS_Folder_Listing listing;
  ASSERT_TRUE(ahead.take("L5", listing));
  EXPECT_TRUE(listing.ok);
  EXPECT_EQ(listing.items.size(), 2u);
  EXPECT_EQ(run.listed(), (std::vector<std::string>{"L0", "L1", "L2", "L3", "L5"}));
  EXPECT_FALSE(ahead.take("L0", listing));  // dropped: the caller lists it
  EXPECT_FALSE(ahead.take("nowhere", listing));

  // A failed listing is handed over as failed, logged as the stream's would
  // be, and its siblings still come.
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));
  for (const char* id : {"L0", "L1", "L2", "L3"})
    ASSERT_TRUE(ahead.take(id, listing)) << id;
  ASSERT_TRUE(ahead.take("L4", listing));
  EXPECT_FALSE(listing.ok);
  EXPECT_NE(run.last_error().find("Failed to list items of folder(" + mailbox_to_path("m@x") + "L4) of 'm@x'."),
            std::string::npos)
    << run.last_error();
  ASSERT_TRUE(ahead.take("L5", listing));
  EXPECT_TRUE(listing.ok);

  // Stopped while it waits for room: stop returns, and nothing is planned any more.
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));
  ASSERT_TRUE(Ahead_Run::eventually([&] { return run.listed().size() == 5 + 6 + 4; }));
  ahead.stop();
  EXPECT_FALSE(ahead.take("L0", listing));
}

TEST(EwsListingAhead, CancellationFailsTheListingsStillToCome)
{
  Fake_Mailboxes boxes;
  for (const char* id : {"L0", "L1", "L2", "L3", "L4", "L5"})
    boxes.mailboxes["m@x"].push_back(Fake_Mailboxes::folder(id, id, 1));
  Ahead_Run run(boxes);
  EWS_Listing_Ahead ahead(run.ctx(), 1);
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));
  ASSERT_TRUE(Ahead_Run::eventually([&] { return run.listed().size() == 4; }));
  run.job().activity().state = JOB_STATE_CANCELING;
  EWS_Folder_Listing listing;
  ASSERT_TRUE(ahead.take("L0", listing));
  EXPECT_TRUE(listing.ok);  // listed before the cancel
  ASSERT_TRUE(ahead.take("L5", listing));
  EXPECT_FALSE(listing.ok);
  EXPECT_NE(run.last_error().find("EWS items listing is canceled."), std::string::npos) << run.last_error();
  EXPECT_EQ(run.listed().size(), 4u);
}

TEST(EwsListingAhead, SeveralListersListAtOnceAndHandOverInTheStreamsOrder)
{
  // Three top folders, each with two subfolders (each with one below it): the
  // stream's walk is T0, T0/S0, T0/S0/D, T0/S1, T0/S1/D, T1, ...
  Fake_Mailboxes boxes;
  std::vector<std::string> walk;
  for (int t = 0; t < 3; ++t)
  {
    const std::string top = "T" + std::to_string(t);
    Fake_Folder f = Fake_Mailboxes::folder(top, top, 2);
    walk.push_back(top);
    for (int s = 0; s < 2; ++s)
    {
      const std::string sub = top + "S" + std::to_string(s);
      Fake_Folder child = Fake_Mailboxes::folder(sub, sub, 1);
      child.subfolders.push_back(Fake_Mailboxes::folder(sub + "D", sub + "D", 3));
      f.subfolders.push_back(child);
      walk.push_back(sub);
      walk.push_back(sub + "D");
    }
    boxes.mailboxes["m@x"].push_back(f);
  }
  // Every FindItem takes a while, so that listings overlap; count how many
  // run at once.
  std::mutex lock;
  int now = 0;
  int most = 0;
  boxes.on_find_items = [&](const std::string&)
  {
    {
      std::lock_guard<std::mutex> guard(lock);
      most = std::max(most, ++now);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    std::lock_guard<std::mutex> guard(lock);
    --now;
  };
  Ahead_Run run(boxes);
  EWS_Listing_Ahead ahead(run.ctx(), 3);
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));

  EWS_Folder_Listing listing;
  for (const std::string& id : walk)
  {
    ASSERT_TRUE(ahead.take(id, listing)) << id;
    EXPECT_TRUE(listing.ok) << id;
    EXPECT_EQ(listing.id, id);
    const Fake_Folder* folder = boxes.find(boxes.mailboxes["m@x"], id);
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(listing.items.size(), folder->items.size()) << id;
    EXPECT_EQ(listing.subfolders.size(), folder->subfolders.size()) << id;
  }
  EXPECT_FALSE(ahead.take("T2S1D", listing));
  // Each folder listed once, several at a time, never more than the listers.
  std::vector<std::string> listed = run.listed();
  std::sort(listed.begin(), listed.end());
  std::vector<std::string> expected = walk;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listed, expected);
  EXPECT_GT(most, 1);
  EXPECT_LE(most, 3);

  // The stream skips T0's subtree while T0 is still being listed: that
  // listing is dropped when it ends, nothing below T0 is ever listed, and
  // T1's subtree comes all the same.
  {
    std::lock_guard<std::mutex> guard(boxes.listed_lock);
    boxes.listed_folders.clear();
  }
  std::condition_variable released;
  bool hold = true;
  boxes.on_find_items = [&](const std::string& folder)
  {
    std::unique_lock<std::mutex> guard(lock);
    released.wait(guard, [&] { return folder != "T0" || !hold; });
  };
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));
  ASSERT_TRUE(ahead.take("T1", listing));
  {
    std::lock_guard<std::mutex> guard(lock);
    hold = false;
  }
  released.notify_all();
  for (const char* id : {"T1S0", "T1S0D", "T1S1", "T1S1D", "T2"})
  {
    ASSERT_TRUE(ahead.take(id, listing)) << id;
    EXPECT_TRUE(listing.ok) << id;
  }
  EXPECT_FALSE(ahead.take("T0", listing));
  ahead.stop();
  const std::vector<std::string> again = run.listed();
  for (const std::string& id : again)
  {
    EXPECT_EQ(std::count(again.begin(), again.end(), id), 1) << id;
    EXPECT_NE(id.rfind("T0S", 0), 0u) << id;
  }
}

TEST(EwsListingAhead, ExportsAreQueuedAheadAndDroppedWithTheFoldersPassedBy)
{
  Fake_Mailboxes boxes;
  for (const char* id : {"L0", "L1", "L2", "L3", "L4", "L5"})
    boxes.mailboxes["m@x"].push_back(Fake_Mailboxes::folder(id, id, 2));
  // L5's listing waits until it is let go.
  std::mutex lock;
  std::condition_variable released;
  bool hold = true;
  boxes.on_find_items = [&](const std::string& folder)
  {
    std::unique_lock<std::mutex> guard(lock);
    released.wait(guard, [&] { return folder != "L5" || !hold; });
  };
  Ahead_Run run(boxes);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  run.ctx().begin_mailbox("m@x");
  EWS_Listing_Ahead ahead(run.ctx(), 1);
  ASSERT_TRUE(ahead.start("m@x", mailbox_to_path("m@x"), run.roots("m@x")));

  // The folders listed before the stream takes any are exported already.
  const size_t item = boxes.item_size;
  const std::shared_ptr<EWS_Export_Task>& task = run.ctx().task();
  ASSERT_TRUE(Ahead_Run::eventually([&] { return boxes.items_exported.load() == 8; }));
  EWS_Folder_Listing listing;
  ASSERT_TRUE(ahead.take("L0", listing));
  EXPECT_TRUE(listing.exports_queued);
  for (const EWS_Item& listed : listing.items)
  {
    EWS_b64_Data data;
    ASSERT_TRUE(run.ctx().get_item("m@x", listed.id, data)) << listed.id;
    EXPECT_EQ(static_cast<size_t>(data.size), item);
  }

  // Taking L0 made room for L4. The stream then passes L1 and L2 by: their
  // exported items leave the cache at once.
  ASSERT_TRUE(Ahead_Run::eventually([&] { return boxes.items_exported.load() == 10; }));
  ASSERT_TRUE(Ahead_Run::eventually([&] { return task->cache_bytes() == 8 * item; }));
  ASSERT_TRUE(ahead.take("L3", listing));
  EXPECT_TRUE(listing.exports_queued);
  EXPECT_EQ(task->cache_bytes(), 4 * item);
  {
    std::lock_guard<std::mutex> guard(lock);
    hold = false;
  }
  released.notify_all();
  for (const char* id : {"L4", "L5"})
  {
    ASSERT_TRUE(ahead.take(id, listing)) << id;
    EXPECT_TRUE(listing.exports_queued) << id;
  }
  // Nothing was exported twice, and the stream's own items all came.
  ASSERT_TRUE(Ahead_Run::eventually([&] { return boxes.items_exported.load() == 12; }));
  ASSERT_TRUE(Ahead_Run::eventually([&] { return task->cache_bytes() == 6 * item; }));
  ahead.stop();
}
