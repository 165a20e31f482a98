#include "backup/exchange/core/office365/query_string_builder.h"

#include <gtest/gtest.h>

#include <climits>

TEST(QueryStringBuilder, JoinsPairsAndEncodesOnlyWhatItIsAskedTo)
{
  std::string buffer;
  Query_String_Builder query(buffer);
  query.add("$select", "userPrincipalName,mail", true, true);
  EXPECT_EQ(buffer, "%24select=userPrincipalName%2Cmail") << "the first pair of an empty buffer has no '&'";

  query.add("$search", "\"userPrincipalName:a&b c/d+e=f\"", false, true);
  EXPECT_EQ(buffer, "%24select=userPrincipalName%2Cmail&$search=%22userPrincipalName%3Aa%26b%20c%2Fd%2Be%3Df%22");

  buffer.clear();
  query.add("a b", "x y", true, false);
  EXPECT_EQ(buffer, "a%20b=x y");

  // Null or empty keys write nothing, not even a separator; a null value writes the key alone.
  buffer = "path=1";
  query.add(nullptr, "v", true, true);
  query.add("", "v", true, true);
  query.add(nullptr, 5L, true);
  query.add("", 5L, true);
  EXPECT_EQ(buffer, "path=1");
  query.add("flag", nullptr, true, true);
  EXPECT_EQ(buffer, "path=1&flag") << "text already in the buffer counts as an earlier pair";
  query.add("empty", "", true, true);
  EXPECT_EQ(buffer, "path=1&flag&empty=");

  // The prefix goes in front of the key as it is.
  buffer.clear();
  query.add("top", "5", true, true, "$");
  query.add("skip", "x", false, false, "$");
  EXPECT_EQ(buffer, "$top=5&$skip=x");
}

TEST(QueryStringBuilder, WritesIntegersInDecimalWithoutEncoding)
{
  std::string buffer;
  Query_String_Builder query(buffer);
  query.add("$top", 0L, true);
  query.add("$top", -25L, false);
  query.add("max", LONG_MAX, true, "x-");
  query.add("min", LONG_MIN, true);
  EXPECT_EQ(buffer, "%24top=0&$top=-25&x-max=9223372036854775807&min=-9223372036854775808");
}
