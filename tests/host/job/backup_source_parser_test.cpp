#include "host/job/default_backup_job_source_parser.h"
#include "host/job/job_options.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace
{
struct Parsed
{
  int rc;
  int err;
  std::string error;
  Job_Source_var source;
  const Default_Backup_Job_Source& get() const { return *static_cast<const Default_Backup_Job_Source*>(source.get()); }
};

Parsed parse(const std::string& json)
{
  Default_Backup_Job_Source_Parser parser;
  const int rc = parser.parse(json);
  return Parsed{rc, parser.err(), parser.error(), parser.result()};
}
}  // namespace

TEST(BackupSourceParser, ReadsEntriesAndRoundTrips)
{
  const std::string json =
    "{\"id\":\"tenant\",\"name\":\"Contoso\",\"entries\":[\"exchange://tenant/alice%40contoso.com\","
    "\"exchange://tenant/bob%40contoso.com/Inbox\"]}";
  Parsed p = parse(json);
  ASSERT_EQ(p.rc, 0) << p.error;
  EXPECT_EQ(p.get().id(), "tenant");
  EXPECT_EQ(p.get().name(), "Contoso");
  ASSERT_EQ(p.get().entries().size(), 2u);
  EXPECT_EQ(p.get().entries()[1], "exchange://tenant/bob%40contoso.com/Inbox");
  EXPECT_EQ(generate_json(*p.source), json);

  // Unknown keys and their values, however nested, are skipped.
  EXPECT_EQ(parse("{\"id\":\"t\",\"entries\":[],\"x\":{\"y\":[\"z\"]}}").rc, 0);
}

TEST(BackupSourceParser, RefusesMissingKeysBadEntriesAndMisplacedValues)
{
  Log_Capture log;
  Parsed missing = parse("{\"name\":\"n\"}");
  EXPECT_EQ(missing.err, 7);
  EXPECT_TRUE(log.contains("Failed to parse job definition source, lack of 'id'.\n"));
  EXPECT_TRUE(log.contains("Failed to parse job definition source, lack of 'entries'.\n"));

  for (const char* entry : {"exchange:/t/m", "short", "exchange://", "exch ange://t/m"})
  {
    Parsed bad = parse(std::string("{\"id\":\"t\",\"entries\":[\"") + entry + "\"]}");
    EXPECT_EQ(bad.err, 10) << entry;
  }
  EXPECT_TRUE(log.contains("Invalid backup source entry 'short'"));

  EXPECT_EQ(parse("{\"id\":\"t\",\"entries\":\"exchange://t/m\"}").err, 9);
  EXPECT_EQ(parse("{\"id\":\"t\",\"entries\":[[\"exchange://t/m\"]]}").err, 9);
}

TEST(YajlHandler, ReportsSyntaxErrorsAndStoppedParses)
{
  Default_Backup_Job_Source_Parser parser;
  EXPECT_EQ(parser.parse(std::string("{\"id\": \"t\", ")), -1);
  EXPECT_NE(parser.error().find("malformed JSON"), std::string::npos);

  Default_Backup_Job_Source_Parser stopped;
  EXPECT_EQ(stopped.parse(std::string("{\"id\":\"t\",\"entries\":\"x\"}")), -1);
  EXPECT_EQ(stopped.error(), "rejected by the parser (error 9)");

  // The default handlers accept everything.
  YAJL_Handler accepting;
  EXPECT_EQ(accepting.parse(std::string("[1, true, null, {\"a\": \"b\"}]")), 0);
}
