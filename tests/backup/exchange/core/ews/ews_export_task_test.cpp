#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"
#include "host/ews/ews_params.h"
#include "support/log_capture.h"
#include "support/plain_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace
{
// One backup run's context over simulated mailboxes; the export task is
// stopped (its thread joined) when the fixture goes.
class Export_Run
{
public:
  explicit Export_Run(Fake_Mailboxes& boxes, int retry = 0) : job_(definition(retry))
  {
    ctx_.reset(new EWS_Backup_Context("svc", Secure_String("pw"), "pool-1", "host-1/nightly", 1, 1, nullptr,
                                      job_.activity(), job_));
    ctx_->client_maker(boxes.maker());
  }
  ~Export_Run() { ctx_->stop_export_task(); }

  static Job_Definition_var definition(int retry)
  {
    Job_Definition_var def = plain_definition();
    def->max_seconds_retry(retry);
    return def;
  }

  EWS_Backup_Context& ctx() { return *ctx_; }
  Job& job() { return job_; }

  // With `sizes`, the items' listed sizes go with their ids, as the lister sends them.
  bool put(const std::string& mailbox, const std::vector<std::string>& ids, const std::vector<long long>& sizes = {})
  {
    EWS_Export_Args* args = new EWS_Export_Args;
    args->mailbox = mailbox;
    args->item_ids = ids;
    args->item_sizes = sizes;
    if (ctx_->put_item(args))
      return true;
    delete args;
    return false;
  }

  std::string get(const std::string& mailbox, const std::string& id)
  {
    EWS_b64_Data data;
    if (!ctx_->get_item(mailbox, id, data))
      return "<none>";
    return std::string(reinterpret_cast<const char*>(data.ptr.get()), data.size);
  }

  // Polls until `done` holds; the run's threads move on by themselves.
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
  Plain_Job job_;
  EWS_Backup_Context_Ptr ctx_;
};
}  // namespace

TEST(EwsBackupContext, PathTableHandsOutEntriesInOrderOnce)
{
  Fake_Mailboxes boxes;
  Export_Run run(boxes, 45);
  EWS_Backup_Context& ctx = run.ctx();
  Log_Capture log;

  ASSERT_TRUE(ctx.put_entry("/m/Inbox/a", "id-1", 10, 11));
  ASSERT_TRUE(ctx.put_entry("/m/Inbox/a", "id-2", 20, 21));
  EWS_Folder_Entry entry;
  for (int i = 0; i < 3; ++i)
  {
    ASSERT_TRUE(ctx.get_entry("/m/Inbox/a", false, entry));
    EXPECT_EQ(entry.id, "id-1");
  }
  ASSERT_TRUE(ctx.get_entry("/m/Inbox/a", true, entry));
  EXPECT_EQ(entry.id, "id-1");
  EXPECT_EQ(entry.mtime, 10);
  ASSERT_TRUE(ctx.get_entry("/m/Inbox/a", true, entry));
  EXPECT_EQ(entry.id, "id-2");
  EXPECT_EQ(entry.ctime, 21);
  EXPECT_FALSE(ctx.get_entry("/m/Inbox/a", true, entry));
  EXPECT_TRUE(log.contains("EWS path '/m/Inbox/a' not found"));
  EXPECT_FALSE(ctx.get_entry("/m/Inbox/a", false, entry));

  EXPECT_TRUE(ctx.put_failed_mailbox(""));
  EXPECT_TRUE(ctx.put_failed_mailbox("b@x"));
  EXPECT_EQ(ctx.get_failed_mailboxes(), Mailboxes{"b@x"});
  EXPECT_EQ(ctx.retry_seconds(), 45);

  // Without a task every forwarding operation fails loudly.
  std::vector<std::string> failed;
  EWS_b64_Data data;
  EXPECT_FALSE(ctx.get_failed_items(failed));
  EXPECT_FALSE(ctx.get_item("m", "id", data));
  EWS_Export_Args args;
  EXPECT_FALSE(ctx.put_item(&args));
  EXPECT_EQ(log.count("task_.get() is NULL"), 3u);

  // Only "canceling" counts as cancelling.
  EXPECT_FALSE(ctx.is_cancelling());
  run.job().activity().state = JOB_STATE_CANCELING;
  EXPECT_TRUE(ctx.is_cancelling());
  run.job().activity().state = 9;
  EXPECT_FALSE(ctx.is_cancelling());
}

TEST(EwsExportTask, DeliversExportedItemsOnceAndGathersFailuresPerMailbox)
{
  Fake_Mailboxes boxes;
  boxes.refused_items = {"a-2", "b-1"};
  Export_Run run(boxes);
  EWS_Backup_Context& ctx = run.ctx();
  ASSERT_TRUE(ctx.activate_export_task(&run.job()));
  const std::shared_ptr<EWS_Export_Task> task = ctx.task();
  ASSERT_TRUE(ctx.activate_export_task(&run.job()));
  EXPECT_EQ(ctx.task(), task);

  ASSERT_TRUE(run.put("a@x", {"a-1", "a-2", "a-3"}));
  ASSERT_TRUE(run.put("b@x", {"b-1", "b-2"}));
  EXPECT_EQ(run.get("a@x", "a-3"), boxes.content("a-3"));
  EXPECT_EQ(run.get("a@x", "a-1"), boxes.content("a-1"));
  // A refused item is answered at once, not after a time-out.
  EXPECT_EQ(run.get("a@x", "a-2"), "<none>");
  EXPECT_EQ(run.get("b@x", "b-2"), boxes.content("b-2"));
  EXPECT_EQ(run.get("b@x", "b-1"), "<none>");

  std::vector<std::string> failed = {"stale"};
  ASSERT_TRUE(ctx.get_failed_items("b@x", failed));
  EXPECT_EQ(failed, std::vector<std::string>{"b-1"});
  ASSERT_TRUE(ctx.get_failed_items("b@x", failed));
  EXPECT_TRUE(failed.empty());
  ASSERT_TRUE(run.put("b@x", {"b-1"}));
  EXPECT_EQ(run.get("b@x", "b-1"), "<none>");
  ASSERT_TRUE(ctx.get_failed_items(failed));
  EXPECT_EQ(failed, (std::vector<std::string>{"a-2", "b-1"}));
  ASSERT_TRUE(ctx.get_failed_items(failed));
  EXPECT_TRUE(failed.empty());
  EXPECT_EQ(boxes.clients_made, 1);
  EXPECT_EQ(task->cache_bytes(), 0u);

  // The end marker ends the thread; a reader of an item taken before, or never
  // queued, is then answered false, and nothing more can be queued.
  Log_Capture log;
  ASSERT_TRUE(run.put("", {}));
  EXPECT_EQ(run.get("a@x", "a-1"), "<none>");
  EXPECT_EQ(run.get("a@x", "never"), "<none>");
  EXPECT_FALSE(task->running());
  EXPECT_FALSE(run.put("a@x", {"a-1"}));
  EXPECT_TRUE(log.contains("EWS export task has ended."));
}

TEST(EwsExportTask, FailedExportCallMakesEveryItemFailedAndEndMarkerStillMakesTheClient)
{
  Fake_Mailboxes boxes;
  boxes.fail_exports = true;
  {
    Export_Run run(boxes);
    ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
    ASSERT_TRUE(run.put("a@x", {"a-1", "a-2"}));
    EXPECT_EQ(run.get("a@x", "a-2"), "<none>");
    EXPECT_EQ(run.get("a@x", "a-1"), "<none>");
    std::vector<std::string> failed;
    ASSERT_TRUE(run.ctx().get_failed_items("a@x", failed));
    EXPECT_EQ(failed, (std::vector<std::string>{"a-1", "a-2"}));
  }
  boxes.clients_made = 0;
  Export_Run run(boxes);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  ASSERT_TRUE(run.put("", {}));
  ASSERT_TRUE(Export_Run::eventually([&] { return !run.ctx().task()->running(); }));
  EXPECT_EQ(boxes.clients_made, 1);
}

TEST(EwsExportTask, ByteBudgetHoldsExportsUntilItemsAreRead)
{
  Fake_Mailboxes boxes;
  boxes.item_size = 100;
  Export_Run run(boxes);
  run.ctx().export_cache_budget(1);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Export_Task& task = *run.ctx().task();
  for (int batch = 0; batch < 4; ++batch)
    ASSERT_TRUE(run.put("a@x", {"a-" + std::to_string(2 * batch), "a-" + std::to_string(2 * batch + 1)}));

  // One batch passes the budget; the next export waits for reads.
  ASSERT_TRUE(Export_Run::eventually([&] { return task.cache_bytes() == 200; }));
  EXPECT_EQ(boxes.export_calls, 1);
  EXPECT_EQ(run.get("a@x", "a-0"), boxes.content("a-0"));
  EXPECT_EQ(boxes.export_calls, 1);
  for (int i = 1; i < 8; ++i)
    EXPECT_EQ(run.get("a@x", "a-" + std::to_string(i)), boxes.content("a-" + std::to_string(i)));
  EXPECT_EQ(boxes.export_calls, 4);
  EXPECT_EQ(task.peak_cache_bytes(), 200u);
  EXPECT_EQ(task.cache_bytes(), 0u);
}

TEST(EwsExportTask, ListedSizesCutQueuedBatchesToTheBudget)
{
  // Items of 10 to 250 bytes under a budget of 100: two of them larger than the
  // budget, one failing, in two queued batches of one mailbox and one of another.
  Fake_Mailboxes boxes;
  const std::vector<size_t> sizes = {30, 50, 10, 250, 40, 60, 20, 20, 120, 5, 90, 10};
  std::vector<std::string> ids;
  std::vector<long long> listed;
  size_t largest = 0;
  for (size_t i = 0; i < sizes.size(); ++i)
  {
    ids.push_back("a-" + std::to_string(i));
    listed.push_back(static_cast<long long>(sizes[i]));
    boxes.sizes[ids.back()] = sizes[i];
    largest = std::max(largest, sizes[i]);
  }
  boxes.refused_items = {"a-5"};
  boxes.sizes["b-0"] = 70;
  boxes.sizes["b-1"] = 70;

  Export_Run run(boxes);
  const uint64_t budget = 100;
  run.ctx().export_cache_budget(budget);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Export_Task& task = *run.ctx().task();
  // What the cache holds plus what the call starting now brings, seen by the
  // service at each call.
  std::mutex lock;  // the calls of one export run side by side
  uint64_t most_held = 0;
  int calls_over_budget = 0;
  boxes.on_export = [&](size_t bytes)
  {
    const uint64_t held = task.cache_bytes() + bytes;
    std::lock_guard<std::mutex> guard(lock);
    most_held = std::max<uint64_t>(most_held, held);
    calls_over_budget += held > budget;
  };

  const size_t half = ids.size() / 2;
  ASSERT_TRUE(run.put("a@x", std::vector<std::string>(ids.begin(), ids.begin() + half),
                      std::vector<long long>(listed.begin(), listed.begin() + half)));
  ASSERT_TRUE(run.put("a@x", std::vector<std::string>(ids.begin() + half, ids.end()),
                      std::vector<long long>(listed.begin() + half, listed.end())));
  ASSERT_TRUE(run.put("b@x", {"b-0", "b-1"}, {70, 70}));

  // Read in listing order, as the stream does: every item arrives, the refused
  // one is answered without data.
  for (size_t i = 0; i < ids.size(); ++i)
    EXPECT_EQ(run.get("a@x", ids[i]), i == 5 ? "<none>" : boxes.content(ids[i])) << ids[i];
  EXPECT_EQ(run.get("b@x", "b-0"), boxes.content("b-0"));
  EXPECT_EQ(run.get("b@x", "b-1"), boxes.content("b-1"));
  std::vector<std::string> failed;
  ASSERT_TRUE(run.ctx().get_failed_items("a@x", failed));
  EXPECT_EQ(failed, std::vector<std::string>{"a-5"});

  std::lock_guard<std::mutex> guard(lock);
  EXPECT_LE(most_held, budget + largest);
  EXPECT_LE(task.peak_held_bytes(), budget + largest);
  EXPECT_LE(task.peak_cache_bytes(), budget + largest);
  // Only the two items larger than the budget went past it, each alone into an
  // empty cache.
  EXPECT_EQ(calls_over_budget, 2);
  EXPECT_EQ(most_held, largest);
  // The three queued batches were cut into more calls than batches.
  EXPECT_GT(boxes.export_calls.load(), 3);
  EXPECT_EQ(task.cache_bytes(), 0u);
}

TEST(EwsExportTask, BatchesQueuedBehindJoinTheCallAndRunSideBySide)
{
  struct Batch_Size_Guard
  {
    Batch_Size_Guard() { EWS_Params::set_batch_size(2); }  // one call: up to 2 x 4 ids
    ~Batch_Size_Guard() { EWS_Params::reset(); }
  } params;
  Fake_Mailboxes boxes;
  std::mutex lock;
  std::condition_variable changed;
  bool open = false;
  int calls = 0, in_flight = 0, most_in_flight = 0;
  // The first call holds the export thread until the test opens it; each later
  // call waits (at most 5 s) for two more beside it.
  boxes.on_export = [&](size_t)
  {
    std::unique_lock<std::mutex> guard(lock);
    const bool first = calls++ == 0;
    ++in_flight;
    most_in_flight = std::max(most_in_flight, in_flight);
    changed.notify_all();
    if (first)
      changed.wait(guard, [&] { return open; });
    else
      changed.wait_for(guard, std::chrono::seconds(5), [&] { return most_in_flight >= 3; });
    --in_flight;
  };
  Export_Run run(boxes);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  ASSERT_TRUE(run.put("a@x", {"a-0"}, {100}));
  {
    std::unique_lock<std::mutex> guard(lock);
    ASSERT_TRUE(changed.wait_for(guard, std::chrono::seconds(30), [&] { return in_flight == 1; }));
  }
  // Three channels queue a folder each while the export thread is busy.
  ASSERT_TRUE(run.put("b@x", {"b-0", "b-1"}, {100, 100}));
  ASSERT_TRUE(run.put("c@x", {"c-0", "c-1"}, {100, 100}));
  ASSERT_TRUE(run.put("d@x", {"d-0", "d-1"}, {100, 100}));
  {
    std::lock_guard<std::mutex> guard(lock);
    open = true;
    changed.notify_all();
  }
  for (const char* id : {"a-0", "b-0", "b-1", "c-0", "c-1", "d-0", "d-1"})
    EXPECT_EQ(run.get(std::string(1, id[0]) + "@x", id), boxes.content(id)) << id;
  std::lock_guard<std::mutex> guard(lock);
  // The three mailboxes' batches went in one call, over three connections at once.
  EXPECT_EQ(most_in_flight, 3);
  EXPECT_EQ(boxes.export_calls, 4);
}

TEST(EwsExportTask, ReleasedMailboxFreesTheBudgetAndSkipsItsQueuedBatches)
{
  Fake_Mailboxes boxes;
  boxes.refused_items = {"a-1"};
  Export_Run run(boxes);
  run.ctx().export_cache_budget(1);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Export_Task& task = *run.ctx().task();
  run.ctx().begin_mailbox("a@x");
  ASSERT_TRUE(run.put("a@x", {"a-0", "a-1"}));
  ASSERT_TRUE(run.put("a@x", {"a-2", "a-3"}));
  ASSERT_TRUE(run.put("a@x", {"a-4", "a-5"}));
  ASSERT_TRUE(run.put("b@x", {"b-0"}));
  ASSERT_TRUE(Export_Run::eventually([&] { return task.cache_bytes() == 100; }));

  // Mailbox a ends without reading: b is exported and read all the same.
  // (The export thread may already hold b's item when the cache is looked at, so
  // the cache is checked once b's item is read: nothing of a's is left in it.)
  run.ctx().end_mailbox("a@x");
  EXPECT_EQ(run.get("b@x", "b-0"), boxes.content("b-0"));
  EXPECT_EQ(task.cache_bytes(), 0u);
  EXPECT_EQ(boxes.export_calls, 2);
  std::vector<std::string> failed = {"stale"};
  ASSERT_TRUE(run.ctx().get_failed_items(failed));
  EXPECT_TRUE(failed.empty());

  // Begun again, its batches are exported again.
  run.ctx().begin_mailbox("a@x");
  ASSERT_TRUE(run.put("a@x", {"a-2"}));
  EXPECT_EQ(run.get("a@x", "a-2"), boxes.content("a-2"));
}

TEST(EwsExportTask, StopFreesQueuedBatchesAndCancellationEndsTheThread)
{
  Fake_Mailboxes boxes;
  {
    Export_Run run(boxes);
    run.ctx().export_cache_budget(1);
    ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
    for (int i = 0; i < 20; ++i)
      ASSERT_TRUE(run.put("a@x", {"a-" + std::to_string(i)}));
    ASSERT_TRUE(Export_Run::eventually([&] { return run.ctx().task()->cache_bytes() == 100; }));
    // Leaving the scope stops the task with 18 or 19 batches queued; the leak
    // checker of the sanitizer build sees whether they were freed.
  }
  EXPECT_EQ(boxes.export_calls, 1);

  Export_Run run(boxes);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  run.job().activity().state = JOB_STATE_CANCELING;
  ASSERT_TRUE(Export_Run::eventually([&] { return !run.ctx().task()->running(); }));
  EXPECT_FALSE(run.put("a@x", {"a-1"}));

  // An export told by the service to wait a minute ends as soon as the job is
  // being cancelled (eventually gives up after 30 seconds); its items fail.
  boxes.busy_exports = true;
  boxes.export_calls = 0;
  Export_Run throttled(boxes);
  ASSERT_TRUE(throttled.ctx().activate_export_task(&throttled.job()));
  ASSERT_TRUE(throttled.put("a@x", {"a-1", "a-2"}));
  ASSERT_TRUE(Export_Run::eventually([&] { return boxes.export_calls == 1; }));
  throttled.job().activity().state = JOB_STATE_CANCELING;
  ASSERT_TRUE(Export_Run::eventually([&] { return !throttled.ctx().task()->running(); }));
  EXPECT_EQ(boxes.export_calls, 1);
  EXPECT_EQ(throttled.get("a@x", "a-1"), "<none>");
}

TEST(EwsExportTask, ItemsHeldByReadersCountInTheBudgetUntilLetGo)
{
  // Three items of 100 bytes, listed sizes known, under a budget of 150: one
  // fits at a time, whether it waits in the cache or is held by a reader.
  Fake_Mailboxes boxes;
  boxes.item_size = 100;
  EWS_b64_Data kept;  // outlives the task below
  {
    Export_Run run(boxes);
    run.ctx().export_cache_budget(150);
    ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
    EWS_Export_Task& task = *run.ctx().task();
    ASSERT_TRUE(run.put("a@x", {"a-0", "a-1", "a-2"}, {100, 100, 100}));
    ASSERT_TRUE(Export_Run::eventually([&] { return task.cache_bytes() == 100; }));

    EWS_b64_Data held;
    ASSERT_TRUE(run.ctx().get_item("a@x", "a-0", held));
    EXPECT_EQ(task.cache_bytes(), 0u);
    EXPECT_EQ(task.lent_bytes(), 100u);
    // The export thread was woken by the read; the next item must still wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(boxes.items_exported, 1);
    // A copy keeps it held; dropping the last one lets the next item come.
    EWS_b64_Data copy = held;
    held = EWS_b64_Data();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(boxes.items_exported, 1);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(copy.ptr.get()), copy.size), boxes.content("a-0"));
    copy = EWS_b64_Data();
    EXPECT_EQ(task.lent_bytes(), 0u);
    ASSERT_TRUE(Export_Run::eventually([&] { return task.cache_bytes() == 100; }));
    EXPECT_EQ(boxes.items_exported, 2);

    // Taking an item into a holder that still has one gives the old one back
    // first: a-2 cannot come while a-1 is held.
    ASSERT_TRUE(run.ctx().get_item("a@x", "a-1", kept));
    ASSERT_TRUE(run.ctx().get_item("a@x", "a-2", kept));
    EXPECT_EQ(task.lent_bytes(), 100u);
    EXPECT_LE(task.peak_held_bytes(), 150u);
  }
  // The task is gone; the contents are still whole and free without it.
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(kept.ptr.get()), kept.size), boxes.content("a-2"));
  kept = EWS_b64_Data();
}
