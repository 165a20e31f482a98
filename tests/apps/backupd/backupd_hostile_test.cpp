// Requests no well-behaved client sends, over raw sockets: refused requests whose
// bodies hold complete requests of their own, oversized and malformed bodies,
// NUL in catalog values. Nothing they carry may be executed or stored, and the
// server goes on serving everyone else.

#include <gtest/gtest.h>
#include <httplib.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

#include "apps/backupd/backupd_process.h"
#include "apps/backupd/raw_http_connection.h"

using json = nlohmann::ordered_json;

namespace
{
const char SETS_PATH[] = "/d2/r/v2/sets/restore/sets";
const size_t RECORD_LIMIT = 1024 * 1024;

class Backupd_Hostile_Test : public ::testing::Test
{
protected:
  void SetUp() override
  {
    ASSERT_TRUE(backupd_.add_pool("pool-a", "first"));
    ASSERT_TRUE(backupd_.add_pool("pool-ro", "archive", R"({"read_only": true})"));
    ASSERT_TRUE(backupd_.start());
  }

  static std::string record(const std::string& uuid, const std::string& pool = "pool-a")
  {
    json r;
    r["uuid"] = uuid;
    r["module"] = "exchange";
    r["resource_uuid"] = "res-1";
    r["pool_uuid"] = pool;
    r["rev"] = 1;
    r["backup_start_time"] = 100;
    return r.dump();
  }

  // A complete, authorised request of its own.
  static std::string request(const std::string& method, const std::string& target, const std::string& body = "",
                             const std::string& type = "application/json")
  {
    return method + " " + target + " HTTP/1.1\r\nHost: backupd\r\nX-Backupd-Access-Key: " + Backupd_Process::key() +
           "\r\nContent-Type: " + type + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
  }

  // What a smuggled request would have left behind: a record or an object.
  bool catalog_has(const std::string& uuid)
  {
    httplib::Client c("127.0.0.1", backupd_.port());
    auto res =
      c.Get((std::string(SETS_PATH) + "?uuid=" + uuid).c_str(), {{"X-Backupd-Access-Key", Backupd_Process::key()}});
    return !res || res->status != 200 || json::parse(res->body)["total"] != 0;
  }
  bool object_exists(const std::string& pool, const std::string& name)
  {
    struct stat st;
    return stat((backupd_.data_dir() + "/pools/" + pool + "/" + name).c_str(), &st) == 0;
  }

  Backupd_Process backupd_;
};

std::string chunked(const std::string& data)
{
  char size[32];
  snprintf(size, sizeof size, "%zx\r\n", data.size());
  return size + data + "\r\n0\r\n\r\n";
}
}  // namespace

TEST_F(Backupd_Hostile_Test, RefusedBodiesAreNeverTakenForRequests)
{
  // Each body is a complete request that would store a record and an object.
  std::string payload = request("POST", SETS_PATH, record("smuggled")) +
                        request("PUT", "/d2/storage/pool-a/smuggled.bin", "stolen", "application/octet-stream");
  std::string key = "X-Backupd-Access-Key: " + Backupd_Process::key() + "\r\n";
  std::string length = "Content-Length: " + std::to_string(payload.size()) + "\r\n";
  std::string big_length = "Content-Length: " + std::to_string(RECORD_LIMIT + 1) + "\r\n";
  struct Case
  {
    std::string head;
    int status;
  } cases[] = {
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\nX-Backupd-Access-Key: wrong-key-0123456789\r\n" + length, 401},
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\n" + length, 401},
    {"POST " + std::string(SETS_PATH) + " HTTP/1.1\r\nContent-Type: application/json\r\n" + length, 401},
    {"PUT /d2/storage/pool-ro/x HTTP/1.1\r\n" + key + length, 403},
    {"PUT /d2/storage/no-pool/x HTTP/1.1\r\n" + key + length, 404},
    {"PUT /d2/storage/pool-a/a/../x HTTP/1.1\r\n" + key + length, 400},
    {"GET " + std::string(SETS_PATH) + " HTTP/1.1\r\n" + key + length, 400},
    {"DELETE /d2/storage/pool-a/x HTTP/1.1\r\n" + key + length, 400},
    {"POST /d2/nowhere HTTP/1.1\r\n" + key + length, 400},
    {"POST " + std::string(SETS_PATH) + " HTTP/1.1\r\nContent-Type: text/plain\r\n" + key + length, 415},
    {"POST " + std::string(SETS_PATH) + " HTTP/1.1\r\nContent-Type: application/json\r\n" + key + big_length, 413},
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\n" + key + "Content-Length: 10\r\nTransfer-Encoding: chunked\r\n", 400},
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\n" + key + "Content-Length: +10\r\n", 400},
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\n" + key, 411},
    {"PUT /d2/storage/pool-a/x HTTP/1.1\r\n" + key + "Range: bytes=x\r\n" + length, 416},
    {"NOT A REQUEST LINE\r\n" + length, 400},
  };
  for (const Case& c : cases)
  {
    Raw_Http_Connection conn(backupd_.port());
    ASSERT_TRUE(conn.connected());
    ASSERT_TRUE(conn.send_all(c.head + "Host: backupd\r\n\r\n" + payload));
    Raw_Http_Connection::Answer answer;
    ASSERT_TRUE(conn.read_answer(answer)) << c.head;
    EXPECT_EQ(answer.status, c.status) << c.head;
    EXPECT_EQ(answer.headers["content-type"], "application/json") << c.head;
    EXPECT_TRUE(json::parse(answer.body, nullptr, false)["error"].is_string()) << c.head << answer.body;
    EXPECT_EQ(answer.headers["connection"], "close") << c.head;
    EXPECT_TRUE(conn.ends()) << c.head;  // and no answer to the body's requests
  }
  // A chunked record over the limit is cut off as it arrives; its remaining bytes
  // (another commit) are not read as a request either.
  {
    Raw_Http_Connection conn(backupd_.port());
    std::string head = request("POST", SETS_PATH).substr(0, request("POST", SETS_PATH).find("Content-Length"));
    ASSERT_TRUE(conn.send_all(head + "Transfer-Encoding: chunked\r\n\r\n"));
    conn.send_all(chunked(std::string(RECORD_LIMIT + 1, ' ') + payload));
    Raw_Http_Connection::Answer answer;
    ASSERT_TRUE(conn.read_answer(answer));
    EXPECT_EQ(answer.status, 413);
    EXPECT_TRUE(conn.ends());
  }
  EXPECT_FALSE(catalog_has("smuggled"));
  EXPECT_FALSE(object_exists("pool-a", "smuggled.bin"));
  EXPECT_FALSE(object_exists("pool-a", "x"));

  // The server goes on serving: an authorised commit over a fresh connection,
  // and a request that follows a fully read body on the same connection.
  Raw_Http_Connection conn(backupd_.port());
  ASSERT_TRUE(conn.send_all(request("POST", SETS_PATH, record("honest")) + request("GET", "/d2/r/v2/pools")));
  Raw_Http_Connection::Answer answer;
  ASSERT_TRUE(conn.read_answer(answer));
  EXPECT_EQ(answer.status, 201) << answer.body;
  ASSERT_TRUE(conn.read_answer(answer));
  EXPECT_EQ(answer.status, 200);
  EXPECT_TRUE(catalog_has("honest"));
}

TEST_F(Backupd_Hostile_Test, CatalogValuesWithNulAreRefused)
{
  httplib::Client c("127.0.0.1", backupd_.port());
  c.set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
  ASSERT_EQ(c.Post(SETS_PATH, record("U"), "application/json")->status, 201);
  auto query = c.Get((std::string(SETS_PATH) + "?uuid=U%00junk").c_str());
  ASSERT_TRUE(query);
  EXPECT_EQ(query->status, 400);
  EXPECT_TRUE(json::parse(query->body)["error"].is_string());

  json nul_uuid = json::parse(record("V"));
  nul_uuid["uuid"] = std::string("V\0junk", 6);
  json nul_inside = json::parse(record("W"));
  nul_inside["files"] = {std::string("a\0b", 3)};
  for (const json& bad : {nul_uuid, nul_inside})
  {
    auto res = c.Post(SETS_PATH, bad.dump(), "application/json");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, 400) << bad.dump();
  }
  EXPECT_FALSE(catalog_has("V"));
  EXPECT_FALSE(catalog_has("W"));
  // Values are matched whole: a prefix of a stored value finds nothing.
  ASSERT_EQ(c.Post(SETS_PATH, record("prefix-long"), "application/json")->status, 201);
  EXPECT_FALSE(catalog_has("prefix"));
}

TEST_F(Backupd_Hostile_Test, OneConnectionServesManyRequests)
{
  Raw_Http_Connection conn(backupd_.port());
  ASSERT_TRUE(conn.connected());
  int ok = 0;
  for (int i = 0; i < 200; ++i)
  {
    std::string name = "/d2/storage/pool-a/k/" + std::to_string(i);
    std::string req;
    int expected = 200;
    switch (i % 4)
    {
    case 0:
      req = request("PUT", name, "object " + std::to_string(i), "application/octet-stream");
      expected = 201;
      break;
    case 1:
      req = request("GET", "/d2/storage/pool-a/k/" + std::to_string(i - 1));
      break;
    case 2:
      req = request("POST", SETS_PATH, record("ka-" + std::to_string(i)));
      expected = 201;
      break;
    default:
      req = request("GET", "/d2/storage/pool-a/k/missing");
      expected = 404;
    }
    Raw_Http_Connection::Answer answer;
    if (!conn.send_all(req) || !conn.read_answer(answer))
      break;
    EXPECT_EQ(answer.status, expected) << i << ": " << answer.body;
    EXPECT_EQ(answer.headers.count("connection"), 0u) << i;
    if (i % 4 == 1)
    {
      EXPECT_EQ(answer.body, "object " + std::to_string(i - 1));
    }
    ok += answer.status == expected;
  }
  EXPECT_EQ(ok, 200);
}

TEST_F(Backupd_Hostile_Test, RecordsArePrivateAndDeletable)
{
  struct stat st;
  ASSERT_EQ(stat((backupd_.data_dir() + "/catalog.db").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  httplib::Client c("127.0.0.1", backupd_.port());
  c.set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
  ASSERT_EQ(c.Post(SETS_PATH, record("gone"), "application/json")->status, 201);
  ASSERT_EQ(c.Post(SETS_PATH, record("kept"), "application/json")->status, 201);
  httplib::Client anonymous("127.0.0.1", backupd_.port());
  EXPECT_EQ(anonymous.Delete((std::string(SETS_PATH) + "/gone").c_str())->status, 401);
  EXPECT_TRUE(catalog_has("gone"));
  EXPECT_EQ(c.Delete((std::string(SETS_PATH) + "/gone").c_str())->status, 204);
  EXPECT_FALSE(catalog_has("gone"));
  EXPECT_TRUE(catalog_has("kept"));
  auto again = c.Delete((std::string(SETS_PATH) + "/gone").c_str());
  EXPECT_EQ(again->status, 404);
  EXPECT_TRUE(json::parse(again->body)["error"].is_string());
  auto unknown = c.Get("/d2/no/such/route");
  EXPECT_EQ(unknown->status, 404);
  EXPECT_EQ(unknown->get_header_value("Content-Type"), "application/json");
}

TEST_F(Backupd_Hostile_Test, PoolsAreValidatedAndRemovable)
{
  for (const char* name : {"with space", "per%cent", "sla/sh", ".hidden", "-dash", ""})
  {
    EXPECT_FALSE(backupd_.add_pool("pool-new", name)) << name;
    EXPECT_FALSE(backupd_.add_pool(name, "new-name")) << name;
  }
  EXPECT_FALSE(backupd_.add_pool("pool-dup", "first"));  // the name is taken
  EXPECT_FALSE(backupd_.add_pool("pool-a", "other"));    // the uuid is taken
  EXPECT_FALSE(object_exists("pool-dup", ""));
  EXPECT_FALSE(object_exists("pool-new", ""));

  httplib::Client c("127.0.0.1", backupd_.port());
  c.set_default_headers({{"X-Backupd-Access-Key", Backupd_Process::key()}});
  ASSERT_EQ(c.Put("/d2/storage/pool-a/obj", "bytes", "application/octet-stream")->status, 201);
  ASSERT_EQ(c.Post(SETS_PATH, record("on-a"), "application/json")->status, 201);
  std::string remove = std::string(BACKUPD_PATH) + " pool remove --data '" + backupd_.data_dir() + "' --name ";
  // Records still on the pool keep it; an unknown pool is an error.
  EXPECT_NE(system((remove + "first > /dev/null 2>&1").c_str()), 0);
  EXPECT_TRUE(object_exists("pool-a", "obj"));
  EXPECT_NE(system((remove + "nobody > /dev/null 2>&1").c_str()), 0);
  ASSERT_EQ(c.Delete((std::string(SETS_PATH) + "/on-a").c_str())->status, 204);
  EXPECT_EQ(system((remove + "first > /dev/null").c_str()), 0);
  EXPECT_FALSE(object_exists("pool-a", ""));
  EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-a")->status, 404);
  EXPECT_EQ(c.Get("/d2/storage/pool-a/obj")->status, 404);
  EXPECT_EQ(c.Get("/d2/r/v2/pools/pool-ro")->status, 200);
  // The name is free again.
  EXPECT_TRUE(backupd_.add_pool("pool-a2", "first"));
}

TEST(Backupd_Keys, ShortKeysAreRefused)
{
  char tmpl[] = "/tmp/backupd_keys_XXXXXX";
  std::string dir = mkdtemp(tmpl);
  std::ofstream(dir + "/keys") << "0123456789abcdef-long-enough\nshort-key\n";
  chmod((dir + "/keys").c_str(), 0600);
  // Should it start anyway, "timeout" ends it and the exit status says so.
  std::string command = "timeout 10 " + std::string(BACKUPD_PATH) + " --data '" + dir + "/data' --access-key-file '" +
                        dir + "/keys' --listen 127.0.0.1:0 > /dev/null 2> '" + dir + "/err'";
  int status = system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  std::ifstream err(dir + "/err");
  std::string text((std::istreambuf_iterator<char>(err)), std::istreambuf_iterator<char>());
  EXPECT_NE(text.find("line 2"), std::string::npos) << text;
  EXPECT_EQ(text.find("short-key"), std::string::npos);  // the key itself is never shown
  ASSERT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
}
