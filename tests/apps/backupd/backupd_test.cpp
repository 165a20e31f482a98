#include <gtest/gtest.h>

#include <fstream>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <thread>

#include "apps/backupd/backupd_process.h"

using json = nlohmann::ordered_json;

namespace
{
const char SETS[] = "/d2/r/v2/sets/restore/sets";

class Backupd_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-a", "first"));
    ASSERT_TRUE(backupd_.add_pool("pool-ro", "archive", R"({"read_only": true})"));
    ASSERT_TRUE(backupd_.start());
  }

  httplib::Client client(const std::string& key = Backupd_Process::key())
  {
    httplib::Client c("127.0.0.1", backupd_.port());
    if (!key.empty())
      c.set_default_headers({{"X-Backupd-Access-Key", key}});
    return c;
  }

  static json record(const std::string& uuid, const std::string& resource, int rev, int64_t start,
                     const std::string& minor = "def-1")
  {
    json r;
    r["uuid"] = uuid;
    r["module"] = "exchange";
    r["resource_uuid"] = resource;
    r["minor_resource_id"] = minor;
    r["host_uuid"] = "host-1";
    r["backup_method"] = "ews";
    r["pool_uuid"] = "pool-a";
    r["uri"] = "host-1/" + minor;
    r["rev"] = rev;
    r["agent"] = "backup.exchange.linux-x86";
    r["channels"] = 2;
    r["files"] = {"data.0"};
    r["index_files"] = {"a@x.com.1.idx"};
    r["failed_mailboxes"] = json::array();
    r["backup_start_time"] = start;
    return r;
  }

  int post(httplib::Client& c, const json& body, json* answer = nullptr)
  {
    auto res = c.Post(SETS, body.dump(), "application/json");
    if (!res)
      return -1;
    if (answer)
      *answer = json::parse(res->body, nullptr, false);
    return res->status;
  }

  json get(httplib::Client& c, const std::string& query, int expected_status = 200)
  {
    auto res = c.Get((std::string(SETS) + "?" + query).c_str());
    EXPECT_TRUE(res);
    if (!res)
      return json();
    EXPECT_EQ(res->status, expected_status) << query << ": " << res->body;
    EXPECT_EQ(res->get_header_value("Content-Type"), "application/json");
    return json::parse(res->body, nullptr, false);
  }

  static std::vector<std::string> uuids(const json& answer)
  {
    std::vector<std::string> out;
    for (const auto& row : answer["rows"])
      out.push_back(row["uuid"]);
    return out;
  }

  Backupd_Process backupd_;
};
}  // namespace

TEST_F(Backupd_Test, CatalogFiltersSortsAndPages)
{
  auto c = client();
  ASSERT_EQ(post(c, record("s1", "res-1", 1, 100)), 201);
  ASSERT_EQ(post(c, record("s2", "res-1", 2, 300)), 201);
  ASSERT_EQ(post(c, record("s3", "res-1", 3, 200)), 201);
  ASSERT_EQ(post(c, record("s4", "res-2", 1, 400)), 201);
  ASSERT_EQ(post(c, record("s5", "res-1", 4, 50, "def-2")), 201);

  json last = get(c,
                  "module=exchange&resource_uuid=res-1&minor_resource_id=def-1&sort=backup_start_time&order=desc"
                  "&offset=0&limit=1");
  EXPECT_EQ(last["total"], 3);
  EXPECT_EQ(uuids(last), std::vector<std::string>({"s2"}));
  EXPECT_EQ(last["rows"][0], record("s2", "res-1", 2, 300));  // kept as committed

  json asc = get(c, "resource_uuid=res-1&sort=backup_start_time&order=asc");
  EXPECT_EQ(uuids(asc), std::vector<std::string>({"s5", "s1", "s3", "s2"}));
  json page = get(c, "resource_uuid=res-1&sort=rev&order=desc&offset=1&limit=2");
  EXPECT_EQ(page["total"], 4);
  EXPECT_EQ(uuids(page), std::vector<std::string>({"s3", "s2"}));
  json beyond = get(c, "resource_uuid=res-1&offset=10");
  EXPECT_EQ(beyond["total"], 4);
  EXPECT_TRUE(beyond["rows"].empty());
  EXPECT_EQ(uuids(get(c, "module=exchange&resource_uuid=res-1&uuid=s3")), std::vector<std::string>({"s3"}));
  EXPECT_EQ(get(c, "host_uuid=other")["total"], 0);
  EXPECT_EQ(get(c, "module=exchange&resource_uuid=res%2D2")["total"], 1);  // decoded before matching
}

TEST_F(Backupd_Test, CatalogFiltersOnInstanceAndDatabase)
{
  auto c = client();
  json a = record("d1", "res-1", 1, 1);
  a["instance"] = "EX01";
  a["database"] = "DB 1";
  json b = record("d2", "res-1", 2, 2);
  b["instance"] = "EX01";
  b["database"] = "DB2";
  ASSERT_EQ(post(c, a), 201);
  ASSERT_EQ(post(c, b), 201);
  EXPECT_EQ(uuids(get(c, "instance=EX01&database=DB%201")), std::vector<std::string>({"d1"}));
  EXPECT_EQ(get(c, "instance=EX01")["total"], 2);
}

TEST_F(Backupd_Test, BadQueriesGet400WithJsonError)
{
  auto c = client();
  for (const char* query :
       {"sort=nope", "order=sideways", "limit=abc", "limit=-1", "offset=1.5", "limit=100000", "unknown=1"})
  {
    json answer = get(c, query, 400);
    EXPECT_TRUE(answer.is_object() && answer["error"].is_string()) << query;
  }
}

TEST_F(Backupd_Test, CommitIsIdempotentByUuid)
{
  auto c = client();
  json answer;
  ASSERT_EQ(post(c, record("same", "res-1", 1, 10), &answer), 201);
  EXPECT_EQ(answer["created"], true);
  ASSERT_EQ(post(c, record("same", "res-1", 1, 10), &answer), 200);
  EXPECT_EQ(answer["created"], false);
  EXPECT_EQ(post(c, record("same", "res-1", 2, 10), &answer), 409);
  EXPECT_EQ(get(c, "uuid=same")["total"], 1);
  EXPECT_EQ(get(c, "uuid=same")["rows"][0]["rev"], 1);
}

TEST_F(Backupd_Test, InvalidRecordsAreRefused)
{
  auto c = client();
  json no_rev = record("x1", "r", 1, 1);
  no_rev.erase("rev");
  json text_rev = record("x2", "r", 1, 1);
  text_rev["rev"] = "1";
  json bad_files = record("x3", "r", 1, 1);
  bad_files["files"] = {1, 2};
  EXPECT_EQ(post(c, no_rev), 400);
  EXPECT_EQ(post(c, text_rev), 400);
  EXPECT_EQ(post(c, bad_files), 400);
  auto res = c.Post(SETS, "{not json", "application/json");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 400);
  EXPECT_EQ(get(c, "")["total"], 0);
}

TEST_F(Backupd_Test, EveryResourceNeedsTheAccessKey)
{
  for (const std::string& key : {std::string(), std::string("wrong-key")})
  {
    auto c = client(key);
    auto res = c.Get(SETS);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 401);
    EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-a")->status, 401);
    EXPECT_EQ(post(c, record("k1", "r", 1, 1)), 401);
    auto put = c.Put("/d2/storage/pool-a/secret.bin", std::string(100000, 'x'), "application/octet-stream");
    ASSERT_TRUE(put);
    EXPECT_EQ(put->status, 401);
    EXPECT_NE(put->body.find("access key"), std::string::npos);
    EXPECT_EQ(put->body.find(Backupd_Process::key()), std::string::npos);
  }
  struct stat st;
  EXPECT_NE(stat((backupd_.data_dir() + "/pools/pool-a/secret.bin").c_str(), &st), 0);
  auto c = client();
  EXPECT_EQ(get(c, "")["total"], 0);
  // The node key is accepted too.
  auto node = client(Backupd_Process::node_key());
  EXPECT_EQ(node.Get(SETS)->status, 200);
}

TEST_F(Backupd_Test, StorageRefusesEscapingNames)
{
  auto c = client();
  for (const char* path : {"/d2/storage/pool-a/a/%2E%2E/%2E%2E/x", "/d2/storage/pool-a/%2E%2E",
                           "/d2/storage/pool-a/a%00b", "/d2/storage/pool-a/a//b", "/d2/storage/pool-a/.~tmp/x"})
  {
    auto put = c.Put(path, "data", "application/octet-stream");
    ASSERT_TRUE(put) << path;
    EXPECT_EQ(put->status, 400) << path;
    auto got = c.Get(path);
    ASSERT_TRUE(got);
    EXPECT_EQ(got->status, 400) << path;
  }
  auto escape = c.Get("/d2/storage/pool-a/%2E%2E/%2E%2E/catalog.db");
  ASSERT_TRUE(escape);
  EXPECT_NE(escape->status, 200);
}

TEST_F(Backupd_Test, StoragePutGetRangeHeadListDelete)
{
  auto c = client();
  std::string body = "0123456789abcdef";
  auto put = c.Put("/d2/storage/pool-a/host-1/def-1/file%20one.bin", body, "application/octet-stream");
  ASSERT_TRUE(put);
  EXPECT_EQ(put->status, 201);
  auto got = c.Get("/d2/storage/pool-a/host-1/def-1/file%20one.bin");
  ASSERT_TRUE(got);
  EXPECT_EQ(got->body, body);
  auto range = c.Get("/d2/storage/pool-a/host-1/def-1/file%20one.bin", {{"Range", "bytes=4-9"}});
  ASSERT_TRUE(range);
  EXPECT_EQ(range->status, 206);
  EXPECT_EQ(range->body, "456789");
  auto head = c.Head("/d2/storage/pool-a/host-1/def-1/file%20one.bin");
  ASSERT_TRUE(head);
  EXPECT_EQ(head->get_header_value("Content-Length"), "16");

  httplib::Headers no_overwrite = {{"If-None-Match", "*"}};
  auto again = c.Put("/d2/storage/pool-a/host-1/def-1/file%20one.bin", no_overwrite, "other", "text/plain");
  ASSERT_TRUE(again);
  EXPECT_EQ(again->status, 412);
  EXPECT_EQ(c.Get("/d2/storage/pool-a/host-1/def-1/file%20one.bin")->body, body);

  ASSERT_EQ(c.Put("/d2/storage/pool-a/host-2/x", "x", "text/plain")->status, 201);
  json list = json::parse(c.Get("/d2/storage/pool-a/?list=1&prefix=host-1%2F")->body);
  ASSERT_EQ(list["objects"].size(), 1u);
  EXPECT_EQ(list["objects"][0]["name"], "host-1/def-1/file one.bin");
  EXPECT_EQ(list["objects"][0]["size"], 16);
  EXPECT_EQ(json::parse(c.Get("/d2/storage/pool-a/")->body)["objects"].size(), 2u);

  EXPECT_EQ(c.Delete("/d2/storage/pool-a/host-1/def-1/file%20one.bin")->status, 204);
  EXPECT_EQ(c.Get("/d2/storage/pool-a/host-1/def-1/file%20one.bin")->status, 404);
  EXPECT_EQ(c.Delete("/d2/storage/pool-a/host-1/def-1/file%20one.bin")->status, 404);
  EXPECT_EQ(c.Get("/d2/storage/no-such-pool/x")->status, 404);
}

TEST_F(Backupd_Test, PoolsAreServedWithTheirSettings)
{
  auto c = client();
  json pool = json::parse(c.Get("/d2/r/v2/pools/pool-a?access=write")->body);
  EXPECT_EQ(pool["uuid"], "pool-a");
  EXPECT_EQ(pool["name"], "first");
  EXPECT_EQ(pool["host_uuid"], "host-1");
  EXPECT_EQ(pool["url"], backupd_.pool_url("pool-a"));
  EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-ro?access=write")->status, 403);
  EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-ro?access=read")->status, 200);
  EXPECT_EQ(c.Put("/d2/storage/pool-ro/x", "x", "text/plain")->status, 403);
  EXPECT_EQ(c.Get("/d2/r/v2/pools/missing")->status, 404);
  EXPECT_EQ(json::parse(c.Get("/d2/r/v2/pools")->body)["pools"].size(), 2u);

  // A pool added while the server runs is served at once; a duplicate name is refused.
  ASSERT_TRUE(backupd_.add_pool("pool-b", "second"));
  EXPECT_FALSE(backupd_.add_pool("pool-c", "second"));
  EXPECT_EQ(c.Put("/d2/storage/pool-b/y", "y", "text/plain")->status, 201);
}

TEST_F(Backupd_Test, BucketPoolsHandOutTheirKeyOnlyWithThePoolAndCheckTheKeyFile)
{
  const std::string key_file = backupd_.root() + "/s3.json";
  std::ofstream(key_file) << R"({"access_key_id": "AKID-1", "secret_access_key": "s3cr3t/+x"})";
  chmod(key_file.c_str(), 0644);
  const std::string add = std::string(BACKUPD_PATH) + " pool add --data '" + backupd_.data_dir() +
                          "' --uuid pool-s3 --name bucketed --s3-endpoint https://objects.example.net:9000"
                          " --bucket backups --prefix site-a --s3-credentials-file '" +
                          key_file + "' > /dev/null 2>&1";
  EXPECT_NE(system(add.c_str()), 0);  // readable by others
  chmod(key_file.c_str(), 0600);
  ASSERT_EQ(system(add.c_str()), 0);

  auto c = client();
  json pool = json::parse(c.Get("/d2/r/v2/pools/pool-s3?access=write")->body);
  EXPECT_EQ(pool["url"], "s3+https://objects.example.net:9000/backups/site-a");
  const json& s3 = pool["settings"]["s3"];
  EXPECT_EQ(s3["endpoint"], "https://objects.example.net:9000");
  EXPECT_EQ(s3["bucket"], "backups");
  EXPECT_EQ(s3["prefix"], "site-a");
  EXPECT_EQ(s3["region"], "us-east-1");
  EXPECT_EQ(s3["access_key_id"], "AKID-1");
  EXPECT_EQ(s3["secret_access_key"], "s3cr3t/+x");
  EXPECT_FALSE(s3.contains("credentials_file"));
  const std::string listing = c.Get("/d2/r/v2/pools")->body;
  EXPECT_EQ(listing.find("s3cr3t"), std::string::npos);
  EXPECT_EQ(listing.find(key_file), std::string::npos);

  // The key file is read for every answer: a file gone is an error, not an empty key.
  unlink(key_file.c_str());
  EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-s3")->status, 500);
  const std::string bad = std::string(BACKUPD_PATH) + " pool add --data '" + backupd_.data_dir() +
                          "' --name other --s3-endpoint https://h/path --bucket backups"
                          " --s3-credentials-file /nonexistent > /dev/null 2>&1";
  EXPECT_NE(system(bad.c_str()), 0);
}

TEST_F(Backupd_Test, ServesManyClientsAtOnce)
{
  std::vector<std::thread> threads;
  std::atomic<int> ok{0};
  for (int t = 0; t < 8; ++t)
    threads.emplace_back(
      [&, t]
      {
        auto c = client();
        for (int i = 0; i < 10; ++i)
        {
          std::string name = "/d2/storage/pool-a/t" + std::to_string(t) + "/o" + std::to_string(i);
          std::string body(1000 + t * 100 + i, static_cast<char>('a' + t));
          auto put = c.Put(name.c_str(), body, "application/octet-stream");
          auto got = c.Get(name.c_str());
          json answer;
          if (put && put->status == 201 && got && got->body == body &&
              post(c, record("c" + std::to_string(t) + "-" + std::to_string(i), "conc", i, t)) == 201)
            ++ok;
        }
      });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(ok, 80);
  auto c = client();
  EXPECT_EQ(get(c, "resource_uuid=conc")["total"], 80);
}

TEST_F(Backupd_Test, AcknowledgedCommitsSurviveAKill)
{
  auto c = client();
  ASSERT_EQ(post(c, record("durable", "res-1", 7, 70)), 201);
  ASSERT_EQ(c.Put("/d2/storage/pool-a/kept", "kept bytes", "text/plain")->status, 201);
  backupd_.kill_hard();
  ASSERT_TRUE(backupd_.start());
  auto after = client();
  json answer = get(after, "uuid=durable");
  ASSERT_EQ(answer["total"], 1);
  EXPECT_EQ(answer["rows"][0]["rev"], 7);
  EXPECT_EQ(after.Get("/d2/storage/pool-a/kept")->body, "kept bytes");
}
