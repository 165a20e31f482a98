#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_backup_callback.h"
#include "backup/exchange/core/ews/ews_backup_callback_factory.h"
#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_export_task.h"
#include "backup/exchange/core/ews/ews_file_reader.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/core/ews/paginator.h"
#include "backup/exchange/set_contents.h"
#include "host/ews/ews_folders_index.h"
#include "host/ews/ews_params.h"
#include "host/mtf/mtf_backup.h"
#include "support/log_capture.h"
#include "support/plain_job.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace
{
class Callback_Run
{
public:
  Callback_Run(Fake_Mailboxes& boxes, size_t channels, int mailboxes) : job_(plain_definition())
  {
    ctx_.reset(new EWS_Backup_Context("svc", Secure_String("pw"), "pool-1", "host-1/nightly", 1, channels, nullptr,
                                      job_.activity(), job_));
    ctx_->client_maker(boxes.maker());
    ctx_->mailbox_count_ = mailboxes;
  }
  ~Callback_Run() { ctx_->stop_export_task(); }

  EWS_Backup_Context& ctx() { return *ctx_; }
  Job& job() { return job_; }

  EWS_Backup_Callback make_callback()
  {
    EWS_Client_Ptr client;
    ctx_->make_client(client);
    return EWS_Backup_Callback(client, *ctx_);
  }

private:
  Plain_Job job_;
  EWS_Backup_Context_Ptr ctx_;
};

std::vector<std::string> names(const std::list<MTF::Directory_Entry>& entries)
{
  std::vector<std::string> out;
  for (const MTF::Directory_Entry& e : entries)
    out.push_back(e.name + (S_ISDIR(e.stat.st_mode) ? "/" : ""));
  return out;
}

// Two mailboxes with folders, paging edges and a name shared by a folder and an item.
void fill(Fake_Mailboxes& boxes)
{
  Fake_Folder inbox = Fake_Mailboxes::folder("in", "Inbox", 7);
  Fake_Folder clash = Fake_Mailboxes::folder("clash", "Inbox 0001", 2);
  inbox.subfolders.push_back(clash);
  inbox.subfolders.push_back(Fake_Mailboxes::folder("empty", "Empty/Dir", 0));
  boxes.mailboxes["anna@x.test"] = {inbox, Fake_Mailboxes::folder("sent", "Sent Items", 8)};
  boxes.mailboxes["bob@x.test"] = {Fake_Mailboxes::folder("arch", "Archive", 3)};
  boxes.refused_items = {"in-item-4"};
}

struct Params_Guard
{
  Params_Guard()
  {
    EWS_Params::set_paging_size(4);
    EWS_Params::set_batch_size(3);
  }
  ~Params_Guard() { EWS_Params::reset(); }
};
}  // namespace

TEST(EwsBackupCallback, PaginatorPagesAndProgressNeverReachesHundred)
{
  std::vector<std::pair<int, int>> pages;
  Paginator p(10, 4);
  while (p.next())
    pages.emplace_back(p.offset(), p.limit());
  EXPECT_EQ(pages, (std::vector<std::pair<int, int>>{{0, 4}, {4, 4}, {8, 2}}));
  EXPECT_FALSE(Paginator(0, 4).next());
  Paginator unknown(2147483647, 1000000000);
  int count = 0;
  while (unknown.next())
    ++count;
  EXPECT_EQ(count, 3);

  Fake_Mailboxes boxes;
  fill(boxes);
  boxes.mailboxes["carl@x.test"] = {};
  Callback_Run run(boxes, 1, 3);
  EWS_Backup_Callback callback = run.make_callback();
  EXPECT_EQ(callback.max_file_count_percent(), 1);
  std::vector<int> percents;
  for (const char* m : {"anna@x.test", "bob@x.test", "carl@x.test"})
  {
    MTF::source_entry entry{m, mailbox_to_path(m)};
    ASSERT_TRUE(callback.handle_source_entry_begin(entry));
    percents.push_back(callback.max_file_count_percent());
  }
  EXPECT_EQ(percents, (std::vector<int>{33, 66, 99}));
  run.ctx().mailbox_count_ = 0;
  EXPECT_EQ(callback.max_file_count_percent(), 1);
}

TEST(EwsBackupCallback, ListsFoldersThenSortedItemsAndQueuesThemInThatOrder)
{
  Params_Guard params;
  Fake_Mailboxes boxes;
  fill(boxes);
  Callback_Run run(boxes, 1, 1);
  // Listed as the stream reaches each folder, so that requests can be counted.
  run.ctx().list_ahead(0);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback callback = run.make_callback();
  const std::string root = mailbox_to_path("anna@x.test");
  MTF::Callback_Stat st;
  // A directory path needs no lookup, even one never listed.
  ASSERT_TRUE(callback.lstat((root + "Never/").c_str(), st));
  EXPECT_TRUE(S_ISDIR(st.mode));

  ASSERT_TRUE(callback.handle_source_entry_begin({"anna@x.test", root}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
  EXPECT_EQ(names(out), (std::vector<std::string>{"Inbox/", "Sent%20Items/"}));

  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Inbox").c_str(), out));
  EXPECT_EQ(names(out),
            (std::vector<std::string>{"Inbox%200001/", "Empty%2fDir/", "Inbox%200000", "Inbox%200001", "Inbox%200002",
                                      "Inbox%200003", "Inbox%200004", "Inbox%200005", "Inbox%200006"}));
  // The folder and the item of one name keep apart.
  ASSERT_TRUE(callback.lstat((root + "Inbox/Inbox%200001").c_str(), st));
  EXPECT_TRUE(S_ISREG(st.mode));
  EXPECT_EQ(st.mtime, 1700000001u);
  EXPECT_EQ(st.ctime, 1600000001u);
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Inbox/Inbox%200001").c_str(), out));
  EXPECT_EQ(names(out), (std::vector<std::string>{"Inbox%200001%200000", "Inbox%200001%200001"}));

  // An empty folder queues nothing and keeps its (empty) item list.
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Inbox/Empty%2fDir/").c_str(), out));
  EXPECT_TRUE(out.empty());

  // Eight items in pages of four: a third, empty page ends the listing.
  const int finds_before = boxes.find_items_calls;
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Sent%20Items").c_str(), out));
  EXPECT_EQ(out.size(), 8u);
  EXPECT_EQ(boxes.find_items_calls - finds_before, 3);

  // Readers get each item's contents, in listing order, once.
  for (const char* name : {"Inbox/Inbox%200000", "Inbox/Inbox%200006", "Sent%20Items/Sent%20Items%200007"})
  {
    EWS_File_Reader reader(run.ctx());
    ASSERT_EQ(reader.open((root + name).c_str()), MTF::E_OK) << name;
    MTF::File_Blk blk;
    ACE_UINT64 space = 0;
    ASSERT_TRUE(reader.handle_file_blk(blk, space));
    EXPECT_EQ(blk.size(), 100u);
    EXPECT_EQ(space, 512u);
    MTF::Buffer buf;
    ASSERT_EQ(reader.read(buf), MTF::E_OK);
    EXPECT_EQ(reader.read(buf), MTF::E_FAILED);
    EWS_File_Reader again(run.ctx());
    EXPECT_EQ(again.open((root + name).c_str()), MTF::E_FAILED);
  }
  // Inbox 7 items, its subfolder 2, Sent Items 8, each exported once, in
  // batches of 3: 7 calls, or 6 when the subfolder's batch was already queued
  // behind the Inbox's and joined its call.
  EXPECT_EQ(boxes.items_exported, 17);
  EXPECT_GE(boxes.export_calls, 6);
  EXPECT_LE(boxes.export_calls, 7);
  Log_Capture log;
  EWS_File_Reader refused(run.ctx());
  EXPECT_EQ(refused.open((root + "Inbox/Inbox%200004").c_str()), MTF::E_SKIP);
  EXPECT_TRUE(log.contains("Failed to get data of EWS item '" + root + "Inbox/Inbox%200004', skip"));

  const EWS_Folders& tree = callback.root_folders();
  ASSERT_EQ(tree.size(), 2u);
  ASSERT_EQ(tree[0].items.size(), 7u);
  EXPECT_EQ(tree[0].items.front().id, "in-item-0");
  ASSERT_EQ(tree[0].subfolders.size(), 2u);
  EXPECT_EQ(tree[0].subfolders[0].items.size(), 2u);
  EXPECT_TRUE(tree[0].subfolders[1].items.empty());
}

namespace
{
// Walks one mailbox as the stream does (a folder's listing, then its
// subfolders in listed order) and returns every path listed.
std::vector<std::string> walk(EWS_Backup_Callback& callback, const std::string& mailbox)
{
  std::vector<std::string> seen;
  std::vector<std::string> todo{mailbox_to_path(mailbox)};
  EXPECT_TRUE(callback.handle_source_entry_begin({mailbox, todo.front()}));
  while (!todo.empty())
  {
    const std::string path = todo.back();
    todo.pop_back();
    std::list<MTF::Directory_Entry> out;
    EXPECT_TRUE(callback.read_dirs(path.c_str(), out)) << path;
    std::vector<std::string> dirs;
    for (const MTF::Directory_Entry& e : out)
    {
      const std::string child = join_path(path, e.name) + (S_ISDIR(e.stat.st_mode) ? "/" : "");
      seen.push_back(child);
      if (S_ISDIR(e.stat.st_mode))
        dirs.push_back(child);
    }
    todo.insert(todo.end(), dirs.rbegin(), dirs.rend());
  }
  return seen;
}
}  // namespace

TEST(EwsBackupCallback, FolderReportedWithoutSubfoldersIsNotAskedForThem)
{
  // Anna: the root, Inbox (two subfolders, neither with any), Sent Items.
  // Listed by the stream (first two runs) or ahead of it (last two).
  std::vector<std::string> listed[4];
  int find_folders[4] = {0, 0, 0, 0};
  for (int run_no = 0; run_no < 4; ++run_no)
  {
    const int counted = run_no % 2;
    Params_Guard params;
    Fake_Mailboxes boxes;
    fill(boxes);
    boxes.count_subfolders = counted == 1;
    Callback_Run run(boxes, 1, 1);
    run.ctx().list_ahead(run_no >= 2 ? 3 : 0);
    ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
    EWS_Backup_Callback callback = run.make_callback();
    listed[run_no] = walk(callback, "anna@x.test");
    find_folders[run_no] = boxes.find_folders_calls;
    // Every folder still had its items listed and recorded in the tree.
    ASSERT_EQ(callback.root_folders().size(), 2u);
    EXPECT_EQ(callback.root_folders()[0].subfolders[0].items.size(), 2u);
    EXPECT_EQ(callback.root_folders()[1].items.size(), 8u);
  }
  // Without counts every folder is asked; with them only the root and Inbox.
  EXPECT_EQ(find_folders[0], 5);
  EXPECT_EQ(find_folders[1], 2);
  EXPECT_EQ(find_folders[2], 5);
  EXPECT_EQ(find_folders[3], 2);
  for (int run_no = 1; run_no < 4; ++run_no)
    EXPECT_EQ(listed[run_no], listed[0]) << run_no;
  EXPECT_EQ(listed[0].size(), 2u + 2u + 7u + 2u + 8u);

  // A count that no longer holds when the folder is reached: a folder reported
  // with subfolders that are gone by then is asked and found empty.
  Params_Guard params;
  Fake_Mailboxes boxes;
  fill(boxes);
  Callback_Run run(boxes, 1, 1);
  run.ctx().list_ahead(0);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback callback = run.make_callback();
  const std::string root = mailbox_to_path("anna@x.test");
  ASSERT_TRUE(callback.handle_source_entry_begin({"anna@x.test", root}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
  boxes.mailboxes["anna@x.test"][0].subfolders.clear();
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Inbox").c_str(), out));
  EXPECT_EQ(names(out).size(), 7u);
  EXPECT_EQ(boxes.find_folders_calls, 2);
  EXPECT_TRUE(callback.root_folders()[0].subfolders.empty());
}

TEST(EwsBackupCallback, ItemSizesRoundUpToBlocks)
{
  Fake_Mailboxes boxes;
  Callback_Run run(boxes, 1, 1);
  EWS_File_Reader fresh(run.ctx());
  MTF::Buffer buf;
  Log_Capture log;
  EXPECT_EQ(fresh.read(buf), MTF::E_FAILED);
  EXPECT_TRUE(log.contains("data_.ptr.get() is NULL"));
  const std::pair<size_t, ACE_UINT64> sizes[] = {{0, 0}, {1, 512}, {512, 512}, {513, 1024}};
  for (const auto& s : sizes)
  {
    boxes.item_size = s.first;
    boxes.mailboxes["a@x"] = {Fake_Mailboxes::folder("f", "F", 1)};
    Callback_Run one(boxes, 1, 1);
    ASSERT_TRUE(one.ctx().activate_export_task(&one.job()));
    EWS_Backup_Callback callback = one.make_callback();
    const std::string root = mailbox_to_path("a@x");
    ASSERT_TRUE(callback.handle_source_entry_begin({"a@x", root}));
    std::list<MTF::Directory_Entry> out;
    ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
    ASSERT_TRUE(callback.read_dirs((root + "F").c_str(), out));
    EWS_File_Reader reader(one.ctx());
    ASSERT_EQ(reader.open((root + "F/F%200000").c_str()), MTF::E_OK);
    MTF::File_Blk blk(77);
    ACE_UINT64 space = 1;
    ASSERT_TRUE(reader.handle_file_blk(blk, space));
    EXPECT_EQ(blk.size(), s.first);
    EXPECT_EQ(space, s.second);
  }
}

TEST(EwsBackupCallback, ReaderHandsEveryByteOnceInPiecesOfTheStreamsBuffer)
{
  // Pieces of 64 bytes (the buffer's capacity): sizes on either side of one and
  // of several pieces, and one over several memory pages, which are given back
  // as the pieces go.
  const std::vector<size_t> sizes = {1, 63, 64, 65, 127, 128, 129, 640, 641, 3 * 4096 + 5};
  Params_Guard params;
  Fake_Mailboxes boxes;
  boxes.mailboxes["a@x"] = {Fake_Mailboxes::folder("f", "F", static_cast<int>(sizes.size()))};
  for (size_t i = 0; i < sizes.size(); ++i)
    boxes.sizes["f-item-" + std::to_string(i)] = sizes[i];
  Callback_Run run(boxes, 1, 1);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback callback = run.make_callback();
  const std::string root = mailbox_to_path("a@x");
  ASSERT_TRUE(callback.handle_source_entry_begin({"a@x", root}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
  ASSERT_TRUE(callback.read_dirs((root + "F").c_str(), out));
  for (size_t i = 0; i < sizes.size(); ++i)
  {
    char name[32];
    snprintf(name, sizeof name, "F%%20%04zu", i);
    EWS_File_Reader reader(run.ctx());
    ASSERT_EQ(reader.open((root + "F/" + name).c_str()), MTF::E_OK) << name;
    MTF::File_Blk blk;
    ACE_UINT64 space = 0;
    ASSERT_TRUE(reader.handle_file_blk(blk, space));
    ASSERT_EQ(blk.size(), sizes[i]);
    MTF::Buffer buf(64, 1024);
    std::string got;
    size_t reads = 0;
    while (got.size() < sizes[i] && reads <= sizes[i])
    {
      buf.clear();
      ASSERT_EQ(reader.read(buf), MTF::E_OK) << name;
      EXPECT_GT(buf.size(), 0u);
      EXPECT_LE(buf.size(), 64u);
      got.append(buf.data(), buf.size());
      ++reads;
      // What was handed on no longer counts in the budget.
      EXPECT_EQ(run.ctx().task()->lent_bytes(), sizes[i] - got.size()) << name;
    }
    EXPECT_EQ(got, boxes.content("f-item-" + std::to_string(i))) << name;
    EXPECT_EQ(reads, (sizes[i] + 63) / 64) << name;
    // Let go with the last piece: nothing more to read, nothing held.
    Log_Capture log;
    EXPECT_EQ(reader.read(buf), MTF::E_FAILED);
    EXPECT_EQ(run.ctx().task()->lent_bytes(), 0u);
  }

  // A buffer that already holds some bytes gets only what fills it; a full one
  // gets a piece of its capacity; a reader closed half-way lets the item go.
  boxes.mailboxes["b@x"] = {Fake_Mailboxes::folder("g", "G", 1)};
  boxes.sizes["g-item-0"] = 200;
  const std::string other = mailbox_to_path("b@x");
  ASSERT_TRUE(callback.handle_source_entry_begin({"b@x", other}));
  out.clear();
  ASSERT_TRUE(callback.read_dirs(other.c_str(), out));
  ASSERT_TRUE(callback.read_dirs((other + "G").c_str(), out));
  EWS_File_Reader reader(run.ctx());
  ASSERT_EQ(reader.open((other + "G/G%200000").c_str()), MTF::E_OK);
  MTF::Buffer buf(64, 1024);
  ASSERT_TRUE(buf.copy("0123456789", 10));
  ASSERT_EQ(reader.read(buf), MTF::E_OK);
  EXPECT_EQ(buf.size(), 64u);
  ASSERT_EQ(reader.read(buf), MTF::E_OK);
  EXPECT_EQ(buf.size(), 128u);
  EXPECT_EQ(std::string(buf.data() + 10, 118), boxes.content("g-item-0").substr(0, 118));
  EXPECT_EQ(run.ctx().task()->lent_bytes(), 200u - 118u);
  EXPECT_EQ(reader.close(), MTF::E_OK);
  EXPECT_EQ(run.ctx().task()->lent_bytes(), 0u);
}

TEST(EwsBackupCallback, ListedSizesKeepExportsWithinTheBudget)
{
  // Twelve items of one folder in one queued batch (3 per call, 4 calls at
  // once), 40 to 400 bytes each, under a budget of 250: without the listed
  // sizes the whole batch would be exported at once.
  Params_Guard params;
  EWS_Params::set_export_concurrency(4);
  Fake_Mailboxes boxes;
  boxes.mailboxes["a@x"] = {Fake_Mailboxes::folder("f", "F", 12)};
  size_t largest = 0;
  for (int i = 0; i < 12; ++i)
  {
    const size_t size = i == 6 ? 400 : 40 + 15 * static_cast<size_t>(i);
    boxes.sizes["f-item-" + std::to_string(i)] = size;
    largest = std::max(largest, size);
  }
  Callback_Run run(boxes, 1, 1);
  const uint64_t budget = 250;
  run.ctx().export_cache_budget(budget);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Export_Task& task = *run.ctx().task();
  std::mutex lock;  // calls of one export run side by side
  uint64_t most_held = 0;
  int calls = 0;
  boxes.on_export = [&](size_t bytes)
  {
    const uint64_t held = task.cache_bytes() + bytes;
    std::lock_guard<std::mutex> guard(lock);
    most_held = std::max<uint64_t>(most_held, held);
    ++calls;
  };
  EWS_Backup_Callback callback = run.make_callback();
  const std::string root = mailbox_to_path("a@x");
  ASSERT_TRUE(callback.handle_source_entry_begin({"a@x", root}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "F").c_str(), out));
  ASSERT_EQ(out.size(), 12u);
  int read = 0;
  for (const MTF::Directory_Entry& e : out)
  {
    EWS_File_Reader reader(run.ctx());
    read += reader.open((root + "F/" + e.name).c_str()) == MTF::E_OK;
  }
  EXPECT_EQ(read, 12);
  // Every call was made before the last item could be read.
  std::lock_guard<std::mutex> guard(lock);
  EXPECT_LE(most_held, budget + largest);
  EXPECT_LE(task.peak_held_bytes(), budget + largest);
  EXPECT_GE(most_held, largest);  // the 400-byte item went, alone
  EXPECT_GT(calls, 4);            // 12 items in 3-item batches would be 4 calls uncut
  EXPECT_EQ(task.cache_bytes(), 0u);
}

TEST(EwsBackupCallback, MailboxEndedHalfWayDoesNotStallTheRunUnderATinyBudget)
{
  Params_Guard params;
  Fake_Mailboxes boxes;
  fill(boxes);
  Callback_Run run(boxes, 1, 2);
  run.ctx().export_cache_budget(1);
  run.ctx().list_ahead(0);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback callback = run.make_callback();

  // Anna's Inbox is listed (three batches queued), then her listing fails and
  // the stream ends her mailbox without reading anything.
  const std::string anna = mailbox_to_path("anna@x.test");
  boxes.unlistable_folders = {"clash"};
  ASSERT_TRUE(callback.handle_source_entry_begin({"anna@x.test", anna}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(anna.c_str(), out));
  ASSERT_TRUE(callback.read_dirs((anna + "Inbox").c_str(), out));
  Log_Capture log;
  EXPECT_FALSE(callback.read_dirs((anna + "Inbox/Inbox%200001").c_str(), out));
  EXPECT_TRUE(log.contains("Failed to list items of folder(" + anna + "Inbox/Inbox%200001) of 'anna@x.test'."));
  ASSERT_TRUE(callback.handle_source_entry_end({"anna@x.test", anna}, false));
  EXPECT_EQ(run.ctx().get_failed_mailboxes(), Mailboxes{"anna@x.test"});
  EXPECT_TRUE(run.ctx().out_files_.empty());

  // Bob's items all come, although anna's exported items were never read.
  const std::string bob = mailbox_to_path("bob@x.test");
  ASSERT_TRUE(callback.handle_source_entry_begin({"bob@x.test", bob}));
  out.clear();
  ASSERT_TRUE(callback.read_dirs(bob.c_str(), out));
  out.clear();
  ASSERT_TRUE(callback.read_dirs((bob + "Archive").c_str(), out));
  ASSERT_EQ(out.size(), 3u);
  for (const MTF::Directory_Entry& e : out)
  {
    EWS_File_Reader reader(run.ctx());
    EXPECT_EQ(reader.open((bob + "Archive/" + e.name).c_str()), MTF::E_OK) << e.name;
  }
  EXPECT_EQ(run.ctx().task()->cache_bytes(), 0u);
  EXPECT_TRUE(callback.handle_source_produce_end());
}

TEST(EwsBackupCallback, StreamBacksUpEveryItemAndWritesOneIndexPerMailbox)
{
  Params_Guard params;
  Backupd_Process backupd;
  ASSERT_TRUE(backupd.add_pool("pool-1", "main"));
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();

  Fake_Mailboxes boxes;
  fill(boxes);
  Callback_Run run(boxes, 2, 3);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback_Factory factory(run.ctx());
  MTF_Metadata metadata;
  metadata.set_agent("backup.exchange.linux-x86");
  MTF::Event_Handler handler;
  MTF_Backup stream(metadata, handler, nullptr);
  stream.pool_uuid("pool-1");
  stream.minor_resource_id("nightly");
  stream.host_uuid("host-1");
  stream.seq(0);
  stream.channel_num(2);
  set_options_by_host(stream.extra_client_io_opts());
  stream.callback_factory(&factory);
  for (const char* m : {"anna@x.test", "ghost@x.test", "bob@x.test"})
    stream.add_source(mailbox_to_path(m), mailbox_to_path(m));
  ASSERT_EQ(stream.backup(), 0);
  run.ctx().stop_export_task();

  EXPECT_EQ(run.ctx().get_failed_mailboxes(), Mailboxes{"ghost@x.test"});
  std::vector<std::string> index_files = run.ctx().out_files_;
  std::sort(index_files.begin(), index_files.end());
  EXPECT_EQ(index_files, (std::vector<std::string>{"anna%40x.test.1.idx", "bob%40x.test.1.idx"}));
  EXPECT_GT(run.ctx().out_size_, 0);

  // Every item but the refused one is in the set, byte for byte.
  Set_Contents set;
  ASSERT_TRUE(set.read("pool-1", "host-1", "nightly", 1));
  std::map<std::string, std::string> expected;
  for (const auto& box : boxes.mailboxes)
  {
    std::vector<std::pair<std::string, const Fake_Folder*>> walk;
    for (const Fake_Folder& f : box.second)
      walk.emplace_back(mailbox_to_path(box.first) + encode_name(f.name), &f);
    while (!walk.empty())
    {
      auto next = walk.back();
      walk.pop_back();
      for (const Fake_Item& item : next.second->items)
        if (!boxes.refused_items.count(item.id))
          expected[next.first + "/" + encode_name(item.subject)] = boxes.content(item.id);
      for (const Fake_Folder& sub : next.second->subfolders)
        walk.emplace_back(next.first + "/" + encode_name(sub.name), &sub);
    }
  }
  EXPECT_EQ(set.files.size(), 19u);
  EXPECT_EQ(set.files, expected);

  // Each index holds the tree and its own mailbox's failed items.
  Client_IO_Ex reader;
  ASSERT_TRUE(create_io_channel("pool-1", "host-1/nightly", 1, reader, 0));
  std::map<std::string, std::vector<std::string>> failed;
  for (const std::string& name : index_files)
  {
    std::string text, error;
    ASSERT_TRUE(reader.get_contents(name, text));
    EWS_Folders folders;
    ASSERT_TRUE(load_ews_folders(text, folders, failed[name], error)) << error;
    EXPECT_FALSE(folders.empty());
  }
  EXPECT_EQ(failed["anna%40x.test.1.idx"], std::vector<std::string>{"in-item-4"});
  EXPECT_TRUE(failed["bob%40x.test.1.idx"].empty());
}

TEST(EwsBackupCallback, FolderLargerThanTheQueueDoesNotStallUnderATinyBudget)
{
  // One id per batch: the folder's batches outnumber what the queue holds, and
  // all of them are queued before its first item is read.
  EWS_Params::set_batch_size(1);
  EWS_Params::set_export_concurrency(1);
  EWS_Params::set_paging_size(1000);
  Fake_Mailboxes boxes;
  boxes.item_size = 10;
  const int count = 16384 + 300;
  boxes.mailboxes["big@x"] = {Fake_Mailboxes::folder("big", "Big", count)};
  Callback_Run run(boxes, 1, 1);
  run.ctx().export_cache_budget(1);
  ASSERT_TRUE(run.ctx().activate_export_task(&run.job()));
  EWS_Backup_Callback callback = run.make_callback();
  const std::string root = mailbox_to_path("big@x");
  ASSERT_TRUE(callback.handle_source_entry_begin({"big@x", root}));
  std::list<MTF::Directory_Entry> out;
  ASSERT_TRUE(callback.read_dirs(root.c_str(), out));
  out.clear();
  ASSERT_TRUE(callback.read_dirs((root + "Big").c_str(), out));
  ASSERT_EQ(out.size(), static_cast<size_t>(count));
  int read = 0;
  for (const MTF::Directory_Entry& e : out)
  {
    EWS_File_Reader reader(run.ctx());
    read += reader.open((root + "Big/" + e.name).c_str()) == MTF::E_OK;
  }
  EWS_Params::reset();
  EXPECT_EQ(read, count);
  EXPECT_EQ(run.ctx().task()->cache_bytes(), 0u);
  // Only what did not fit the queue passed the budget.
  EXPECT_LE(run.ctx().task()->peak_cache_bytes(), 10u * (count - 16384 + 1));
}
