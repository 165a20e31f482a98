#include "backup/exchange/job/exchange_backup_job_options_parser.h"
#include "backup/exchange/job/natoi.h"
#include "support/log_capture.h"

#include <climits>
#include <gtest/gtest.h>

namespace
{
struct Parsed
{
  int rc;
  int err;
  Job_Options_var options;
};

Parsed parse_backup_options(const std::string& json)
{
  Exchange_Backup_Job_Options_Parser parser;
  const int rc = parser.parse(json);
  return Parsed{rc, parser.err(), parser.result()};
}

Exchange_Backup_Job_Options& backup(const Parsed& p)
{
  return *static_cast<Exchange_Backup_Job_Options*>(p.options.get());
}
}  // namespace

TEST(BackupJobOptions, DefaultsGenerateInOrder)
{
  Exchange_Backup_Job_Options options;
  EXPECT_EQ(generate_json(options),
            "{\"method\":\"vss\",\"truncate\":true,\"compression\":\"none\",\"compression_level\":1,"
            "\"check_consistency\":false,\"vss_provider\":\"\",\"is_office365\":false,\"channels\":1}");
}

TEST(BackupJobOptions, ParsesEveryKeyAndRoundTrips)
{
  const std::string json =
    "{\"method\":\"ews\",\"truncate\":false,\"compression\":\"zstd\",\"compression_level\":9,"
    "\"check_consistency\":true,\"vss_provider\":\"p \\u00e9\",\"is_office365\":true,\"channels\":8}";
  Parsed p = parse_backup_options(json);
  ASSERT_EQ(p.rc, 0);
  Exchange_Backup_Job_Options& o = backup(p);
  EXPECT_EQ(o.method(), EXCHANGE_BACKUP_METHOD_EWS);
  EXPECT_FALSE(o.truncate());
  EXPECT_EQ(o.compression(), COMPR_ZSTD);
  EXPECT_EQ(o.compression_level_, 9);
  EXPECT_TRUE(o.check_consisctency_);
  EXPECT_EQ(o.vss_provider_, "p \xC3\xA9");
  EXPECT_TRUE(o.is_office365_);
  EXPECT_EQ(o.channels_, 8);

  Parsed again = parse_backup_options(generate_json(o));
  ASSERT_EQ(again.rc, 0);
  EXPECT_EQ(generate_json(backup(again)), generate_json(o));
}

TEST(BackupJobOptions, UnknownKeysWrongTypesAndNestedKeysAreSkipped)
{
  Parsed p = parse_backup_options(
    "{\"Method\":\"ews\",\"truncate\":\"no\",\"channels\":\"4\",\"is_office365\":1,"
    "\"list\":[1,\"x\",true],\"method\":\"EWS\"}");
  ASSERT_EQ(p.rc, 0);
  Exchange_Backup_Job_Options& o = backup(p);
  EXPECT_TRUE(o.truncate());
  EXPECT_EQ(o.channels_, 1);
  EXPECT_FALSE(o.is_office365_);
  // Upper-case names are not method names; generation then leaves the key out.
  EXPECT_EQ(o.method(), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(generate_json(o).find("\"method\""), std::string::npos);
}

TEST(BackupJobOptions, ValuesOutsideTheTopLevelObjectFailWithNine)
{
  Parsed nested = parse_backup_options("{\"extra\":{\"flag\":true}}");
  EXPECT_NE(nested.rc, 0);
  EXPECT_EQ(nested.err, 9);
  Parsed bare = parse_backup_options("true");
  EXPECT_NE(bare.rc, 0);
  EXPECT_EQ(bare.err, 9);
}

TEST(BackupJobOptions, UnbalancedEventsFailWithThree)
{
  Exchange_Backup_Job_Options_Parser parser;
  EXPECT_FALSE(parser.handle_map_key_i("channels", 8));
  EXPECT_EQ(parser.err(), 3);
  Exchange_Backup_Job_Options_Parser other;
  EXPECT_FALSE(other.handle_end_map_i());
  EXPECT_EQ(other.err(), 3);
}

TEST(BackupJobOptions, BadCountsAreLoggedAndFail)
{
  for (const char* doc : {"{\"channels\":0}", "{\"channels\":-3}", "{\"compression_level\":0}"})
  {
    Log_Capture log;
    EXPECT_NE(parse_backup_options(doc).rc, 0) << doc;
    EXPECT_EQ(log.count("Invalid number: "), 1u) << doc;
    EXPECT_EQ(log.priority_of("Invalid number"), static_cast<unsigned long>(LM_ERROR));
  }
  Log_Capture log;
  EXPECT_NE(parse_backup_options("{\"channels\":99999999999}").rc, 0);
  EXPECT_TRUE(log.contains("Integer overflow number: 99999999999.\n"));

  // A fraction reads as its whole part.
  Parsed p = parse_backup_options("{\"channels\":12.5}");
  ASSERT_EQ(p.rc, 0);
  EXPECT_EQ(backup(p).channels_, 12);

  int field = 7;
  Log_Capture text_log;
  EXPECT_FALSE(read_json_count("abc", 3, field));
  EXPECT_TRUE(text_log.contains("Invalid number: abc.\n"));
}

TEST(Natoi, ReadsSignsLimitsAndRejectsNonNumbers)
{
  EXPECT_EQ(natoi<int>("+12", 3), 12);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(natoi<int>("-2147483648", 11), INT_MIN);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(natoi<int>("2147483647", 10), INT_MAX);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(natoi<int>("2147483648", 10), INT_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(natoi<int>("-2147483649", 11), INT_MAX);
  EXPECT_EQ(errno, ERANGE);
  EXPECT_EQ(natoi<int>("42abc", 5), 42);
  EXPECT_EQ(errno, 0);
  // Only the given length is read.
  EXPECT_EQ(natoi<int>("12345", 2), 12);
  for (const char* bad : {"", "-", "+", "abc", "-x1"})
  {
    EXPECT_EQ(natoi<int>(bad, std::strlen(bad)), 0) << bad;
    EXPECT_EQ(errno, EINVAL) << bad;
  }
  EXPECT_EQ(natoi<int>(nullptr, 3), 0);
  EXPECT_EQ(errno, EINVAL);
}
