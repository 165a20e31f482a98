#include "backup/exchange/core/office365/snprintf_t.h"

#include <gtest/gtest.h>

#include <string>

TEST(SnprintfT, KeepsShortTextInlineAndNeverTruncatesLongText)
{
  snprintf_t<8> short_text("%s-%d", "ab", 42);
  EXPECT_STREQ(short_text.c_str(), "ab-42");
  EXPECT_EQ(short_text.length(), 5u);
  EXPECT_FALSE(short_text.on_heap());

  // N characters hold N - 1 characters of text and the terminator.
  snprintf_t<8> fits("%s", "1234567");
  EXPECT_STREQ(fits.c_str(), "1234567");
  EXPECT_FALSE(fits.on_heap());

  snprintf_t<8> one_more("%s", "12345678");
  EXPECT_STREQ(one_more.c_str(), "12345678");
  EXPECT_EQ(one_more.length(), 8u);
  EXPECT_TRUE(one_more.on_heap());

  const std::string token(3000, 't');
  snprintf_t<256> header("Bearer %s", token.c_str());
  EXPECT_EQ(std::string(header.c_str()), "Bearer " + token);
  EXPECT_EQ(header.length(), token.size() + 7);

  snprintf_t<21> number("%ld", -9223372036854775807L - 1);
  EXPECT_STREQ(number.c_str(), "-9223372036854775808");
  EXPECT_FALSE(number.on_heap()) << "20 characters fit an integer buffer of 21";

  snprintf_t<4> empty("%s", "");
  EXPECT_STREQ(empty.c_str(), "");
  EXPECT_EQ(empty.length(), 0u);
}
