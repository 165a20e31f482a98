#include "backup/exchange/job/exchange_restore_job_options_parser.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace
{
Exchange_Restore_Job_Options* parse_restore_options(const std::string& json, int& rc, int& err, Job_Options_var& holder)
{
  Exchange_Restore_Job_Options_Parser parser;
  rc = parser.parse(json);
  err = parser.err();
  holder = parser.result();
  return static_cast<Exchange_Restore_Job_Options*>(holder.get());
}
}  // namespace

TEST(RestoreJobOptions, DefaultsAndEmptyRelocationLeaveTheKeyOut)
{
  Exchange_Restore_Job_Options defaults;
  const std::string expected = "{\"auto_mount\":true,\"is_office365\":false,\"overwrite\":false,\"channels\":1}";
  EXPECT_EQ(generate_json(defaults), expected);

  int rc = 0, err = 0;
  Job_Options_var holder;
  Exchange_Restore_Job_Options* o = parse_restore_options("{\"relocation\":\"\"}", rc, err, holder);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(o->relocation(), "");
  EXPECT_EQ(generate_json(*o), expected);
}

TEST(RestoreJobOptions, ParsesRoundTripsAndSkipsWrongTypes)
{
  int rc = 0, err = 0;
  Job_Options_var holder;
  Exchange_Restore_Job_Options* o = parse_restore_options(
    "{\"relocation\":\"Restored/2026\",\"auto_mount\":false,\"is_office365\":true,\"overwrite\":true,"
    "\"channels\":3,\"unknown\":1}",
    rc, err, holder);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(o->relocation(), "Restored/2026");
  EXPECT_FALSE(o->auto_mount());
  EXPECT_TRUE(o->is_office365_);
  EXPECT_TRUE(o->overwrite());
  EXPECT_EQ(o->channels_, 3);
  EXPECT_EQ(generate_json(*o),
            "{\"relocation\":\"Restored/2026\",\"auto_mount\":false,\"is_office365\":true,"
            "\"overwrite\":true,\"channels\":3}");

  Job_Options_var other;
  Exchange_Restore_Job_Options* skipped =
    parse_restore_options("{\"channels\":\"4\",\"overwrite\":\"yes\"}", rc, err, other);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(skipped->channels_, 1);
  EXPECT_FALSE(skipped->overwrite());
}

TEST(RestoreJobOptions, BadChannelsAndMisplacedValuesFail)
{
  int rc = 0, err = 0;
  Job_Options_var holder;
  {
    Log_Capture log;
    parse_restore_options("{\"channels\":-1}", rc, err, holder);
    EXPECT_NE(rc, 0);
    EXPECT_TRUE(log.contains("Invalid number: -1.\n"));
  }
  {
    Log_Capture log;
    parse_restore_options("{\"channels\":4294967296}", rc, err, holder);
    EXPECT_NE(rc, 0);
    EXPECT_TRUE(log.contains("Integer overflow number: 4294967296.\n"));
  }
  parse_restore_options("{\"x\":{\"overwrite\":true}}", rc, err, holder);
  EXPECT_NE(rc, 0);
  EXPECT_EQ(err, 9);
}
