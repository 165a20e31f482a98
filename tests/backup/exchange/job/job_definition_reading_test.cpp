#include "backup/exchange/job/exchange_backup_job_options_parser.h"
#include "backup/exchange/job/exchange_restore_job_options_parser.h"
#include "backup/exchange/job/exchange_restore_job_source_parser.h"
#include "host/job/default_backup_job_source_parser.h"
#include "host/job/job_definition_reader.h"

#include <gtest/gtest.h>

namespace
{
template <typename P>
using Creator = Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, P>;

struct Module_Creators
{
  Creator<Exchange_Backup_Job_Options_Parser> backup_options;
  Creator<Default_Backup_Job_Source_Parser> backup_source;
  Creator<Exchange_Restore_Job_Options_Parser> restore_options;
  Creator<Exchange_Restore_Job_Source_Parser> restore_source;

  Job_Definition_Reader::Creators all()
  {
    Job_Definition_Reader::Creators c;
    c.backup_options = &backup_options;
    c.backup_source = &backup_source;
    c.restore_options = &restore_options;
    c.restore_source = &restore_source;
    return c;
  }
};

const char* const backup_definition = R"({
  "type": "backup", "uid": "6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d", "id": "nightly",
  "host_id": "h1", "schedule": {"type": "ondemand"},
  "target": {"id": "pool-1", "device_id": "dev-1"},
  "pre_action": "true", "ignore_post_action_failure": true, "max_seconds_retry": 60,
  "resumption_buffer_size": 4096,
  "max_rate_limits": [{"start_time": 0, "end_time": 3600, "max_bytes_per_second": 1000}],
  "options": {"method": "ews", "channels": 4},
  "source": {"id": "tenant", "entries": ["exchange://tenant/alice%40example.com"]}
})";
}  // namespace

TEST(JobDefinitionReading, BackupDefinitionGoesThroughTheModuleParsers)
{
  Module_Creators creators;
  Job_Definition_Reader reader(creators.all());
  Job_Definition_var def;
  ASSERT_TRUE(reader.read_text(backup_definition, def)) << reader.error();
  EXPECT_EQ(def->type(), JOB_DEFINITION_BACKUP);
  EXPECT_EQ(def->id(), "nightly");
  ASSERT_NE(def->schedule(), nullptr);
  EXPECT_EQ(def->schedule()->type(), Job_Schedule::TYPE_ONDEMAND);
  EXPECT_EQ(def->target().id(), "pool-1");
  EXPECT_EQ(def->target().device_id(), "dev-1");
  EXPECT_EQ(def->pre_action(), "true");
  EXPECT_TRUE(def->ignore_post_action_failure());
  EXPECT_FALSE(def->run_post_action_always());
  EXPECT_EQ(def->max_seconds_retry(), 60);
  EXPECT_EQ(def->resumption_buffer_size(), 4096u);
  ASSERT_EQ(def->max_rate_limits().size(), 1u);
  EXPECT_EQ(def->max_rate_limits()[0].max_bytes_per_second, 1000u);

  auto* options = dynamic_cast<Exchange_Backup_Job_Options*>(def->options().get());
  ASSERT_NE(options, nullptr);
  EXPECT_EQ(options->method(), EXCHANGE_BACKUP_METHOD_EWS);
  EXPECT_EQ(options->channels_, 4);
  auto* source = dynamic_cast<Default_Backup_Job_Source*>(def->source().get());
  ASSERT_NE(source, nullptr);
  EXPECT_EQ(source->id(), "tenant");
  EXPECT_EQ(source->entries().size(), 1u);
}

TEST(JobDefinitionReading, RefusalsSayWhy)
{
  Module_Creators creators;
  Job_Definition_Reader reader(creators.all());
  Job_Definition_var def;
  const std::pair<const char*, const char*> cases[] = {
    {"{\"type\":\"backup\",", "malformed job definition"},
    {"[1]", "must be a JSON object"},
    {"{\"type\":\"archive\",\"uid\":\"u\",\"id\":\"i\"}", "unknown job type 'archive'"},
    {"{\"type\":\"backup\",\"uid\":\"u\"}", "\"id\" and \"uid\" are required"},
    {"{\"type\":\"backup\",\"uid\":\"u\",\"id\":\"i\"}", "has no \"source\""},
    {"{\"type\":\"backup\",\"uid\":\"u\",\"id\":\"i\",\"source\":{\"id\":\"t\"}}", "invalid job source"},
    {"{\"type\":\"backup\",\"uid\":\"u\",\"id\":\"i\",\"options\":{\"channels\":0},"
     "\"source\":{\"id\":\"t\",\"entries\":[]}}",
     "invalid job options"},
    {"{\"type\":\"restore\",\"uid\":\"u\",\"id\":\"i\",\"source\":{\"id\":\"t\"}}", "(error 7)"},
    {"{\"type\":\"backup\",\"uid\":\"u\",\"id\":\"i\",\"max_seconds_retry\":-1}", "max_seconds_retry"},
    {"{\"type\":\"backup\",\"uid\":\"u\",\"id\":\"i\",\"schedule\":{\"type\":\"sometimes\"}}", "schedule"},
  };
  for (const auto& c : cases)
  {
    EXPECT_FALSE(reader.read_text(c.first, def)) << c.first;
    EXPECT_NE(reader.error().find(c.second), std::string::npos) << c.first << " -> " << reader.error();
  }
}

TEST(JobDefinitionReading, AParserOfTheWrongKindIsRefused)
{
  Module_Creators creators;
  Job_Definition_Reader::Creators swapped = creators.all();
  swapped.backup_source = &creators.backup_options;
  Job_Definition_Reader reader(swapped);
  Job_Definition_var def;
  EXPECT_FALSE(reader.read_text(backup_definition, def));
  EXPECT_NE(reader.error().find("wrong kind"), std::string::npos);
}

TEST(JobDefinitionReading, StandbyDefinitionsNeedNoModuleObjects)
{
  Module_Creators creators;
  Job_Definition_Reader reader(creators.all());
  Job_Definition_var def;
  ASSERT_TRUE(reader.read_text("{\"type\":\"standby\",\"uid\":\"u\",\"id\":\"i\"}", def)) << reader.error();
  EXPECT_EQ(def->type(), JOB_DEFINITION_STANDBY);
  EXPECT_EQ(def->options().get(), nullptr);
  EXPECT_EQ(def->schedule(), nullptr);
}
