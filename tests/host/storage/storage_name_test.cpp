#include <gtest/gtest.h>

#include "host/storage/http_head.h"
#include "host/storage/storage_name.h"

TEST(Storage_Name, AcceptsPlainAndNestedNames)
{
  for (const char* name : {"a", "host-1/def-1/a@x.com.1.idx", "x..y", ".hidden", "a/b c/d"})
    EXPECT_TRUE(is_valid_storage_name(name)) << name;
}

TEST(Storage_Name, RefusesEscapesEmptyPartsAndTemporaries)
{
  for (const char* name :
       {"", "..", "../x", "a/../b", "a/..", ".", "a/./b", "/a", "a/", "a//b", "a\\b", ".~tmp/x", "a/.~x"})
    EXPECT_FALSE(is_valid_storage_name(name)) << name;
  EXPECT_FALSE(is_valid_storage_name(std::string("a\0b", 3)));
}

TEST(Http_Head, AccessKeyHeaderAndUnsafeValues)
{
  EXPECT_STREQ(http_head_string(48, 0, "key"), "X-Backupd-Access-Key");
  EXPECT_STREQ(http_head_string(HTTP_HEAD_HOST_ID, 0, "h"), "X-Backupd-Host-Id");
  EXPECT_EQ(http_head_string(12345, 0, "key"), nullptr);
  EXPECT_EQ(http_head_string(48, 0, "key\r\nX-Evil: 1"), nullptr);
  EXPECT_EQ(http_head_string(48, 0, std::string("k\0y", 3)), nullptr);
  EXPECT_EQ(http_head_string(48, 1, "key"), nullptr);
}
