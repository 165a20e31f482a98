#include <gtest/gtest.h>

#include "apps/backupd/backupd_process.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"

namespace
{
class Pool_Info_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-a", "first",
                                  R"({"max_seconds_retry": 7, "resumption_buffer_size": 4096,)"
                                  R"( "compression_method": 3, "extra_options": {"X-Pool-Tag": "blue"}})"));
    ASSERT_TRUE(backupd_.add_pool("pool-ro", "archive", R"({"read_only": true, "device_uuid": "dev-1"})"));
    ASSERT_TRUE(backupd_.add_pool("pool-bad", "bad", R"({"max_seconds_retry": "soon"})"));
    ASSERT_TRUE(backupd_.start());
    backupd_.configure_host();
  }

  Backupd_Process backupd_;
};
}  // namespace

TEST_F(Pool_Info_Test, AsksBackupdAndAppliesThePoolSettings)
{
  Pool_Info info;
  ASSERT_TRUE(get_pool_info("pool-a", nullptr, info, POOL_ACCESS_WRITE, 0, nullptr));
  EXPECT_EQ(info.uuid, "pool-a");
  EXPECT_EQ(info.name, "first");
  EXPECT_EQ(info.host_uuid, "host-1");
  EXPECT_EQ(info.url, backupd_.pool_url("pool-a"));

  Client_IO_Base::Options options;
  ASSERT_TRUE(set_options_by_pool(options, info));
  EXPECT_EQ(options.max_seconds_retry, 7);
  EXPECT_EQ(options.resumption_buffer_size, 4096u);
  EXPECT_EQ(options.compression_method, COMPR_ZSTD);
  ASSERT_NE(options.extra_option("X-Pool-Tag"), nullptr);
  EXPECT_EQ(*options.extra_option("X-Pool-Tag"), "blue");

  // The pool's URL and the agent's key are enough to store an object.
  options.set_extra_option(http_head_string(HTTP_HEAD_ACCESS_KEY, 0, ""), Host_Manager::instance().access_key());
  Client_IO_Ex io;
  ASSERT_TRUE(io.open(info.url, options)) << io.last_error();
  EXPECT_TRUE(io.put_contents("hello", "world", true)) << io.last_error();
}

TEST_F(Pool_Info_Test, ModeAndDeviceAreChecked)
{
  Pool_Info info;
  EXPECT_FALSE(get_pool_info("pool-ro", nullptr, info, POOL_ACCESS_WRITE, 0, nullptr));
  EXPECT_TRUE(get_pool_info("pool-ro", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
  EXPECT_TRUE(get_pool_info("pool-ro", "dev-1", info, POOL_ACCESS_READ, 0, nullptr));
  EXPECT_FALSE(get_pool_info("pool-ro", "dev-2", info, POOL_ACCESS_READ, 0, nullptr));
  EXPECT_FALSE(get_pool_info("no-such-pool", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
}

TEST_F(Pool_Info_Test, BadSettingsLeaveOptionsUntouched)
{
  Pool_Info info;
  ASSERT_TRUE(get_pool_info("pool-bad", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
  Client_IO_Base::Options options;
  options.max_seconds_retry = 3;
  EXPECT_FALSE(set_options_by_pool(options, info));
  EXPECT_EQ(options.max_seconds_retry, 3);
  Pool_Info no_url;
  EXPECT_FALSE(set_options_by_pool(options, no_url));
}

TEST_F(Pool_Info_Test, WrongKeyOrNoServerFails)
{
  Pool_Info info;
  backupd_.configure_host("wrong");
  EXPECT_FALSE(get_pool_info("pool-a", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
  // On the backup server's own machine the node key is used.
  Host_Manager::Settings settings;
  settings.backupd_url = backupd_.url();
  settings.access_key = "wrong";
  settings.node_access_key = Backupd_Process::node_key();
  settings.on_backupd = true;
  Host_Manager::instance().init(settings);
  EXPECT_TRUE(get_pool_info("pool-a", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
  backupd_.stop();
  EXPECT_FALSE(get_pool_info("pool-a", nullptr, info, POOL_ACCESS_READ, 0, nullptr));
}
