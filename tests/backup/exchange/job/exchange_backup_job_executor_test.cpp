#include <sys/stat.h>  // backupd_process.h uses chmod

#include "apps/backupd/backupd_process.h"
#include "backup/exchange/core/ews/ews_mtf_utils.h"
#include "backup/exchange/job/exchange_backup_job_executor.h"
#include "backup/exchange/set_contents.h"
#include "host/catalog/catalog_operator.h"
#include "host/catalog/read_catalogs.h"
#include "host/office365/office365_tenant_registry.h"
#include "support/exo_sim_process.h"
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

// A backup job definition of the given mailboxes ("exchange://exo/<mailbox>").
Job_Definition_var backup_definition(const std::vector<std::string>& mailboxes, int channels = 2)
{
  Job_Definition_var def = plain_definition("nightly");
  def->host_id("host-1");
  def->target().id("pool-1");
  def->max_seconds_retry(5);
  Default_Backup_Job_Source* source = new Default_Backup_Job_Source();
  source->id(tenant_uuid);
  for (const std::string& m : mailboxes)
    source->entries().push_back("exchange://exo/" + m);
  def->source(Job_Source_var(source));
  Exchange_Backup_Job_Options* options = new Exchange_Backup_Job_Options();
  options->method(EXCHANGE_BACKUP_METHOD_EWS);
  options->is_office365_ = true;
  options->channels_ = channels;
  def->options(Job_Options_var(options));
  return def;
}

// Points the catalog client at a scripted backupd that answers every GET with
// `body` and remembers the request targets.
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
          reply.body = r.target.find("/pools/") != std::string::npos ? pool_ : body_;
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

  std::string pool_ = R"({"uuid":"pool-1","name":"p","host_uuid":"h","url":"http://store/pool-1","settings":{}})";

private:
  std::mutex lock_;
  std::string body_;
  std::vector<std::string> targets_;
  Scripted_Server server_;
};
}  // namespace

TEST(ExchangeBackupLookup, LastInstanceReadsTheNewestRevisionStrictly)
{
  struct Case
  {
    const char* body;
    bool ok;
    int rev;
  };
  const Case cases[] = {
    {R"({"total":0,"rows":[]})", true, 0},
    {R"({"total":3,"rows":[{"uuid":"u","rev":7},{"rev":3}]})", true, 7},
    {R"({"total":1,"rows":[{"uuid":"u"}]})", false, 0},
    {R"({"total":1,"rows":[{"uuid":"u","rev":"7"}]})", false, 0},
    {R"({"total":1,"rows":[5]})", false, 0},
    {R"({"total":1})", false, 0},
  };
  for (const Case& c : cases)
  {
    Scripted_Catalog catalog(c.body);
    Plain_Job job(backup_definition({"a@x"}));
    Exchange_Backup_Job_Executor executor(job);
    Log_Capture log;
    EXPECT_EQ(executor.get_last_instance_info(), c.ok) << c.body;
    EXPECT_EQ(executor.last_rev(), c.rev) << c.body;
    EXPECT_EQ(log.contains("Unrecognized Exchange catalog: "), !c.ok) << c.body;
    ASSERT_EQ(catalog.targets().size(), 1u);
    EXPECT_EQ(catalog.targets()[0], std::string("/d2/r/v2/sets/restore/sets?module=exchange&resource_uuid=") +
                                      tenant_uuid +
                                      "&minor_resource_id=nightly&sort=backup_start_time&order=desc&offset=0&limit=1");
  }
  Scripted_Catalog broken("not json");
  Plain_Job job(backup_definition({"a@x"}));
  Exchange_Backup_Job_Executor executor(job);
  Log_Capture log;
  EXPECT_FALSE(executor.get_last_instance_info());
  EXPECT_TRUE(log.contains("Failed to read catalog from '/d2/r/v2/sets/restore/sets?module=exchange"));
}

TEST(ExchangeBackupLookup, IncarnationDecidesBetweenFullAndIncremental)
{
  Plain_Job job(backup_definition({"a@x"}));
  Exchange_Backup_Job_Executor executor(job);
  auto input = []
  {
    Exchange_Backup_Input in;
    in.instance = "EX1";
    in.database = "DB1";
    in.method = EXCHANGE_BACKUP_METHOD_EWS;
    return in;
  };
  {
    Scripted_Catalog catalog(R"({"rows":[]})");
    Exchange_Backup_Input in = input();
    ASSERT_TRUE(executor.retrieve_incarnation_info(in));
    EXPECT_EQ(in.type, EXCHANGE_BACKUP_TYPE_FULL);
    ASSERT_EQ(catalog.targets().size(), 1u);
    EXPECT_NE(catalog.targets()[0].find("&host_uuid=host-1&instance=EX1&database=DB1&sort="), std::string::npos);
  }
  const std::string row =
    R"("backup_method":"ews","incarnation":"inc-1","device_uuid":"00000000-0000-0000-0000-000000000000")";
  {
    Scripted_Catalog catalog(R"({"rows":[{)" + row + R"(,"rev":4,"pool_uuid":"pool-1","uri":"host-1/nightly"}]})");
    Exchange_Backup_Input in = input();
    ASSERT_TRUE(executor.retrieve_incarnation_info(in));
    EXPECT_EQ(in.type, EXCHANGE_BACKUP_TYPE_INCREMENTAL);
    EXPECT_EQ(in.rev, 5);
    EXPECT_EQ(in.location, "http://store/pool-1host-1/5");
    EXPECT_EQ(in.incarnation_uuid, "inc-1");
  }
  {
    Scripted_Catalog catalog(R"({"rows":[{)" + row + R"(,"rev":4,"pool_uuid":"pool-1","uri":"flat"}]})");
    Exchange_Backup_Input in = input();
    ASSERT_TRUE(executor.retrieve_incarnation_info(in));
    EXPECT_EQ(in.location, "http://store/pool-1/5");
  }
  {
    Scripted_Catalog catalog(R"({"rows":[{)" + row + R"(,"rev":4,"pool_uuid":"other","uri":"a/b"}]})");
    Exchange_Backup_Input in = input();
    ASSERT_TRUE(executor.retrieve_incarnation_info(in));
    EXPECT_EQ(in.type, EXCHANGE_BACKUP_TYPE_FULL);
  }
  {
    Scripted_Catalog catalog(R"({"rows":[{)" + row + R"(,"pool_uuid":"pool-1","uri":"a/b"}]})");
    Exchange_Backup_Input in = input();
    Log_Capture log;
    EXPECT_FALSE(executor.retrieve_incarnation_info(in));
    EXPECT_TRUE(log.contains("Exchange catalog error: \"rev\""));
  }
  {
    Scripted_Catalog catalog(
      R"({"rows":[{"backup_method":"vss","incarnation":"i","rev":1,"pool_uuid":"pool-1","device_uuid":"","uri":"a/b"}]})");
    Exchange_Backup_Input in = input();
    Log_Capture log;
    EXPECT_FALSE(executor.retrieve_incarnation_info(in));
    EXPECT_TRUE(log.contains("Backup API is not the same with last backup set, current is ews, last is vss"));
  }
  Exchange_Backup_Input empty = input();
  empty.database.clear();
  EXPECT_FALSE(executor.retrieve_incarnation_info(empty));
}

TEST(ExchangeBackupExecutor, BacksUpMailboxesNumbersSetsAndPostsTheRecord)
{
  Backupd_Process backupd;
  ASSERT_TRUE(backupd.add_pool("pool-1", "main"));
  ASSERT_TRUE(backupd.start());
  backupd.configure_host();
  Exo_Sim_Process sim({"--profile", "tiny"});
  const std::string registry = backupd.root() + "/tenants.json";
  {
    Office365_Tenant_Registry tenants(registry);
    std::string error;
    ASSERT_TRUE(tenants.add(tenant_uuid, sim.entry()));
    ASSERT_TRUE(tenants.save(error)) << error;
  }
  Office365_Tenant_Registry::set_default_path(registry);

  const std::vector<std::string> mailboxes = {sim.mailbox("alice.archer"), sim.mailbox("nobody"), sim.mailbox("admin")};
  for (int run = 1; run <= 2; ++run)
  {
    Plain_Job job(backup_definition(mailboxes));
    Exchange_Backup_Job_Executor executor(job);
    Log_Capture log;
    ASSERT_TRUE(executor.execute_i(nullptr));
    EXPECT_TRUE(log.contains(sim.mailbox("nobody"))) << log.text();
    EXPECT_GT(job.activity().size, 0u);
    EXPECT_GT(job.activity().set_storage_size, 0u);

    nlohmann::ordered_json result;
    ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange&sort=rev&order=desc", result, -1, 0));
    ASSERT_EQ(result["rows"].size(), static_cast<size_t>(run));
    Exchange_Backup_Set record;
    std::string error;
    ASSERT_TRUE(record.from_json(result["rows"][0], error)) << error;
    EXPECT_EQ(record.rev, run);
    EXPECT_EQ(record.backup_method, "ews");
    EXPECT_EQ(record.transport, "ews");
    EXPECT_EQ(record.uri, "host-1/nightly");
    EXPECT_EQ(record.resource_uuid, tenant_uuid);
    EXPECT_EQ(record.agent, "backup.exchange.linux-x86");
    EXPECT_EQ(record.channels, 2);
    EXPECT_EQ(record.failed_mailboxes, std::vector<std::string>{sim.mailbox("nobody")});
    std::string alice, admin;
    index_name(sim.mailbox("alice.archer"), run, alice);
    index_name(sim.mailbox("admin"), run, admin);
    std::vector<std::string> index_files = record.index_files;
    std::sort(index_files.begin(), index_files.end());
    EXPECT_EQ(index_files, (std::vector<std::string>{admin, alice}));
    EXPECT_EQ(record.catalogs.size(), 1u);
    EXPECT_FALSE(record.files.empty());
    EXPECT_LE(record.backup_start_time, record.backup_end_time);

    Set_Contents set;
    ASSERT_TRUE(set.read("pool-1", "host-1", "nightly", run));
    EXPECT_FALSE(set.files.empty());
    for (const auto& file : set.files)
      EXPECT_TRUE(file.first.rfind(mailbox_to_path(sim.mailbox("alice.archer")), 0) == 0 ||
                  file.first.rfind(mailbox_to_path(sim.mailbox("admin")), 0) == 0)
        << file.first;
  }

  // Every mailbox failing fails the job and posts nothing.
  Plain_Job job(backup_definition({sim.mailbox("nobody")}));
  Exchange_Backup_Job_Executor executor(job);
  Log_Capture log;
  EXPECT_FALSE(executor.execute_i(nullptr));
  EXPECT_TRUE(log.contains("All mailbox were failed to backup."));
  nlohmann::ordered_json result;
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange", result, -1, 0));
  EXPECT_EQ(result["rows"].size(), 2u);

  // A cancelled run posts no record either.
  Plain_Job cancelled(backup_definition({sim.mailbox("alice.archer")}));
  cancelled.activity().state = JOB_STATE_CANCELING;
  Exchange_Backup_Job_Executor cancelled_executor(cancelled);
  EXPECT_FALSE(cancelled_executor.execute_i(nullptr));
  ASSERT_TRUE(read_catalogs("/d2/r/v2/sets/restore/sets?module=exchange", result, -1, 0));
  EXPECT_EQ(result["rows"].size(), 2u);
}
