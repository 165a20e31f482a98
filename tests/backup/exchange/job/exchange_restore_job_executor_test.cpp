#include "backup/exchange/job/exchange_restore_job_executor.h"
#include "host/storage/host_manager.h"
#include "support/log_capture.h"
#include "support/plain_job.h"
#include "support/scripted_server.h"

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace
{
const char* const tenant_uuid = "0c9a7d2e-1b3f-4a5c-8d6e-7f8091a2b3c4";

Job_Definition_var restore_definition()
{
  Job_Definition_var def = plain_definition("restore-1");
  def->host_id("host-1");
  def->max_seconds_retry(2);
  Exchange_Restore_Job_Source* source = new Exchange_Restore_Job_Source();
  source->id(tenant_uuid);
  source->catalog_id("set-1");
  source->original("exchange://exo/anna%40x.test");
  source->restore_as("exchange://exo/bob%40x.test");
  source->storages().push_back("in");
  def->source(Job_Source_var(source));
  Exchange_Restore_Job_Options* options = new Exchange_Restore_Job_Options();
  options->relocation("Restored");
  options->is_office365_ = true;
  def->options(Job_Options_var(options));
  return def;
}

// A backupd whose catalog answers with `body` and whose pool-1 lies at
// http://store/pool-1; remembers the request targets.
class Scripted_Catalog
{
public:
  explicit Scripted_Catalog(const std::string& body)
    : body_(body),
      server_(
        [this](const Scripted_Request& r)
        {
          std::lock_guard<std::mutex> guard(lock_);
          targets_.push_back(r.target);
          Scripted_Reply reply;
          reply.headers["Content-Type"] = "application/json";
          reply.body = r.target.find("/pools/") != std::string::npos
                         ? R"({"uuid":"pool-1","name":"p","host_uuid":"h","url":"http://store/pool-1","settings":{}})"
                         : body_;
          return reply;
        })
  {
    Host_Manager::Settings settings;
    settings.backupd_url = server_.url();
    settings.access_key = "k";
    settings.host_id = "host-1";
    Host_Manager::instance().init(settings);
  }
  std::vector<std::string> targets()
  {
    std::lock_guard<std::mutex> guard(lock_);
    return targets_;
  }

private:
  std::mutex lock_;
  std::string body_;
  std::vector<std::string> targets_;
  Scripted_Server server_;
};

std::string record(const std::string& method, const std::string& uri, bool channels = true,
                   const std::string& transport = "")
{
  return R"({"total":1,"rows":[{"uuid":"set-1",)" +
         (transport.empty() ? std::string() : R"("transport":")" + transport + R"(",)") + R"("backup_method":")" +
         method + R"(","pool_uuid":"pool-1","uri":")" + uri +
         R"(","host_uuid":"host-1","rev":3,"agent":"backup.exchange.linux-x86",)" +
         (channels ? R"("channels":2,)" : "") + R"("minor_resource_id":"nightly"}]})";
}
}  // namespace

TEST(ExchangeRestoreJobExecutor, ReadsTheSetRecordAndBuildsTheStorageLocation)
{
  for (const char* uri : {"host-1/nightly", "/host-1/nightly"})
  {
    Scripted_Catalog catalog(record("ews", uri));
    Plain_Job job(restore_definition());
    Exchange_Restore_Job_Executor executor(job);
    Exchange_Restore_Input input;
    std::string error;
    ASSERT_TRUE(executor.get_backupset_info(tenant_uuid, "set-1", input, error)) << error;
    EXPECT_EQ(input.location, "http://store/pool-1/host-1/nightly") << uri;
    EXPECT_EQ(executor.backup_method(), "ews");
    EXPECT_EQ(executor.pool_uuid(), "pool-1");
    EXPECT_EQ(executor.backup_host_id(), "host-1");
    EXPECT_EQ(executor.backup_rev(), 3);
    EXPECT_EQ(executor.backup_channels(), 2);
    EXPECT_EQ(executor.backup_minor_resource_id(), "nightly");
    // A record written before transports were recorded was written over EWS.
    EXPECT_EQ(executor.backup_transport(), "ews");
    const std::vector<std::string> targets = catalog.targets();
    ASSERT_FALSE(targets.empty());
    EXPECT_EQ(targets[0],
              std::string("/d2/r/v2/sets/restore/sets?module=exchange&resource_uuid=") + tenant_uuid + "&uuid=set-1");
  }
}

TEST(ExchangeRestoreJobExecutor, ReadsTheTransportThatWroteTheSet)
{
  Scripted_Catalog catalog(record("ews", "host-1/nightly", true, "graph"));
  Plain_Job job(restore_definition());
  Exchange_Restore_Job_Executor executor(job);
  Exchange_Restore_Input input;
  std::string error;
  ASSERT_TRUE(executor.get_backupset_info(tenant_uuid, "set-1", input, error)) << error;
  EXPECT_EQ(executor.backup_transport(), "graph");
}

TEST(ExchangeRestoreJobExecutor, RefusesRecordsItCannotRestore)
{
  {
    // Another backup method: no restore is attempted.
    Scripted_Catalog catalog(record("vss", "host-1/nightly"));
    Plain_Job job(restore_definition());
    Exchange_Restore_Job_Executor executor(job);
    Log_Capture log;
    EXPECT_FALSE(executor.execute_i(nullptr));
    EXPECT_EQ(log.count("Unsupported Exchange restoration type on this platform."), 1u);
    EXPECT_EQ(log.count("Exchange restore from"), 0u);
    for (const std::string& target : catalog.targets())
      EXPECT_EQ(target.find("/pools/"), std::string::npos);
  }
  {
    Scripted_Catalog catalog(record("ews", "host-1/nightly", false));
    Plain_Job job(restore_definition());
    Exchange_Restore_Job_Executor executor(job);
    Log_Capture log;
    EXPECT_FALSE(executor.execute_i(nullptr));
    EXPECT_EQ(log.count("Unrecognized Exchange catalog(uuid=set-1): \"channels\" is missing"), 1u);
    EXPECT_EQ(log.count("Failed to set target by catalog uuid: set-1."), 1u);
  }
  for (const char* body : {"[]", R"({"total":0,"rows":[]})"})
  {
    Scripted_Catalog catalog(body);
    Plain_Job job(restore_definition());
    Exchange_Restore_Job_Executor executor(job);
    Log_Capture log;
    EXPECT_FALSE(executor.execute_i(nullptr)) << body;
    EXPECT_EQ(log.count("Failed to set target by catalog uuid: set-1."), 1u) << body;
  }
  {
    // A usable record: the run names the source mailbox first, then fails for
    // want of the tenant's registration, before any folder is made.
    Scripted_Catalog catalog(record("ews", "host-1/nightly"));
    Plain_Job job(restore_definition());
    Exchange_Restore_Job_Executor executor(job);
    Log_Capture log;
    EXPECT_FALSE(executor.execute_i(nullptr));
    EXPECT_EQ(log.count("Exchange restore from 'anna@x.test' to 'bob@x.test', relocation = 'Restored'"), 1u);
    EXPECT_EQ(log.count("Failed to get Office365 auth entry"), 1u);
  }
}
