#include "support/exo_sim_process.h"
#include "host/office365/office365_tenant_registry.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

namespace
{
class Temp_Dir
{
public:
  Temp_Dir()
  {
    char pattern[] = "/tmp/o365_registry_XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~Temp_Dir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
  std::string file(const char* name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

Office365_Auth_Entry sample(const std::string& tenant)
{
  Office365_Auth_Entry e;
  e.ms_login_endpoint = "https://login.microsoftonline.com";
  e.ms_graph_endpoint = "https://graph.microsoft.com";
  e.ews_endpoint = "https://outlook.office365.com/EWS/Exchange.asmx";
  e.tenant_email = "admin@" + tenant;
  e.tenant_id = tenant;
  e.client_id = "client-" + tenant;
  e.client_secret = "secret-of-" + tenant;
  return e;
}
}  // namespace

TEST(Office365TenantRegistry, SavesPrivatelyAndReadsBack)
{
  Temp_Dir dir;
  const std::string path = dir.file("tenants.json");
  Office365_Tenant_Registry registry(path);
  std::string error;
  ASSERT_TRUE(registry.load(error)) << error;  // no file yet: empty
  EXPECT_TRUE(registry.tenants().empty());
  EXPECT_FALSE(registry.add("", sample("x")));
  ASSERT_TRUE(registry.add("u1", sample("a.test")));
  ASSERT_TRUE(registry.add("u2", sample("b.test")));
  ASSERT_TRUE(registry.add("u1", sample("c.test")));  // replaces
  ASSERT_TRUE(registry.save(error)) << error;

  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  Office365_Tenant_Registry again(path);
  ASSERT_TRUE(again.load(error)) << error;
  ASSERT_EQ(again.tenants().size(), 2u);
  Office365_Auth_Entry entry;
  ASSERT_TRUE(again.find("u1", entry));
  EXPECT_EQ(entry.tenant_id, "c.test");
  EXPECT_EQ(entry.client_secret, "secret-of-c.test");

  const std::string listing = again.describe();
  EXPECT_NE(listing.find("u2"), std::string::npos);
  EXPECT_NE(listing.find("client-b.test"), std::string::npos);
  EXPECT_EQ(listing.find("secret-of"), std::string::npos);

  EXPECT_TRUE(again.remove("u2"));
  EXPECT_FALSE(again.remove("u2"));
  ASSERT_TRUE(again.save(error));
  Office365_Tenant_Registry::set_default_path(path);
  EXPECT_TRUE(get_office365_auth_entry("u1", entry));
  EXPECT_FALSE(get_office365_auth_entry("u2", entry));
  Office365_Tenant_Registry::set_default_path("");
  EXPECT_FALSE(get_office365_auth_entry("u1", entry));
}

TEST(Office365TenantRegistry, KeepsEachRegistrationsTransport)
{
  // An entry written before registrations named a transport means EWS over SOAP.
  nlohmann::ordered_json object = sample("a.test").to_json(true);
  EXPECT_EQ(object["transport"], "ews");
  object.erase("transport");
  Office365_Auth_Entry entry;
  entry.transport = "";
  ASSERT_TRUE(entry.load(object));
  EXPECT_EQ(entry.transport, "ews");
  for (const nlohmann::ordered_json& bad : {nlohmann::ordered_json("graph-beta"), nlohmann::ordered_json(3)})
  {
    object["transport"] = bad;
    EXPECT_FALSE(entry.load(object)) << bad;
  }

  Temp_Dir dir;
  const std::string path = dir.file("tenants.json");
  {
    std::ofstream out(path);
    out << "{\"format_version\":1,\"tenants\":{\"u\":" << object.dump() << "}}";
  }
  ::chmod(path.c_str(), 0600);
  Office365_Tenant_Registry registry(path);
  std::string error;
  EXPECT_FALSE(registry.load(error));
  EXPECT_NE(error.find("unknown transport"), std::string::npos) << error;
}

TEST(Office365TenantRegistry, RefusesExposedOrDamagedFiles)
{
  Temp_Dir dir;
  const std::string path = dir.file("tenants.json");
  std::string error;
  {
    std::ofstream out(path);
    out << "{\"format_version\":1,\"tenants\":{}}";
  }
  ::chmod(path.c_str(), 0644);
  Office365_Tenant_Registry registry(path);
  EXPECT_FALSE(registry.load(error));
  EXPECT_NE(error.find("chmod 600"), std::string::npos);

  ::chmod(path.c_str(), 0600);
  EXPECT_TRUE(registry.load(error)) << error;

  for (const char* text : {"{\"format_version\":1,\"tenants\":{\"u\":{\"tenant_id\":\"t\"}}}",
                           "{\"format_version\":2,\"tenants\":{}}", "{\"format_version\":1,\"tenants\":{", "[]"})
  {
    {
      std::ofstream out(path);
      out << text;
    }
    EXPECT_FALSE(registry.load(error)) << text;
    EXPECT_TRUE(registry.tenants().empty());
  }
}

TEST(Office365TenantRegistry, TestsARegistrationAgainstTheLoginEndpoint)
{
  EXPECT_EQ(
    Office365_Tenant_Registry::token_scopes(sample("a.test")),
    (std::vector<std::string>{"https://graph.microsoft.com/.default", "https://outlook.office365.com/.default"}));
  EXPECT_EQ(Office365_Tenant_Registry::file_in("/var/lib/agent"), "/var/lib/agent/office365_tenants.json");

  Exo_Sim_Process sim;
  std::string error;
  EXPECT_TRUE(Office365_Tenant_Registry::test(sim.entry(), error)) << error;
  EXPECT_EQ(sim.status()["tokens_issued"], 2);  // Graph and EWS
  Office365_Auth_Entry no_ews = sim.entry();
  no_ews.ews_endpoint = "outlook";
  EXPECT_FALSE(Office365_Tenant_Registry::test(no_ews, error));
  EXPECT_NE(error.find("invalid EWS endpoint 'outlook'"), std::string::npos) << error;
  Office365_Auth_Entry wrong = sim.entry();
  wrong.client_id = "11111111-2222-3333-4444-555555555555";
  EXPECT_FALSE(Office365_Tenant_Registry::test(wrong, error));
  EXPECT_NE(error.find("AADSTS700016"), std::string::npos) << error;
}
