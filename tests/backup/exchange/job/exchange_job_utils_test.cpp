#include "backup/exchange/job/exchange_job_utils.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace
{
struct Split
{
  std::string first = "stale", second = "stale", rest = "stale";
};

Split split(const std::string& entry)
{
  Split s;
  parse_entry(entry.c_str(), entry.size(), &s.first, &s.second, &s.rest);
  return s;
}
}  // namespace

TEST(ParseEntry, SplitsAndDecodesSegmentsAfterThePrefix)
{
  Split s = split("exchange://tenant%201/alice%40example.com/Inbox/Sub%2Ffolder");
  EXPECT_EQ(s.first, "tenant 1");
  EXPECT_EQ(s.second, "alice@example.com");
  EXPECT_EQ(s.rest, "Inbox/Sub/folder");

  // An escaped slash inside a segment does not split it.
  Split escaped = split("exchange://t/a%2Fb");
  EXPECT_EQ(escaped.second, "a/b");
  EXPECT_EQ(escaped.rest, "");

  // The prefix is skipped without being read.
  EXPECT_EQ(split("XXXXXXXXXXXone/two").first, "one");
}

TEST(ParseEntry, ShortEntriesFillWhatTheyHave)
{
  Split one = split("exchange://tenant");
  EXPECT_EQ(one.first, "tenant");
  EXPECT_EQ(one.second, "");
  EXPECT_EQ(one.rest, "");

  Split none = split("exchange:/");
  EXPECT_EQ(none.first, "");
  EXPECT_EQ(none.second, "");

  Split bad = split("exchange://t/%zz/x");
  EXPECT_EQ(bad.first, "t");
  EXPECT_EQ(bad.second, "");
  EXPECT_EQ(bad.rest, "");

  std::string second;
  const std::string entry = "exchange://t/m/r";
  parse_entry(entry.c_str(), entry.size(), nullptr, &second, nullptr);
  EXPECT_EQ(second, "m");
}

TEST(ParseEntry, NullOrEmptyIsAnInvariantBreak)
{
  Log_Capture log;
  std::string first = "kept";
  parse_entry(nullptr, 0, &first, nullptr, nullptr);
  parse_entry("", 0, &first, nullptr, nullptr);
  EXPECT_EQ(first, "kept");
  EXPECT_EQ(log.count("Unexpected error in "), 2u);
  EXPECT_TRUE(log.contains("val is NULL or \"\":\n"));
  EXPECT_EQ(log.priority_of("Unexpected error"), static_cast<unsigned long>(LM_EMERGENCY));
}
