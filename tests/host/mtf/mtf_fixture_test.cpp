// The fixture sets kept with the tests: good sets of each format version read
// exactly, damaged ones rejected with errors that name the path concerned while
// their undamaged files still restore.

#include <gtest/gtest.h>

#include "host/mtf/fixture_tree.h"
#include "host/mtf/local_tree.h"
#include "host/mtf/mtf_restore.h"
#include "host/mtf/mtf_verifier.h"
#include "host/storage/client_io_ex.h"
#include "support/log_capture.h"

class MTF_Fixtures : public ::testing::Test
{
protected:
  void SetUp() override
  {
    char tmpl[] = "/tmp/mtf_fixtures_XXXXXX";
    root_ = mkdtemp(tmpl);
    ASSERT_EQ(system(("cp -r '" MTF_FIXTURES "/.' '" + root_ + "/'").c_str()), 0);
  }
  void TearDown() override { system(("rm -rf '" + root_ + "'").c_str()); }

  std::vector<std::string> verify(const std::string& name)
  {
    Client_IO_Ex io;
    EXPECT_TRUE(io.open("file://" + root_ + "/" + name + "/host-1/def-1", Client_IO_Base::Options()));
    MTF_Verifier v;
    std::vector<std::string> errors;
    v.check_set(io, 1, errors);
    return errors;
  }

  // Restores the whole set; the files that came back, with their contents.
  std::map<std::string, std::string> restore(const std::string& name, ACE_UINT64& failed, Log_Capture* log = nullptr)
  {
    std::string target = root_ + "/out-" + name;
    Local_Restore_Factory factory(target);
    MTF::Event_Handler handler;
    MTF_Restore r(handler, log ? std::shared_ptr<ACE_Log_Msg_Callback>(log, [](ACE_Log_Msg_Callback*) {})
                               : std::shared_ptr<ACE_Log_Msg_Callback>());
    r.callback_factory(&factory);
    r.pool_uuid("pool-1");
    r.pool_url("file://" + root_ + "/" + name);
    r.backup_host_uuid("host-1");
    r.backup_minor_resource_id("def-1");
    r.seq(1);
    r.restore_select({{{"dir", "/data"}}});
    EXPECT_EQ(r.restore(), 0);
    failed = r.failed_count();
    std::map<std::string, std::string> out;
    for (const auto& f : fixture_tree())
      if (access((target + f.first).c_str(), F_OK) == 0)
        out[f.first] = read_file(target + f.first);
    return out;
  }

  std::string root_;
};

TEST_F(MTF_Fixtures, GoodSetsOfVersionOneReadExactly)
{
  for (const char* name : {"v1-plain", "v1-zstd"})
  {
    SCOPED_TRACE(name);
    EXPECT_EQ(verify(name), std::vector<std::string>());
    ACE_UINT64 failed = 1;
    EXPECT_EQ(restore(name, failed), fixture_tree());
    EXPECT_EQ(failed, 0u);
  }
}

TEST_F(MTF_Fixtures, DamagedSetsNameThePathAndRestoreTheRest)
{
  struct Case
  {
    const char* name;
    const char* path;
    const char* why;
  };
  const Case cases[] = {
    {"damaged-checksum", "/data/docs/readme.txt", "checksum"},
    {"damaged-truncated", "/data/docs/readme.txt", "ends"},
    {"damaged-length",
     "/data/docs/Gr\xC3\xBC\xC3\x9F"
     "e.txt",
     "bytes"},
  };
  for (const Case& c : cases)
  {
    SCOPED_TRACE(c.name);
    std::vector<std::string> errors = verify(c.name);
    ASSERT_FALSE(errors.empty());
    bool named = false;
    for (const std::string& e : errors)
      named = named || (e.find(c.path) != std::string::npos);
    EXPECT_TRUE(named) << ::testing::PrintToString(errors);
    EXPECT_NE(errors[0].find(c.why), std::string::npos) << errors[0];

    Log_Capture log;
    ACE_UINT64 failed = 0;
    std::map<std::string, std::string> got = restore(c.name, failed, &log);
    std::map<std::string, std::string> expected = fixture_tree();
    expected.erase(c.path);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(failed, 1u);
    EXPECT_TRUE(log.contains(std::string("Failed to restore '") + c.path)) << log.text();
  }
}
