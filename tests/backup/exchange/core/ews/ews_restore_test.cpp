#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_backup_callback_factory.h"
#include "backup/exchange/core/ews/ews_backup_context.h"
#include "backup/exchange/core/ews/ews_file_writer.h"
#include "backup/exchange/core/ews/ews_folders_cache.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/core/ews/ews_restore_callback_factory.h"
#include "backup/exchange/core/ews/ews_restore_context.h"
#include "backup/exchange/core/ews/fake_mailboxes.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/websvcs_agent/mailbox_index_lister.h"
#include "host/ews/ews_folders_index.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_restore.h"
#include "support/log_capture.h"
#include "support/plain_job.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace
{
const char* const anna = "anna@x.test";

EWS_Folder folder(const std::string& id, const std::string& name)
{
  EWS_Folder f;
  f.id = id;
  f.display_name = name;
  return f;
}

EWS_Item item(const std::string& id, const std::string& subject)
{
  EWS_Item i;
  i.id = id;
  i.subject = subject;
  return i;
}

// Inbox (an item whose id holds "+", "/" and "="; a subfolder with "/" in its
// name), two top-level folders of one name and one with a Unicode name.
EWS_Folders tree()
{
  EWS_Folder inbox = folder("in", "Inbox");
  inbox.items.push_back(item("AAMk+/x=", "Hello"));
  EWS_Folder slash = folder("pj", "Projects/2024");
  slash.items.push_back(item("pj-1", "Plan"));
  inbox.subfolders.push_back(slash);
  return EWS_Folders{inbox, folder("d1", "Dup"), folder("d2", "Dup"), folder("u", "\xc3\x9cn\xc3\xaf code")};
}

// backupd with pool-1, the index of anna's set 3 stored under host-1/nightly.
class Stored_Index
{
public:
  Stored_Index()
  {
    EXPECT_TRUE(backupd_.add_pool("pool-1", "main"));
    EXPECT_TRUE(backupd_.start());
    backupd_.configure_host();
    std::string text, name;
    EXPECT_TRUE(dump_ews_folders(tree(), text, {}));
    index_name(anna, 3, name);
    Client_IO_Ex io;
    EXPECT_TRUE(create_io_channel("pool-1", "host-1/nightly", 0, io, 0));
    EXPECT_TRUE(io.put_contents(name, text, true));
  }

private:
  Backupd_Process backupd_;
};

EWS_Restore_Context_Ptr make_context(Fake_Mailboxes& boxes, const std::string& target)
{
  EWS_Restore_Context_Ptr ctx(new EWS_Restore_Context());
  ctx->client_maker(boxes.maker());
  EXPECT_TRUE(ctx->init("svc", Secure_String("pw"), target, nullptr, nullptr));
  return ctx;
}
}  // namespace

TEST(EwsFoldersCache, LoadsEachIndexOnceAndListsFoldersFromIt)
{
  Stored_Index stored;
  std::string name;
  index_name(anna, 3, name);
  EWS_Folders_Cache* cache = EWS_Folders_Cache::instance();
  EWS_Folders_Ptr first, second;
  ASSERT_TRUE(cache->get("pool-1", "host-1/nightly", name, first));
  ASSERT_TRUE(cache->get("pool-1", "host-1/nightly", name, second));
  EXPECT_EQ(first.get(), second.get());
  ASSERT_EQ(first->size(), 4u);
  EXPECT_EQ((*first)[0].subfolders[0].display_name, "Projects/2024");

  // A failed download leaves the slot as it was.
  {
    Log_Capture log;
    EXPECT_FALSE(cache->get("pool-1", "host-1/nightly", "none.3.idx", second));
    EXPECT_EQ(log.count("Failed to get mailbox index from pool"), 1u);
  }
  EXPECT_TRUE(cache->is_cachce_valid("pool-1", "host-1/nightly", name));
  EXPECT_FALSE(cache->is_cachce_valid("pool-1", "host-1/other", name));

  // Browsing: the top level, then a chain of ids; offset and limit do not cut.
  Mailbox_Index_Lister lister("pool-1", "set-1", "host-1/nightly", anna, 3, 1, 1);
  nlohmann::ordered_json result;
  ASSERT_TRUE(lister.list_folder({}, result));
  EXPECT_EQ(result["total"], 4);
  ASSERT_EQ(result["rows"].size(), 4u);
  EXPECT_EQ(result["rows"][3]["name"], "\xc3\x9cn\xc3\xaf code");
  ASSERT_TRUE(lister.list_folder({"in"}, result));
  EXPECT_EQ(result["total"], 2);
  EXPECT_EQ(result["rows"][0]["entry_id"], "pj");
  EXPECT_EQ(result["rows"][1]["entry_id"], "AAMk+/x=");
  ASSERT_TRUE(lister.list_folder({"in", "pj"}, result));
  EXPECT_EQ(result["rows"][0]["subject"], "Plan");
  // The second id must be a child of the first, not another top-level folder.
  Log_Capture log;
  EXPECT_FALSE(lister.list_folder({"in", "u"}, result));
  EXPECT_EQ(log.count("EWS folder not found, id = u, pool_uuid = pool-1, uri = host-1/nightly"), 1u);
}

TEST(EwsRestoreContext, SelectionEntriesDirectoriesAndWriters)
{
  Stored_Index stored;
  Fake_Mailboxes boxes;
  EWS_Restore_Context_Ptr ctx = make_context(boxes, "bob@x.test");
  ASSERT_TRUE(ctx->create_target_folder(""));
  EXPECT_TRUE(ctx->target_folder_id().empty());
  EXPECT_TRUE(boxes.created.empty());
  ASSERT_TRUE(ctx->load_src_index(anna, "pool-1", "host-1/nightly", 3));

  // Sets of other agents: a drive prefix and backslashes.
  nlohmann::ordered_json out = nlohmann::ordered_json::object();
  ASSERT_TRUE(ctx->to_mtf_restore_entry("in", out));
  EXPECT_EQ(out, nlohmann::ordered_json({{"dir", "@:\\anna%40x.test\\Inbox"}}));

  ctx->set_linux_paths();
  const std::map<std::string, nlohmann::ordered_json> good = {
    {"in", {{"dir", "/anna%40x.test/Inbox"}}},
    {"d2", {{"dir", "/anna%40x.test/Dup"}}},
    {"u", {{"dir", "/anna%40x.test/" + encode_name("\xc3\x9cn\xc3\xaf code")}}},
    {"Inbox/pj", {{"dir", "/anna%40x.test/Inbox/Projects%2f2024"}}},
    {"Inbox/AAMk%2B%2Fx%3D", {{"file", "/anna%40x.test/Inbox/Hello"}}},
    {"In%62ox/AAMk%2B%2Fx%3D", {{"file", "/anna%40x.test/Inbox/Hello"}}},
  };
  for (const auto& entry : good)
  {
    out = nlohmann::ordered_json::object();
    EXPECT_TRUE(ctx->to_mtf_restore_entry(entry.first, out)) << entry.first;
    EXPECT_EQ(out, entry.second) << entry.first;
  }
  // An item cannot be named without its folder; a wrong id under a right path
  // fails; a "/" inside a name splits it once decoded.
  for (const char* bad : {"AAMk%2B%2Fx%3D", "Inbox/nope", "Inbox%2FProjects%2F2024/pj-1"})
  {
    Log_Capture log;
    out = nlohmann::ordered_json::object();
    EXPECT_FALSE(ctx->to_mtf_restore_entry(bad, out)) << bad;
    EXPECT_EQ(log.count("in EWS backupset"), 1u) << bad;
  }
  Log_Capture log;
  EXPECT_FALSE(ctx->to_mtf_restore_entry("Inbox/nope", out));
  EXPECT_EQ(log.count("Failed to find entry 'nope' in EWS backupset"), 1u);

  // The mailbox's own directory creates and records nothing.
  EXPECT_TRUE(ctx->mkdir_p("/anna%40x.test"));
  EXPECT_TRUE(boxes.created.empty());
  std::string id;
  EXPECT_FALSE(ctx->get_folder_id("/anna%40x.test", id));
  EXPECT_EQ(log.count("EWS folder '/anna%40x.test' not created"), 1u);
  // A directory: its levels, decoded, below the target; once per path.
  ASSERT_TRUE(ctx->mkdir_p("/anna%40x.test/Inbox/Projects%2f2024"));
  ASSERT_TRUE(ctx->mkdir_p("/anna%40x.test/Inbox/Projects%2f2024"));
  ASSERT_EQ(boxes.created.size(), 2u);
  EXPECT_EQ(boxes.created[0].name, "Inbox");
  EXPECT_EQ(boxes.created[1].name, "Projects/2024");
  EXPECT_EQ(boxes.created[1].mailbox, "bob@x.test");
  ASSERT_TRUE(ctx->get_folder_id("/anna%40x.test/Inbox/Projects%2f2024", id));
  EXPECT_EQ(id, boxes.created[1].id);

  // Writers: a path without directory, a directory never announced.
  EWS_Client_Ptr client;
  ASSERT_TRUE(ctx->create_ews_client(client));
  EWS_File_Writer lost(client, ctx);
  EXPECT_EQ(lost.open("Plan", 4), MTF::E_FAILED);
  EXPECT_EQ(log.count("Failed to get dirname of 'Plan'"), 1u);
  EXPECT_EQ(lost.open("/anna%40x.test/Dup/Plan", 4), MTF::E_FAILED);
  // Exactly the announced size in pieces: one upload, on the last piece.
  EWS_File_Writer writer(client, ctx);
  ASSERT_EQ(writer.open("/anna%40x.test/Inbox/Projects%2f2024/Plan", 10), MTF::E_OK);
  EXPECT_EQ(writer.write("0123", 4), MTF::E_OK);
  EXPECT_TRUE(boxes.uploaded.empty());
  EXPECT_EQ(writer.write("456789", 6), MTF::E_OK);
  ASSERT_EQ(boxes.uploaded.size(), 1u);
  EXPECT_EQ(boxes.uploaded[0].data, "0123456789");
  EXPECT_EQ(boxes.uploaded[0].parent_id, id);
  EXPECT_EQ(writer.write("x", 1), MTF::E_FAILED);
  // One byte too many: refused, nothing uploaded.
  EWS_File_Writer over(client, ctx);
  ASSERT_EQ(over.open("/anna%40x.test/Inbox/Projects%2f2024/Plan", 5), MTF::E_OK);
  EXPECT_EQ(over.write("012345", 6), MTF::E_FAILED);
  EXPECT_EQ(log.count("curr_ + size <= buffer_.size() is false"), 2u);
  EXPECT_EQ(boxes.uploaded.size(), 1u);

  // A context without a target mailbox makes no client.
  EWS_Restore_Context bare;
  bare.client_maker(boxes.maker());
  const int made = boxes.clients_made;
  EXPECT_FALSE(bare.create_ews_client(client));
  EXPECT_EQ(boxes.clients_made, made);
}

// Backs a simulated mailbox up through the backup engine, then restores parts of
// it into another mailbox under a relocation folder through the restore stream.
TEST(EwsRestoreCallback, StreamRestoresFoldersAndItemsByteForByte)
{
  Backupd_Process backupd;
  ASSERT_TRUE(backupd.add_pool("pool-1", "main"));
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();

  Fake_Mailboxes boxes;
  Fake_Folder inbox = Fake_Mailboxes::folder("in", "Inbox", 5);
  inbox.subfolders.push_back(Fake_Mailboxes::folder("pj", "Projects/2024", 3));
  // Two folders of one name, with items of the same names and one more.
  Fake_Folder second = Fake_Mailboxes::folder("d2", "Dup", 2);
  second.items.push_back(Fake_Item{"d2-x", "Second", 1700000000, 1600000000});
  boxes.mailboxes[anna] = {inbox, Fake_Mailboxes::folder("d1", "Dup", 2), second,
                           Fake_Mailboxes::folder("u", "\xc3\x9cn\xc3\xaf code", 1)};
  boxes.mailboxes["bob@x.test"] = {};
  {
    Plain_Job job(plain_definition());
    EWS_Backup_Context_Ptr ctx(new EWS_Backup_Context("svc", Secure_String("pw"), "pool-1", "host-1/nightly", 1, 2,
                                                      nullptr, job.activity(), job));
    ctx->client_maker(boxes.maker());
    ctx->mailbox_count_ = 1;
    ASSERT_TRUE(ctx->activate_export_task(&job));
    EWS_Backup_Callback_Factory factory(*ctx);
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
    stream.add_source(mailbox_to_path(anna), mailbox_to_path(anna));
    ASSERT_EQ(stream.backup(), 0);
    ctx->stop_export_task();
  }

  EWS_Restore_Context_Ptr ctx = make_context(boxes, "bob@x.test");
  ASSERT_TRUE(ctx->create_target_folder("Restored/Run 1"));
  ASSERT_TRUE(ctx->load_src_index(anna, "pool-1", "host-1/nightly", 1));
  ctx->set_linux_paths();
  nlohmann::ordered_json selection = nlohmann::ordered_json::array();
  for (const char* entry : {"Inbox/pj", "d2", "u", "Dup/d1-item-1"})
  {
    nlohmann::ordered_json object = nlohmann::ordered_json::object();
    ASSERT_TRUE(ctx->to_mtf_restore_entry(entry, object)) << entry;
    selection.push_back(object);
  }
  EWS_Restore_Callback_Factory factory(ctx);
  MTF::Event_Handler handler;
  MTF_Restore stream(handler);
  stream.callback_factory(&factory);
  stream.pool_uuid("pool-1");
  stream.backup_host_uuid("host-1");
  stream.backup_minor_resource_id("nightly");
  stream.seq(1);
  stream.incarnation(1);
  stream.restore_select(selection);
  stream.channel_num(2);
  set_options_by_host(stream.extra_client_io_opts());
  ASSERT_EQ(stream.restore(), 0);
  EXPECT_EQ(stream.failed_count(), 0u);

  // Folder names and parents of what was made, by id.
  std::map<std::string, std::string> path_of{{"", ""}};
  for (const Fake_Mailboxes::Created_Folder& f : boxes.created)
  {
    EXPECT_EQ(f.mailbox, "bob@x.test");
    path_of[f.id] = path_of[f.parent_id] + "/" + f.name;
  }
  std::multiset<std::string> folders;
  for (const Fake_Mailboxes::Created_Folder& f : boxes.created)
    folders.insert(path_of[f.id]);
  // The two "Dup" folders share one path in the set: selecting one restores
  // the items of both into one folder "Dup", made once.
  EXPECT_EQ(folders, (std::multiset<std::string>{"/Restored", "/Restored/Run 1", "/Restored/Run 1/Inbox",
                                                 "/Restored/Run 1/Inbox/Projects/2024", "/Restored/Run 1/Dup",
                                                 "/Restored/Run 1/\xc3\x9cn\xc3\xaf code"}));
  // The stream's workers upload in parallel: the order within a folder is free.
  std::multiset<std::pair<std::string, std::string>> got;
  for (const Fake_Mailboxes::Uploaded_Item& u : boxes.uploaded)
  {
    EXPECT_EQ(u.mailbox, "bob@x.test");
    got.emplace(path_of[u.parent_id], u.data);
  }
  std::multiset<std::pair<std::string, std::string>> want;
  for (int i = 0; i < 3; ++i)
    want.emplace("/Restored/Run 1/Inbox/Projects/2024", boxes.content("pj-item-" + std::to_string(i)));
  for (const char* id : {"d1-item-0", "d1-item-1", "d2-item-0", "d2-item-1", "d2-x"})
    want.emplace("/Restored/Run 1/Dup", boxes.content(id));
  want.emplace("/Restored/Run 1/\xc3\x9cn\xc3\xaf code", boxes.content("u-item-0"));
  EXPECT_EQ(got, want);
}
