#include <gtest/gtest.h>

#include "apps/backupd/catalog_query.h"

static bool parse(std::multimap<std::string, std::string> params, Catalog_Query& q, std::string& error)
{
  return q.parse(params, error);
}

TEST(Catalog_Query, DefaultsAndFiltersInOrderGiven)
{
  Catalog_Query q;
  std::string error;
  ASSERT_TRUE(parse({{"module", "exchange"}, {"resource_uuid", "r1"}, {"database", "db"}}, q, error)) << error;
  EXPECT_EQ(q.sort, "backup_start_time");
  EXPECT_FALSE(q.descending);
  EXPECT_EQ(q.offset, 0);
  EXPECT_EQ(q.limit, 100);
  ASSERT_EQ(q.filters.size(), 3u);
}

TEST(Catalog_Query, RefusesBadSortOrderAndNumbers)
{
  const std::multimap<std::string, std::string> bad[] = {
    {{"sort", "record"}},
    {{"sort", "rev; DROP TABLE sets"}},
    {{"order", "up"}},
    {{"offset", "-1"}},
    {{"offset", "1e3"}},
    {{"offset", ""}},
    {{"limit", "1001"}},
    {{"limit", " 5"}},
    {{"limit", "99999999999999999999"}},
    {{"colour", "blue"}},
    {{"limit", "0x10"}},
  };
  for (const auto& params : bad)
  {
    Catalog_Query q;
    std::string error;
    EXPECT_FALSE(q.parse(params, error)) << params.begin()->first << "=" << params.begin()->second;
    EXPECT_FALSE(error.empty());
  }
}

TEST(Catalog_Query, RefusesRepeatedKey)
{
  Catalog_Query q;
  std::string error;
  EXPECT_FALSE(parse({{"module", "a"}, {"module", "b"}}, q, error));
}

TEST(Catalog_Query, AcceptsLimitsAtTheEdges)
{
  Catalog_Query q;
  std::string error;
  ASSERT_TRUE(parse({{"limit", "1000"}, {"offset", "0"}, {"order", "desc"}, {"sort", "rev"}}, q, error));
  EXPECT_EQ(q.limit, 1000);
  EXPECT_TRUE(q.descending);
  Catalog_Query zero;
  ASSERT_TRUE(parse({{"limit", "0"}}, zero, error));
  EXPECT_EQ(zero.limit, 0);
}
