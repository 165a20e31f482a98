// Backup and restore streams end to end over local directory trees, on file://
// pools and on a real backupd.

#include <gtest/gtest.h>

#include <random>

#include "apps/backupd/backupd_process.h"
#include "host/mtf/mtf_backup.h"
#include "host/mtf/mtf_restore.h"
#include "host/mtf/mtf_set_catalog.h"
#include "host/mtf/mtf_verifier.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/http_head.h"
#include "host/mtf/generated_tree.h"
#include "host/mtf/local_tree.h"
#include "support/log_capture.h"

// Bytes this process has read through read(2) and friends so far, all threads
// together (the kernel's count, independent of the code under test).
static uint64_t bytes_read_by_process()
{
  std::ifstream io("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (io >> key >> value)
    if (key == "rchar:")
      return value;
  ADD_FAILURE() << "no rchar in /proc/self/io";
  return 0;
}

static std::string bytes(size_t n, unsigned seed)
{
  std::mt19937 gen(seed);
  std::string s(n, '\0');
  for (char& c : s)
    c = static_cast<char>(gen());
  return s;
}

class MTF_Stream : public ::testing::Test
{
protected:
  void SetUp() override
  {
    char tmpl[] = "/tmp/mtf_stream_XXXXXX";
    root_ = mkdtemp(tmpl);
    system(("mkdir -p " + root_ + "/src/m1/sub/deeper " + root_ + "/src/m2 " + root_ + "/src/m3/x " + root_ +
            "/src/m4 " + root_ + "/pool")
             .c_str());
    write_file(root_ + "/src/m1/empty", "");
    write_file(root_ + "/src/m1/one-block", std::string(1024, 'q'));
    write_file(root_ +
                 "/src/m1/Gr\xC3\xBC\xC3\x9F"
                 "e \xE6\x97\xA5\xE6\x9C\xAC.txt",
               "non-ASCII name\n");
    write_file(root_ + "/src/m1/sub/a.bin", bytes(100 * 1024, 1));
    write_file(root_ + "/src/m1/sub/deeper/b.bin", bytes(3 * 1024 * 1024 + 17, 2));
    write_file(root_ + "/src/m2/c.txt", "see\n");
    write_file(root_ + "/src/m3/x/d.bin", bytes(700000, 3));
    for (int i = 0; i < 40; ++i)
      write_file(root_ + "/src/m4/f" + std::to_string(i), bytes(1000 + i * 37, 10 + i));
    pool_url_ = "file://" + root_ + "/pool";
  }
  void TearDown() override
  {
    log_.reset();
    system(("rm -rf '" + root_ + "'").c_str());
  }

  int backup(Local_Backup_Factory& factory, unsigned channels, bool zstd, int prev_rev,
             MTF::Event_Handler* handler = nullptr, const std::string& pool_uuid = "",
             const Client_IO_Base::Options* options = nullptr)
  {
    factory.record.root = root_ + "/src";
    return backup_sources(factory, {"/m1/", "/m2/", "/m3/", "/m4/"}, channels, zstd, prev_rev, handler, pool_uuid,
                          options);
  }

  int backup_sources(MTF::IBackup_Callback_Factory& factory, const std::vector<std::string>& sources, unsigned channels,
                     bool zstd, int prev_rev, MTF::Event_Handler* handler = nullptr, const std::string& pool_uuid = "",
                     const Client_IO_Base::Options* options = nullptr)
  {
    MTF_Metadata md;
    md.set_agent("backup.exchange.linux-x86");
    MTF::Event_Handler plain;
    MTF_Backup b(md, handler ? *handler : plain, log_);
    b.pool_uuid(pool_uuid.empty() ? "pool-1" : pool_uuid);
    if (pool_uuid.empty())
      b.pool_url(pool_url_);
    b.host_uuid("host-1");
    b.minor_resource_id("def-1");
    b.compression(compression_to_mtf(zstd ? COMPR_ZSTD : COMPR_NONE));
    b.seq(prev_rev);
    b.channel_num(channels);
    if (options)
      b.extra_client_io_opts() = *options;
    b.callback_factory(&factory);
    for (const std::string& source : sources)
      b.add_source(source, source);
    int rc = b.backup();
    last_size_ = b.size();
    last_files_ = b.files();
    return rc;
  }

  int restore(MTF::IRestore_Callback_Factory& factory, int rev, const nlohmann::ordered_json& selection,
              unsigned workers, MTF_Restore* keep = nullptr, const std::string& pool_uuid = "",
              const Client_IO_Base::Options* options = nullptr)
  {
    MTF::Event_Handler plain;
    MTF_Restore r(plain, log_);
    r.callback_factory(&factory);
    r.pool_uuid(pool_uuid.empty() ? "pool-1" : pool_uuid);
    if (pool_uuid.empty())
      r.pool_url(pool_url_);
    r.backup_host_uuid("host-1");
    r.backup_minor_resource_id("def-1");
    r.seq(rev);
    r.incarnation(rev);
    r.restore_select(selection);
    r.channel_num(workers);
    if (options)
      r.extra_client_io_opts() = *options;
    int rc = r.restore();
    restored_ = r.file_count();
    failed_ = r.failed_count();
    (void)keep;
    return rc;
  }

  std::string set_dir() const { return root_ + "/pool/host-1/def-1"; }

  // Every file of `sub` below src/ equals its copy below `target`.
  void expect_same(const std::string& target, const std::string& sub)
  {
    std::string out;
    FILE* p = popen(("cd '" + root_ + "/src' && find ." + sub + " -type f | sort").c_str(), "r");
    char line[4096];
    int n = 0;
    while (fgets(line, sizeof line, p))
    {
      std::string rel(line + 1);
      rel.pop_back();
      EXPECT_EQ(read_file(target + rel), read_file(root_ + "/src" + rel)) << rel;
      ++n;
    }
    pclose(p);
    EXPECT_GT(n, 0);
  }

  std::vector<std::string> verify(int rev, const std::string& location = "")
  {
    Client_IO_Ex io;
    EXPECT_TRUE(io.open(location.empty() ? pool_url_ + "/host-1/def-1" : location, options_));
    MTF_Verifier v;
    std::vector<std::string> errors;
    v.check_set(io, rev, errors);
    return errors;
  }

  // Log lines of the streams' threads go to `log`.
  void capture(Log_Capture& log)
  {
    log_.reset(&log, [](ACE_Log_Msg_Callback*) {});
  }

  std::shared_ptr<ACE_Log_Msg_Callback> log_;
  std::string root_;
  std::string pool_url_;
  Client_IO_Base::Options options_;
  ACE_UINT64 last_size_ = 0;
  std::vector<std::string> last_files_;
  ACE_UINT64 restored_ = 0;
  ACE_UINT64 failed_ = 0;
};

TEST_F(MTF_Stream, RoundTripsOnOneAndFourChannelsWithAndWithoutZstd)
{
  int prev = 0;
  for (unsigned channels : {1u, 4u})
    for (bool zstd : {false, true})
    {
      SCOPED_TRACE(std::to_string(channels) + (zstd ? " zstd" : " plain"));
      Local_Backup_Factory bf;
      ASSERT_EQ(backup(bf, channels, zstd, prev), 0);
      int rev = ++prev;
      EXPECT_EQ(bf.record.callbacks, static_cast<int>(channels));
      EXPECT_EQ(bf.record.produce_end, 1);
      ASSERT_EQ(bf.record.ended.size(), 4u);
      for (const auto& e : bf.record.ended)
        EXPECT_TRUE(e.second) << e.first;
      // Data files first, the catalog file last; names carry the new revision.
      ASSERT_EQ(last_files_.size(), channels + 1);
      EXPECT_EQ(last_files_.back(), "set." + std::to_string(rev) + ".cat");
      EXPECT_EQ(last_files_[0], "set." + std::to_string(rev) + ".0" + (zstd ? ".mtf.zst" : ".mtf"));
      EXPECT_EQ(verify(rev), std::vector<std::string>());

      std::string target = root_ + "/out" + std::to_string(rev);
      Local_Restore_Factory rf(target);
      ASSERT_EQ(restore(rf, rev, {{{"dir", "/"}}}, channels), 0);
      EXPECT_EQ(restored_, 47u);
      EXPECT_EQ(failed_, 0u);
      expect_same(target, "");
      EXPECT_EQ(read_file(target + "/m1/empty"), "");
    }
}

TEST_F(MTF_Stream, RestoresSingleFilesAndDirectoriesParentsFirst)
{
  Local_Backup_Factory bf;
  ASSERT_EQ(backup(bf, 2, true, 6), 0);
  std::string target = root_ + "/one";
  Local_Restore_Factory rf(target);
  rf.mkdir_delay_ms = 20;  // two workers; each must wait for the parents of its next directory
  nlohmann::ordered_json sel = {{{"file", "/m3/x/d.bin"}}, {{"dir", "/m1/sub"}}};
  ASSERT_EQ(restore(rf, 7, sel, 2), 0);
  EXPECT_EQ(rf.orphans, 0);
  EXPECT_EQ(rf.homeless, 0);
  EXPECT_EQ(restored_, 3u);
  expect_same(target, "/m1/sub");
  EXPECT_EQ(read_file(target + "/m3/x/d.bin"), read_file(root_ + "/src/m3/x/d.bin"));
  EXPECT_NE(access((target + "/m1/one-block").c_str(), F_OK), 0);
  EXPECT_NE(access((target + "/m2").c_str(), F_OK), 0);
  // Every parent before its children.
  for (size_t i = 0; i < rf.dirs.size(); ++i)
    for (size_t j = i + 1; j < rf.dirs.size(); ++j)
      EXPECT_NE(rf.dirs[i].compare(0, rf.dirs[j].size() + 1, rf.dirs[j] + "/"), 0) << rf.dirs[j];
  EXPECT_NE(std::find(rf.dirs.begin(), rf.dirs.end(), "/m1/sub/deeper"), rf.dirs.end());

  // Cancelled while directories are still being announced: every worker stops
  // and the restore ends as cancelled, with nothing restored.
  struct Cancel_Soon : MTF::Event_Handler
  {
    std::atomic<int> asked{0};
    bool canceling() override { return ++asked > 2; }
  } cancel;
  Local_Restore_Factory rf4(root_ + "/four");
  rf4.mkdir_delay_ms = 20;
  MTF_Restore cancelled(cancel, log_);
  cancelled.callback_factory(&rf4);
  cancelled.pool_uuid("pool-1");
  cancelled.pool_url(pool_url_);
  cancelled.backup_host_uuid("host-1");
  cancelled.backup_minor_resource_id("def-1");
  cancelled.seq(7);
  cancelled.restore_select({{{"dir", "/"}}});
  cancelled.channel_num(2);
  EXPECT_EQ(cancelled.restore(), -1);
  EXPECT_EQ(cancelled.file_count(), 0u);
  EXPECT_LT(rf4.dirs.size(), 7u);  // of the 7 the set has

  // A path the set does not have is counted and logged; a selection of nothing
  // known fails.
  Log_Capture log;
  capture(log);
  Local_Restore_Factory rf2(root_ + "/two");
  EXPECT_EQ(restore(rf2, 7, {{{"file", "/m1/nope"}}}, 1), -1);
  EXPECT_TRUE(log.contains("'/m1/nope' is not in backup set revision 7"));
  // A writer that refuses one file: counted, the others still restored.
  Local_Restore_Factory rf3(root_ + "/three");
  rf3.refuse_writers = 1;
  EXPECT_EQ(restore(rf3, 7, {{{"dir", "/m4"}}}, 1), 0);
  EXPECT_EQ(restored_, 39u);
  EXPECT_EQ(failed_, 1u);
}

TEST_F(MTF_Stream, FilesAreWrittenWhileOtherDirectoriesAreStillAnnounced)
{
  Local_Backup_Factory bf;
  ASSERT_EQ(backup(bf, 2, false, 6), 0);
  std::string target = root_ + "/all";
  Local_Restore_Factory rf(target);
  // /m2 is announced only once a file has been opened: a stream that opened
  // files only after every directory would hold it for 10 s, then go on.
  rf.hold_dir = "/m2";
  rf.mkdir_delay_ms = 5;
  ASSERT_EQ(restore(rf, 7, {{{"dir", "/"}}}, 4), 0);
  EXPECT_TRUE(rf.hold_released_by_file);
  EXPECT_EQ(restored_, 47u);
  EXPECT_EQ(failed_, 0u);
  EXPECT_EQ(rf.orphans, 0);
  EXPECT_EQ(rf.homeless, 0);
  // Every directory once, those without files too.
  std::vector<std::string> dirs = rf.dirs;
  std::sort(dirs.begin(), dirs.end());
  EXPECT_EQ(dirs, (std::vector<std::string>{"/m1", "/m1/sub", "/m1/sub/deeper", "/m2", "/m3", "/m3/x", "/m4"}));
  for (const char* path : {"/m1/sub/deeper/b.bin", "/m2/c.txt", "/m3/x/d.bin", "/m4/f39"})
    EXPECT_EQ(read_file(target + path), read_file(root_ + "/src" + path)) << path;
}

TEST_F(MTF_Stream, FailedFilesAndDamagedSetsAreReportedByPath)
{
  Local_Backup_Factory bf;
  bf.record.failing_reads.insert("/m2/c.txt");
  Log_Capture log;
  capture(log);
  ASSERT_EQ(backup(bf, 1, false, 0), 0);
  for (const auto& e : bf.record.ended)
    EXPECT_EQ(e.second, e.first != "/m2/") << e.first;
  EXPECT_TRUE(log.contains("Failed to open '/m2/c.txt'"));
  EXPECT_EQ(verify(1), std::vector<std::string>());

  std::string data = set_dir() + "/set.1.0.mtf";
  MTF_Set_Catalog catalog;
  std::string error;
  ASSERT_TRUE(catalog.parse(read_file(set_dir() + "/set.1.cat"), error)) << error;
  const MTF_Set_Catalog::Entry* a = nullptr;
  for (const auto& e : catalog.entries)
    if (e.path == "/m1/sub/a.bin")
      a = &e;
  ASSERT_NE(a, nullptr);
  // One flipped byte in a.bin's data: its SHA-256 no longer matches.
  std::string damaged = read_file(data);
  damaged[a->offset + 1024 + 10] ^= 0x40;
  write_file(data, damaged);
  std::vector<std::string> errors = verify(1);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_NE(errors[0].find("/m1/sub/a.bin"), std::string::npos) << errors[0];

  Local_Restore_Factory rf(root_ + "/out");
  ASSERT_EQ(restore(rf, 1, {{{"dir", "/"}}}, 2), 0);
  EXPECT_EQ(failed_, 1u);
  EXPECT_EQ(restored_, 45u);
  EXPECT_TRUE(log.contains("Failed to restore '/m1/sub/a.bin'"));
  EXPECT_NE(access((root_ + "/out/m1/sub/a.bin").c_str(), F_OK), 0);  // never published
  EXPECT_EQ(read_file(root_ + "/out/m3/x/d.bin"), read_file(root_ + "/src/m3/x/d.bin"));

  // Without its catalog file the set is incomplete and refused.
  unlink((set_dir() + "/set.1.cat").c_str());
  EXPECT_EQ(restore(rf, 1, {{{"dir", "/"}}}, 1), -1);
  EXPECT_TRUE(log.contains("absent or incomplete"));
}

TEST_F(MTF_Stream, CancelStopsPromptlyAndLeavesNothingVisible)
{
  for (unsigned channels : {1u, 4u})
  {
    Local_Backup_Factory bf;
    Cancel_Handler cancel(5);
    EXPECT_EQ(backup(bf, channels, channels == 4, 2, &cancel), -1);
    EXPECT_LE(bf.record.ended.size(), 4u);
    std::string out;
    FILE* p = popen(("find '" + root_ + "/pool' -type f").c_str(), "r");
    char line[4096];
    while (fgets(line, sizeof line, p))
      out += line;
    pclose(p);
    EXPECT_EQ(out, "");
  }
  // A later run of the same revision writes a whole set.
  Local_Backup_Factory bf;
  ASSERT_EQ(backup(bf, 2, false, 2), 0);
  EXPECT_EQ(verify(3), std::vector<std::string>());
}

TEST_F(MTF_Stream, RoundTripsOnBackupd)
{
  Backupd_Process backupd;
  ASSERT_TRUE(backupd.add_pool("pool-a", "first"));
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();
  Client_IO_Base::Options options;
  options.set_extra_option(http_head_string(HTTP_HEAD_ACCESS_KEY, 0, Backupd_Process::key()), Backupd_Process::key());
  for (bool zstd : {false, true})
  {
    Local_Backup_Factory bf;
    int rev = zstd ? 2 : 1;
    ASSERT_EQ(backup(bf, 4, zstd, rev - 1, nullptr, "pool-a", &options), 0);
    options_ = options;
    EXPECT_EQ(verify(rev, backupd.pool_url("pool-a") + "/host-1/def-1"), std::vector<std::string>());
    std::string target = root_ + "/bd" + std::to_string(rev);
    Local_Restore_Factory rf(target);
    ASSERT_EQ(restore(rf, rev, {{{"dir", "/"}}}, 4, nullptr, "pool-a", &options), 0);
    EXPECT_EQ(restored_, 47u);
    expect_same(target, "");
    Local_Restore_Factory one(target + "-one");
    ASSERT_EQ(restore(one, rev, {{{"file", "/m1/sub/deeper/b.bin"}}}, 1, nullptr, "pool-a", &options), 0);
    EXPECT_EQ(read_file(target + "-one/m1/sub/deeper/b.bin"), read_file(root_ + "/src/m1/sub/deeper/b.bin"));
  }
  backupd.stop();
}

TEST_F(MTF_Stream, CancelOnBackupdLeavesNoObjectOfTheSet)
{
  Backupd_Process backupd;
  ASSERT_TRUE(backupd.add_pool("pool-a", "first"));
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();
  Client_IO_Base::Options options;
  options.set_extra_option(http_head_string(HTTP_HEAD_ACCESS_KEY, 0, Backupd_Process::key()), Backupd_Process::key());
  options_ = options;
  std::string location = backupd.pool_url("pool-a") + "/host-1/def-1";
  for (bool zstd : {false, true})
  {
    SCOPED_TRACE(zstd ? "zstd" : "plain");
    Local_Backup_Factory bf;
    Cancel_Handler cancel(5);
    EXPECT_EQ(backup(bf, 4, zstd, 4, &cancel, "pool-a", &options), -1);
    // Neither the data files nor the catalog file of revision 5 can be found.
    Client_IO_Ex io;
    ASSERT_TRUE(io.open(location, options));
    uint64_t size = 0;
    for (unsigned channel = 0; channel < 4; ++channel)
      EXPECT_FALSE(io.size(MTF_Set_Catalog::data_name(5, channel, zstd), size)) << channel;
    std::string text;
    EXPECT_FALSE(io.get_contents(MTF_Set_Catalog::catalog_name(5), text));
  }
  backupd.stop();
  // Nor is any published object of the set in the server's data directory.
  std::string found;
  FILE* p = popen(("find '" + backupd.data_dir() + "' -type f -name 'set.*'").c_str(), "r");
  char line[4096];
  while (fgets(line, sizeof line, p))
    found += line;
  pclose(p);
  EXPECT_EQ(found, "");
  // The server again, and a whole run of the same revision.
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();
  Local_Backup_Factory bf;
  ASSERT_EQ(backup(bf, 2, true, 4, nullptr, "pool-a", &options), 0);
  EXPECT_EQ(verify(5, backupd.pool_url("pool-a") + "/host-1/def-1"), std::vector<std::string>());
  backupd.stop();
}

// One file of hundreds of MiB (generated, never on disk but in the pool), with
// small files before and after it: it round-trips byte for byte, and restoring
// one small file reads about that file's bytes, not the set.
TEST_F(MTF_Stream, LargeFileRoundTripsAndOneFileIsReadAlone)
{
  const uint64_t huge = 256ull << 20;
  for (bool zstd : {false, true})
  {
    SCOPED_TRACE(zstd ? "zstd" : "plain");
    Generated_Backup_Factory bf;
    // zstd is checked on a smaller set of several frames: generated bytes do not
    // compress, and one large file makes one frame.
    bf.tree.files["a-small"] = {100 * 1024, 2};
    if (zstd)
      for (int i = 0; i < 6; ++i)
        bf.tree.files["middle-" + std::to_string(i)] = {4ull << 20, 10u + i};
    else
      bf.tree.files["huge.bin"] = {huge, 1};
    bf.tree.files["z-small"] = {300001, 3};
    int rev = zstd ? 2 : 1;
    ASSERT_EQ(backup_sources(bf, {"/gen"}, 1, zstd, rev - 1), 0);
    EXPECT_EQ(verify(rev), std::vector<std::string>());
    uint64_t set_bytes = 0;
    for (const std::string& name : last_files_)
    {
      struct stat st;
      ASSERT_EQ(::stat((set_dir() + "/" + name).c_str(), &st), 0) << name;
      set_bytes += static_cast<uint64_t>(st.st_size);
    }
    uint64_t catalog_bytes = read_file(set_dir() + "/" + last_files_.back()).size();

    for (const char* name : {"z-small", "a-small"})
    {
      Checking_Restore_Factory one(bf.tree);
      uint64_t before = bytes_read_by_process();
      ASSERT_EQ(restore(one, rev, {{{"file", std::string("/gen/") + name}}}, 1), 0);
      uint64_t read = bytes_read_by_process() - before;
      uint64_t size = bf.tree.files[name].first;
      EXPECT_EQ(one.record.matched["/gen/" + std::string(name)], size) << name;
      EXPECT_EQ(one.record.mismatches, 0);
      // The file, its block, the catalog, one read-ahead piece (and with zstd the
      // start of its frame, at most 1 MiB of MTF bytes).
      EXPECT_LT(read, size + catalog_bytes + (zstd ? 3u : 1u) * 1024 * 1024) << name << " of " << set_bytes;
    }

    Checking_Restore_Factory all(bf.tree);
    ASSERT_EQ(restore(all, rev, {{{"dir", "/gen"}}}, 2), 0);
    EXPECT_EQ(restored_, bf.tree.files.size());
    EXPECT_EQ(failed_, 0u);
    EXPECT_EQ(all.record.mismatches, 0);
    for (const auto& f : bf.tree.files)
      EXPECT_EQ(all.record.matched["/gen/" + f.first], f.second.first) << f.first;
    if (!zstd)
    {
      EXPECT_GT(set_bytes, huge);
    }
  }
}
