#include <gtest/gtest.h>

#include "apps/backupd/backupd_process.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"
#include "support/s3_server_process.h"

#include <fstream>
#include <sys/stat.h>

namespace
{
// The location of the whole bucket of the S3 test server, or of `prefix` in it.
std::string S3_Location_of(const S3_Server_Process& s3, const std::string& prefix)
{
  return "s3+http://127.0.0.1:" + std::to_string(s3.port()) + "/" + S3_Server_Process::bucket +
         (prefix.empty() ? "" : "/" + prefix);
}

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

TEST_F(Pool_Info_Test, APoolInABucketIsHandedOutWithItsKeyAndUsedDirectly)
{
  if (!S3_Server_Process::node_available())
    GTEST_SKIP() << "Node.js is not installed: no S3 test server";
  S3_Server_Process& s3 = S3_Server_Process::shared();
  const std::string key_file = backupd_.root() + "/s3-key";
  std::ofstream(key_file) << S3_Server_Process::access_key_id << "\n" << S3_Server_Process::secret_access_key << "\n";
  chmod(key_file.c_str(), 0600);
  const std::string prefix = "agents-" + std::to_string(getpid());
  const std::string add = std::string(BACKUPD_PATH) + " pool add --data '" + backupd_.data_dir() +
                          "' --uuid pool-s3 --name bucketed --s3-endpoint " + s3.endpoint() + " --bucket " +
                          S3_Server_Process::bucket + " --prefix " + prefix + " --region " + S3_Server_Process::region +
                          " --s3-credentials-file '" + key_file + "' > /dev/null";
  ASSERT_EQ(system(add.c_str()), 0);

  Pool_Info info;
  ASSERT_TRUE(get_pool_info("pool-s3", nullptr, info, POOL_ACCESS_WRITE, 0, nullptr));
  EXPECT_EQ(info.url,
            "s3+http://127.0.0.1:" + std::to_string(s3.port()) + "/" + S3_Server_Process::bucket + "/" + prefix);
  Client_IO_Base::Options options;
  ASSERT_TRUE(set_options_by_pool(options, info));
  EXPECT_EQ(options.s3_region, S3_Server_Process::region);
  EXPECT_EQ(options.s3_credentials.secret_access_key, S3_Server_Process::secret_access_key);

  // The agent writes below the pool as with any pool; the store holds the object
  // under the pool's prefix.
  Client_IO_Ex io;
  ASSERT_TRUE(io.open(info.url + "/host-1/job-1", options)) << io.last_error();
  ASSERT_TRUE(io.put_contents("set.1.idx", "index", true)) << io.last_error();
  Client_IO_Ex root;
  ASSERT_TRUE(root.open(S3_Location_of(s3, ""), options)) << root.last_error();
  std::string text;
  ASSERT_TRUE(root.get_contents(prefix + "/host-1/job-1/set.1.idx", text)) << root.last_error();
  EXPECT_EQ(text, "index");
}
