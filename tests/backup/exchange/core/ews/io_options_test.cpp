#include <gtest/gtest.h>

#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/utils.h"
#include "host/job/job_definition.h"
#include "support/log_capture.h"

static const char KEY_HEADER[] = "X-Backupd-Access-Key";

TEST(Io_Options, RateLimitsAreSharedAmongChannels)
{
  std::vector<Rate_Control_Entry> eight = {{0, 3600, 1000001}, {3600, 7200, 0}, {7200, 9000, 7}};
  set_rate_limits_by_channels(eight, 8);
  EXPECT_EQ(eight[0].max_bytes_per_second, 125001u);
  EXPECT_EQ(eight[1].max_bytes_per_second, 0u);
  EXPECT_EQ(eight[2].max_bytes_per_second, 1u);  // never rounded down to "no limit"
  EXPECT_EQ(eight[0].start_time, 0u);
  EXPECT_EQ(eight[0].end_time, 3600u);
  for (size_t channels : {0u, 1u})
  {
    std::vector<Rate_Control_Entry> kept = {{0, 3600, 1000001}};
    set_rate_limits_by_channels(kept, channels);
    EXPECT_EQ(kept[0].max_bytes_per_second, 1000001u);
  }
}

TEST(Io_Options, JobDefinitionFillsRetryResumptionAndShares)
{
  Job_Definition def;
  def.max_seconds_retry(90);
  def.resumption_buffer_size(1 << 20);
  def.max_rate_limits() = {{0, 86400, 1000}};
  Client_IO_Base::Options options;
  set_options_by_job_def(options, def, 3);
  EXPECT_EQ(options.max_seconds_retry, 90);
  EXPECT_EQ(options.resumption_buffer_size, 1u << 20);
  ASSERT_EQ(options.rate_control_entries.size(), 1u);
  EXPECT_EQ(options.rate_control_entries[0].max_bytes_per_second, 334u);
  EXPECT_EQ(def.max_rate_limits()[0].max_bytes_per_second, 1000u);  // the definition keeps its own
}

TEST(Io_Options, HostKeyGoesIntoTheAccessKeyHeader)
{
  Host_Manager::Settings settings;
  settings.access_key = "agent-key";
  settings.node_access_key = "node-key";
  Host_Manager::instance().init(settings);
  Client_IO_Base::Options options;
  set_options_by_host(options);
  ASSERT_NE(options.extra_option(KEY_HEADER), nullptr);
  EXPECT_EQ(*options.extra_option(KEY_HEADER), "agent-key");

  settings.on_backupd = true;
  Host_Manager::instance().init(settings);
  set_options_by_host(options);
  EXPECT_EQ(*options.extra_option(KEY_HEADER), "node-key");

  Client_IO_Base::Options other;
  set_http_head_to_options(other, 9999, "value");  // a header the host has no name for
  EXPECT_TRUE(other.extra_options.empty());
  set_d2t_access_mode(other);
  EXPECT_EQ(other.d2t_access_mode, 2);
}

namespace
{
class Io_Channel_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-a", "first"));
    ASSERT_TRUE(backupd_.add_pool("pool-bad", "bad", R"({"extra_options": "not an object"})"));
    ASSERT_TRUE(backupd_.start());
    backupd_.configure_host();
  }

  Backupd_Process backupd_;
};
}  // namespace

TEST_F(Io_Channel_Test, OpensThePoolLocationJoinedWithThePath)
{
  const std::string pool = backupd_.pool_url("pool-a");
  Client_IO_Ex io;
  ASSERT_TRUE(create_io_channel("pool-a", "host-1/def-1", false, io, 0));
  EXPECT_EQ(io.location(), pool + "/host-1/def-1");
  ASSERT_TRUE(create_io_channel("pool-a", "/host-1/def-1", true, io, 0));
  EXPECT_EQ(io.location(), pool + "/host-1/def-1");
  ASSERT_TRUE(create_io_channel("pool-a", "", false, io, 0));
  EXPECT_EQ(io.location(), pool);

  // The channel carries the host's key: objects can be stored and read back.
  ASSERT_TRUE(create_io_channel("pool-a", "host-1/def-1", false, io, 0));
  ASSERT_TRUE(io.put_contents("a@x.com.1.idx", "{}", true)) << io.last_error();
  Client_IO_Ex reader;
  ASSERT_TRUE(create_io_channel("pool-a", "host-1", true, reader, 0));
  std::string text;
  ASSERT_TRUE(reader.get_contents("def-1/a@x.com.1.idx", text)) << reader.last_error();
  EXPECT_EQ(text, "{}");
}

TEST_F(Io_Channel_Test, FailuresAreLoggedWithThePoolOrLocation)
{
  Log_Capture log;
  Client_IO_Ex io;
  EXPECT_FALSE(create_io_channel("pool-missing", "x", false, io, 0));
  EXPECT_TRUE(log.contains("Failed to get pool info, uuid = pool-missing\n"));
  EXPECT_EQ(log.priority_of("Failed to get pool info"), static_cast<unsigned long>(LM_ERROR));
  EXPECT_FALSE(create_io_channel("pool-bad", "x", false, io, 0));
  EXPECT_TRUE(log.contains("Failed to set IO options by pool, uuid = pool-bad\n"));
  EXPECT_FALSE(io.is_open());
}

TEST(Io_Channel, UnreachableLocationIsLogged)
{
  Backupd_Process backupd;
  std::string command = std::string(BACKUPD_PATH) + " pool add --data '" + backupd.data_dir() +
                        "' --uuid pool-ftp --name ftp --url ftp://example.com/pool > /dev/null";
  ASSERT_EQ(system(command.c_str()), 0);
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();
  Log_Capture log;
  Client_IO_Ex io;
  EXPECT_FALSE(create_io_channel("pool-ftp", "x", false, io, 0));
  EXPECT_TRUE(log.contains("Failed to connect to 'ftp://example.com/pool/x': unsupported storage location"));
  // The access key never reaches the log.
  for (const std::string& line : log.lines())
    EXPECT_EQ(line.find(Backupd_Process::key()), std::string::npos) << line;
}
