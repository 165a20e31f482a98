#include "host/http/http_encoding.h"
#include "host/http/http_query_string_iterator.h"
#include "host/http/uri_parser.h"

#include <gtest/gtest.h>

#include <map>

TEST(UriParser, SplitsUrlsAndAppliesSchemeDefaults)
{
  URI uri;
  ASSERT_TRUE(URI_Parser::parse("https://graph.microsoft.com/v1.0/users?$top=5#frag", uri));
  EXPECT_TRUE(uri.is_ssl());
  EXPECT_EQ(uri.host(false), "graph.microsoft.com");
  EXPECT_EQ(uri.port(), 443);
  EXPECT_EQ(uri.path(), "/v1.0/users");
  EXPECT_EQ(uri.query(), "$top=5");
  EXPECT_EQ(uri.origin(), "https://graph.microsoft.com");

  ASSERT_TRUE(URI_Parser::parse("HTTP://127.0.0.1:8080", uri));
  EXPECT_FALSE(uri.is_ssl());
  EXPECT_EQ(uri.port(), 8080);
  EXPECT_EQ(uri.path(), "/");
  EXPECT_EQ(uri.query(), "");
  EXPECT_TRUE(uri.is_loopback());
  EXPECT_EQ(uri.origin(), "http://127.0.0.1:8080");

  ASSERT_TRUE(URI_Parser::parse("http://[::1]:9000/EWS/Exchange.asmx", uri));
  EXPECT_EQ(uri.host(false), "::1");
  EXPECT_EQ(uri.host(true), "[::1]");
  EXPECT_EQ(uri.port(), 9000);
}

TEST(UriParser, RejectsMalformedUrlsAndLeavesOutputAlone)
{
  URI uri;
  ASSERT_TRUE(URI_Parser::parse("https://keep.example/", uri));
  for (const char* bad :
       {"", "graph.microsoft.com/v1.0", "ftp://host/", "https://", "https://:443/", "https://host:0/",
        "https://host:65536/", "https://host:12a/", "https://user:pw@host/", "https://ho st/", "https://[::1/"})
  {
    EXPECT_FALSE(URI_Parser::parse(bad, uri)) << bad;
  }
  EXPECT_FALSE(URI_Parser::parse(nullptr, uri));
  EXPECT_EQ(uri.host(false), "keep.example");
}

TEST(HttpQueryStringIterator, DecodesPairsAndSkipsBrokenOnes)
{
  std::vector<std::pair<std::string, std::string>> pairs;
  const HTTP_Query_String_Iterator end(nullptr);
  for (HTTP_Query_String_Iterator it("%24skiptoken=a%2Bb%3D&&flag&q=x+y&bad=%zz&last="); it != end; ++it)
    pairs.push_back(*it);
  ASSERT_EQ(pairs.size(), 4u);
  EXPECT_EQ(pairs[0], std::make_pair(std::string("$skiptoken"), std::string("a+b=")));
  EXPECT_EQ(pairs[1], std::make_pair(std::string("flag"), std::string("")));
  EXPECT_EQ(pairs[2], std::make_pair(std::string("q"), std::string("x y")));
  EXPECT_EQ(pairs[3], std::make_pair(std::string("last"), std::string("")));

  EXPECT_TRUE(HTTP_Query_String_Iterator("") == end);
  EXPECT_TRUE(HTTP_Query_String_Iterator("&&") == end);
}

TEST(HttpEncodingModes, QueryComponentEscapesEverythingButUnreserved)
{
  std::string out;
  ASSERT_TRUE(http_encode_string_i("\"userPrincipalName:a&b\" /=?$", HTTP_ENCODE_MODE_QUERY_COMPONENT, out));
  EXPECT_EQ(out, "%22userPrincipalName%3Aa%26b%22%20%2F%3D%3F%24");
  ASSERT_TRUE(http_encode_string_i("a b+c", HTTP_ENCODE_MODE_FORM, out));
  EXPECT_EQ(out, "a+b%2Bc");
  ASSERT_TRUE(http_encode_string_i("a b/c", HTTP_ENCODE_MODE_PATH, out));
  EXPECT_EQ(out, "a%20b/c");
  EXPECT_FALSE(http_encode_string_i("x", 99, out));
  EXPECT_EQ(out, "");
  EXPECT_FALSE(http_encode_string_i(nullptr, HTTP_ENCODE_MODE_QUERY_COMPONENT, out));

  // Round trip through the iterator.
  std::string value;
  http_encode_string_i("k=v&x y%", HTTP_ENCODE_MODE_QUERY_COMPONENT, value);
  const std::string query = "t=" + value;
  HTTP_Query_String_Iterator it(query.c_str());
  EXPECT_EQ(it->second, "k=v&x y%");
}
