#include "host/http/http_encoding.h"

#include <gtest/gtest.h>

namespace
{
std::string encode(const std::string& text, unsigned int flags)
{
  std::string out = "stale";
  http_encode_string(text, flags, out);
  return out;
}
}  // namespace

TEST(HttpEncoding, EncodesPathComponentsAndIndexNames)
{
  EXPECT_EQ(encode("Inbox-2024_a.b", 0x1), "Inbox-2024_a.b");
  EXPECT_EQ(encode("a b/c", 0x1), "a%20b%2fc");
  EXPECT_EQ(encode("\xC3\xBC", 0x1), "%c3%bc");
  EXPECT_EQ(encode("O'Brien (old)!", 0x2F5), "O'Brien%20(old)!");
  EXPECT_EQ(encode("a/b", 0x2F5), "a%2Fb");
  // "/" is kept unless flag 0x1 asks for it to be escaped.
  EXPECT_EQ(encode("a/b", 0), "a/b");
  EXPECT_EQ(encode("a b+c", 0x2), "a+b%2bc");
  EXPECT_EQ(encode("a b+c", 0x2 | 0x2000), "a+b+c");
  EXPECT_EQ(encode("k=v&x@y:z", 0x10000 | 0x1000 | 0x40000 | 0x8), "k=v&x@y:z");
}

TEST(HttpEncoding, EmptyInputIsFalseAndEmpty)
{
  std::string out = "stale";
  EXPECT_FALSE(http_encode_string(nullptr, 3, 0, out));
  EXPECT_EQ(out, "");
  out = "stale";
  EXPECT_FALSE(http_encode_string(std::string(), 0x1, out));
  EXPECT_EQ(out, "");
}

TEST(HttpEncoding, DecodeIsTheInverseAndRejectsBrokenEscapes)
{
  std::string all;
  for (int c = 1; c < 256; ++c)
    all.push_back(static_cast<char>(c));
  for (unsigned int flags : {0x1u, 0x2F5u, 0x4u})
  {
    std::string encoded, decoded;
    ASSERT_TRUE(http_encode_string(all, flags | 0x1, encoded));
    ASSERT_TRUE(http_decode_string(encoded, 0, decoded));
    EXPECT_EQ(decoded, all) << "flags " << flags;
  }

  std::string out;
  EXPECT_TRUE(http_decode_string(std::string("a%2Fb%2fc+d"), 0, out));
  EXPECT_EQ(out, "a/b/c+d");
  EXPECT_TRUE(http_decode_string(std::string("a+b"), HTTP_DECODE_PLUS_AS_SPACE, out));
  EXPECT_EQ(out, "a b");
  EXPECT_FALSE(http_decode_string(std::string("ab%2"), 0, out));
  EXPECT_FALSE(http_decode_string(std::string("ab%zz"), 0, out));
  EXPECT_FALSE(http_decode_string(std::string("%"), 0, out));
  EXPECT_TRUE(http_decode_string(nullptr, nullptr, 0, out));
  EXPECT_EQ(out, "");
}
