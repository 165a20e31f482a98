#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "apps/backupd/backupd_process.h"
#include "host/catalog/catalog_operator.h"
#include "host/catalog/exchange_backup_set.h"
#include "host/catalog/read_catalogs.h"
#include <nlohmann/json.hpp>

using json = nlohmann::ordered_json;

namespace
{
Exchange_Backup_Set sample_set(const std::string& uuid, int rev, int64_t start)
{
  Exchange_Backup_Set set;
  set.uuid = uuid;
  set.resource_uuid = "source-1";
  set.minor_resource_id = "def-1";
  set.host_uuid = "host-1";
  set.backup_method = "ews";
  set.pool_uuid = "pool-a";
  set.uri = "host-1/def-1";
  set.rev = rev;
  set.agent = "backup.exchange.linux-x86";
  set.channels = 4;
  set.files = {"data.0", "data.1"};
  set.index_files = {"a%40x.com.1.idx"};
  set.failed_mailboxes = {"b@x.com"};
  set.size = 1000;
  set.set_size = 2000;
  set.set_storage_size = 1500;
  set.backup_start_time = start;
  return set;
}

class Catalog_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.start());
    backupd_.configure_host();
  }

  Backupd_Process backupd_;
};
}  // namespace

TEST(Exchange_Backup_Set, JsonRoundTripKeepsEveryMember)
{
  Exchange_Backup_Set set = sample_set("u1", 3, 1700000000);
  set.instance = "EX01";
  set.database = "DB1";
  json value = set.to_json();
  EXPECT_EQ(value["module"], "exchange");
  EXPECT_EQ(value["rev"], 3);
  EXPECT_EQ(value["channels"], 4);
  Exchange_Backup_Set back;
  std::string error;
  ASSERT_TRUE(back.from_json(value, error)) << error;
  EXPECT_EQ(back.to_json(), value);
}

TEST(Exchange_Backup_Set, StrictReading)
{
  std::string error;
  json value = sample_set("u1", 3, 1).to_json();
  Exchange_Backup_Set set;
  json no_rev = value;
  no_rev.erase("rev");
  EXPECT_FALSE(set.from_json(no_rev, error));
  EXPECT_EQ(error, "\"rev\" is missing");
  json text_channels = value;
  text_channels["channels"] = "4";
  EXPECT_FALSE(set.from_json(text_channels, error));
  EXPECT_EQ(error, "\"channels\" is not an integer");
  json negative_size = value;
  negative_size["size"] = -1;
  EXPECT_FALSE(set.from_json(negative_size, error));
  EXPECT_FALSE(set.from_json(json::array(), error));
  EXPECT_TRUE(set.uuid.empty());  // failed readings leave the record alone
}

TEST_F(Catalog_Test, CommittedRecordsAreReadBack)
{
  Catalog_Operator op(-1, 0);
  ASSERT_TRUE(op.commit(sample_set("set-1", 1, 100)));
  EXPECT_TRUE(op.created());
  ASSERT_TRUE(op.commit(sample_set("set-2", 2, 200)));
  ASSERT_TRUE(op.commit(sample_set("set-2", 2, 200)));  // a repeated commit after a lost answer
  EXPECT_FALSE(op.created());
  EXPECT_FALSE(op.commit(sample_set("set-2", 5, 200)));  // another record under a used uuid
  EXPECT_NE(op.error().find("409"), std::string::npos);

  json result;
  ASSERT_TRUE(
    read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&resource_uuid=source-1&minor_resource_id=def-1"
                  "&sort=backup_start_time&order=desc&offset=0&limit=1",
                  result, -1, 0));
  EXPECT_EQ(result["total"], 2);
  ASSERT_EQ(result["rows"].size(), 1u);
  Exchange_Backup_Set newest;
  std::string error;
  ASSERT_TRUE(newest.from_json(result["rows"][0], error)) << error;
  EXPECT_EQ(newest.uuid, "set-2");
  EXPECT_EQ(newest.to_json(), sample_set("set-2", 2, 200).to_json());
}

TEST_F(Catalog_Test, FailuresAreReported)
{
  json result = json::object();
  Host_Status status;
  EXPECT_FALSE(read_catalogs("/d2/r/v2/sets/restore/sets?sort=nowhere", result, -1, 0, &status));
  EXPECT_TRUE(result.empty());
  EXPECT_EQ(status.kind, HOST_STATUS_PERMANENT);
  EXPECT_EQ(status.code.rfind("HTTP 4", 0), 0u) << status.code;
  EXPECT_FALSE(read_catalogs("no-slash", result, -1, 0));
  Catalog_Operator op(-1, 0);
  EXPECT_FALSE(op.commit(json::object()));
  EXPECT_EQ(op.status().kind, HOST_STATUS_PERMANENT);
  backupd_.configure_host("wrong-key");
  // Refused credentials are not retried, whatever the budget.
  Catalog_Operator patient(-1, 30);
  EXPECT_FALSE(patient.commit(sample_set("set-x", 1, 1)));
  EXPECT_EQ(patient.status().kind, HOST_STATUS_UNAUTHORIZED);
  EXPECT_FALSE(op.commit(sample_set("set-x", 1, 1)));
  EXPECT_NE(op.error().find("401"), std::string::npos);
  EXPECT_EQ(op.error().find("wrong-key"), std::string::npos);
}

TEST_F(Catalog_Test, CommitRetriesWhileTheServerIsDown)
{
  int port = backupd_.port();
  backupd_.stop();
  std::thread restart(
    [&]
    {
      std::this_thread::sleep_for(std::chrono::milliseconds(1000));
      backupd_.start(port);
    });
  Catalog_Operator op(-1, 30);
  bool committed = op.commit(sample_set("late", 1, 1));
  restart.join();
  ASSERT_TRUE(committed) << op.error();
  json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?uuid=late", result, -1, 0));
  EXPECT_EQ(result["total"], 1);
}
