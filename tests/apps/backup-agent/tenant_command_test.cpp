#include "agent_process.h"
#include "support/exo_sim_process.h"
#include "host/base/uuid.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>

namespace
{
const std::string secret = Exo_Sim_Process::client_secret;
const std::string wrong_secret = "exo-sim-wrong-secret-71c3";

class AgentTenant : public ::testing::Test
{
protected:
  void SetUp() override
  {
    char pattern[] = "/tmp/exo_agent_tenant_XXXXXX";
    dir_ = ::mkdtemp(pattern);
    registry_ = dir_ + "/state/office365_tenants.json";
    config_ = write("agent.json", "{\"state_dir\": \"" + dir_ + "/state\", \"log_file\": \"" + dir_ + "/agent.log\"}");
  }
  void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

  std::string write(const std::string& name, const std::string& text)
  {
    const std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    return path;
  }

  // Runs `backup-agent --config <config> ARGS` with standard input from `input`;
  // everything it printed is kept for the checks of transcript().
  Agent_Outcome agent(const std::vector<std::string>& args, const std::string& input = "/dev/null")
  {
    std::vector<std::string> all{"--config", config_};
    all.insert(all.end(), args.begin(), args.end());
    Agent_Outcome o = Agent_Process(all, dir_, "run" + std::to_string(runs_++), input).wait();
    transcript_ += o.out + o.err;
    return o;
  }

  std::vector<std::string> sim_endpoints(const Exo_Sim_Process& sim) const
  {
    const Office365_Auth_Entry e = sim.entry();
    return {"--login-endpoint",  e.ms_login_endpoint, "--graph-endpoint",
            e.ms_graph_endpoint, "--ews-endpoint",    e.ews_endpoint};
  }

  std::vector<std::string> add_args(const std::vector<std::string>& more) const
  {
    std::vector<std::string> args{"tenant",         "add",
                                  "--tenant-id",    Exo_Sim_Process::tenant_id,
                                  "--client-id",    Exo_Sim_Process::client_id,
                                  "--tenant-email", "admin@demo.exosim.test"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
  }

  static std::vector<std::string> plus(std::vector<std::string> a, const std::vector<std::string>& b)
  {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  }

  // The uuid `add` printed: its only line of output.
  static std::string printed_uuid(const Agent_Outcome& o)
  {
    unsigned char bytes[16];
    if (o.out.size() != 37 || o.out.back() != '\n' || uuid_string_to_binary(o.out.substr(0, 36).c_str(), bytes) != 0)
      return std::string();
    return o.out.substr(0, 36);
  }

  static unsigned mode_of(const std::string& path)
  {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
  }

  static size_t lines(const std::string& text)
  {
    size_t n = 0;
    for (char c : text)
      n += c == '\n';
    return n;
  }

  std::string dir_;
  std::string registry_;
  std::string config_;
  std::string transcript_;
  int runs_ = 0;
};
}  // namespace

TEST_F(AgentTenant, AddListTestAndRemoveAgainstTheSimulatorWithoutShowingTheSecret)
{
  Exo_Sim_Process sim;
  const std::string secret_file = write("secret.txt", secret + "\n");
  const std::string wrong_input = write("wrong.txt", wrong_secret + "\n");
  const std::string right_input = write("right.txt", "  " + secret + "\r\n");

  // A secret from a file: the new registration's uuid is all that is printed.
  Agent_Outcome first = agent(plus(add_args(sim_endpoints(sim)), {"--secret-file", secret_file}));
  ASSERT_EQ(first.status, 0) << first.err;
  const std::string uuid1 = printed_uuid(first);
  ASSERT_FALSE(uuid1.empty()) << first.out;
  EXPECT_EQ(mode_of(registry_), 0600u);
  EXPECT_EQ(mode_of(dir_ + "/state"), 0700u);

  // The same application again, a wrong secret from standard input, verbose.
  Agent_Outcome second = agent(plus({"--verbose"}, add_args(sim_endpoints(sim))), wrong_input);
  ASSERT_EQ(second.status, 0) << second.err;
  const std::string uuid2 = printed_uuid(second);
  ASSERT_FALSE(uuid2.empty()) << second.out;
  EXPECT_NE(uuid2, uuid1);
  EXPECT_NE(second.err.find("warning: this application of tenant " + std::string(Exo_Sim_Process::tenant_id) +
                            " is also registered as " + uuid1),
            std::string::npos)
    << second.err;
  EXPECT_EQ(mode_of(registry_), 0600u);

  Agent_Outcome listed = agent({"tenant", "list"});
  EXPECT_EQ(listed.status, 0) << listed.err;
  EXPECT_EQ(lines(listed.out), 2u) << listed.out;
  EXPECT_NE(listed.out.find(uuid1 + "  tenant_id=" + Exo_Sim_Process::tenant_id + "  client_id=" +
                            Exo_Sim_Process::client_id + "  tenant_email=admin@demo.exosim.test  login=" + sim.base() +
                            "  graph=" + sim.base() + "  ews=" + sim.base() + "/EWS/Exchange.asmx  transport=ews\n"),
            std::string::npos)
    << listed.out;
  EXPECT_NE(listed.out.find(uuid2 + "  tenant_id="), std::string::npos) << listed.out;

  // A good registration gets its Graph and EWS tokens; a wrong secret gets the service's reason.
  Agent_Outcome good = agent({"tenant", "test", uuid1});
  EXPECT_EQ(good.status, 0) << good.err;
  EXPECT_NE(good.out.find(uuid1 + ": tokens obtained from " + sim.base() + " for Graph (" + sim.base() +
                          "/.default) and EWS (" + sim.base() + "/.default)"),
            std::string::npos)
    << good.out;
  EXPECT_EQ(sim.status()["tokens_issued"], 2);
  Agent_Outcome bad = agent({"--verbose", "tenant", "test", uuid2});
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("error: tenant registration " + uuid2 + " (tenant " + Exo_Sim_Process::tenant_id +
                         "): no token for " + sim.base() + "/.default: AADSTS7000215: Invalid client secret provided."),
            std::string::npos)
    << bad.err;
  EXPECT_EQ(sim.status()["tokens_issued"], 2);

  // A new secret for the same uuid (job definitions keep naming it); upper case finds it too.
  Agent_Outcome renewed = agent(plus(add_args(sim_endpoints(sim)), {"--uuid", uuid2}), right_input);
  EXPECT_EQ(renewed.status, 0) << renewed.err;
  EXPECT_EQ(renewed.out, uuid2 + "\n");
  std::string upper = uuid2;
  for (char& c : upper)
    c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  Agent_Outcome retested = agent({"tenant", "test", upper});
  EXPECT_EQ(retested.status, 0) << retested.err;

  Agent_Outcome removed = agent({"tenant", "remove", uuid1});
  EXPECT_EQ(removed.status, 0) << removed.err;
  EXPECT_EQ(removed.out, "removed " + uuid1 + " (tenant " + Exo_Sim_Process::tenant_id + ")\n");
  Agent_Outcome after = agent({"tenant", "list"});
  EXPECT_EQ(lines(after.out), 1u) << after.out;
  EXPECT_EQ(after.out.find(uuid1), std::string::npos);
  EXPECT_NE(after.out.find(uuid2), std::string::npos);
  for (const char* sub : {"remove", "test"})
  {
    Agent_Outcome gone = agent({"tenant", sub, uuid1});
    EXPECT_EQ(gone.status, 1) << sub;
    EXPECT_NE(gone.err.find("error: no tenant registration " + uuid1), std::string::npos) << gone.err;
  }
  EXPECT_EQ(mode_of(registry_), 0600u);

  // The secrets are in the registry and nowhere else: not in anything printed, not in the log.
  const std::string stored = Agent_Process::read(registry_);
  EXPECT_NE(stored.find("\"client_secret\": \"" + secret + "\""), std::string::npos);
  const std::string log = Agent_Process::read(dir_ + "/agent.log");
  EXPECT_NE(log.find("Tenant registration '" + uuid1 + "' added"), std::string::npos) << log;
  EXPECT_NE(log.find("AADSTS7000215"), std::string::npos) << log;
  for (const std::string& s : {secret, wrong_secret})
  {
    EXPECT_EQ(transcript_.find(s), std::string::npos) << s;
    EXPECT_EQ(log.find(s), std::string::npos) << s;
  }
}

TEST_F(AgentTenant, AddTakesTheMicrosoftEndpointsByDefaultAndNormalisesGivenOnes)
{
  const std::string secret_file = write("secret.txt", secret);
  Agent_Outcome plain = agent(plus(add_args({}), {"--secret-file", secret_file}));
  ASSERT_EQ(plain.status, 0) << plain.err;
  Agent_Outcome sovereign = agent(
    plus(add_args({"--login-endpoint=https://login.microsoftonline.us/", "--graph-endpoint",
                   "https://graph.microsoft.us//", "--ews-endpoint", "https://outlook.office365.us/EWS/Exchange.asmx"}),
         {"--secret-file", secret_file}));
  ASSERT_EQ(sovereign.status, 0) << sovereign.err;

  Agent_Outcome listed = agent({"tenant", "list"});
  EXPECT_NE(
    listed.out.find(
      printed_uuid(plain) + "  tenant_id=" + Exo_Sim_Process::tenant_id + "  client_id=" + Exo_Sim_Process::client_id +
      "  tenant_email=admin@demo.exosim.test  login=https://login.microsoftonline.com"
      "  graph=https://graph.microsoft.com  ews=https://outlook.office365.com/EWS/Exchange.asmx  transport=ews\n"),
    std::string::npos)
    << listed.out;
  EXPECT_NE(listed.out.find(printed_uuid(sovereign) + "  tenant_id="), std::string::npos) << listed.out;
  EXPECT_NE(listed.out.find("login=https://login.microsoftonline.us  graph=https://graph.microsoft.us  "
                            "ews=https://outlook.office365.us/EWS/Exchange.asmx  transport=ews\n"),
            std::string::npos)
    << listed.out;
  EXPECT_EQ(listed.out.find(secret), std::string::npos);
}

TEST_F(AgentTenant, ConcurrentAddsKeepEveryRegistration)
{
  const std::string secret_file = write("secret.txt", secret);
  std::vector<std::unique_ptr<Agent_Process>> adds;
  for (int i = 0; i < 6; ++i)
    adds.emplace_back(new Agent_Process(plus({"--config", config_}, plus(add_args({}), {"--secret-file", secret_file})),
                                        dir_, "add" + std::to_string(i)));
  std::vector<std::string> uuids;
  for (auto& a : adds)
  {
    const Agent_Outcome o = a->wait();
    EXPECT_EQ(o.status, 0) << o.err;
    uuids.push_back(printed_uuid(o));
  }
  Agent_Outcome listed = agent({"tenant", "list"});
  EXPECT_EQ(lines(listed.out), uuids.size()) << listed.out;
  for (const std::string& uuid : uuids)
    EXPECT_NE(listed.out.find(uuid + "  tenant_id="), std::string::npos) << uuid;
}

TEST_F(AgentTenant, RefusesBadRequestsWithClearErrors)
{
  const std::string secret_file = write("secret.txt", secret);
  struct Case
  {
    std::vector<std::string> args;
    int status;
    std::string says;
  };
  const std::vector<Case> cases = {
    {{"tenant"}, 64, "tenant needs a subcommand"},
    {{"tenant", "rename", "x"}, 64, "unknown tenant subcommand rename"},
    {{"tenant", "list", "extra"}, 64, "tenant list takes no arguments"},
    {{"tenant", "remove"}, 64, "tenant remove takes one registration uuid"},
    {{"tenant", "test", "a", "b"}, 64, "tenant test takes one registration uuid"},
    {{"tenant", "add", "--tenant-id", "t.example", "--secret-file", secret_file},
     64,
     "--tenant-id, --client-id and --tenant-email are required"},
    {add_args({"--client-secret", secret}), 64, "the client secret is not taken from the command line"},
    {add_args({"--client-secret=" + secret}), 64, "the client secret is not taken from the command line"},
    {add_args({secret}), 64, "unexpected argument; options take the form --name VALUE"},
    {add_args({"--colour", "blue"}), 64, "unknown option --colour"},
    {add_args({"--ews-endpoint"}), 64, "option --ews-endpoint needs a value"},
    {{"tenant", "add", "--tenant-id", "a/b", "--client-id", Exo_Sim_Process::client_id, "--tenant-email", "a@b"},
     64,
     "the tenant id 'a/b' is neither a directory id nor a domain name"},
    {{"tenant", "add", "--tenant-id", "t.example", "--client-id", "backup-app", "--tenant-email", "a@b"},
     64,
     "the client id 'backup-app' is not an application (client) id, which is a GUID"},
    {{"tenant", "add", "--tenant-id", "t.example", "--client-id", Exo_Sim_Process::client_id, "--tenant-email",
      "admin"},
     64,
     "the tenant email 'admin' is not a mail address"},
    {add_args({"--uuid", "1234"}), 64, "--uuid '1234' is not a uuid"},
    {add_args({"--transport", "soap"}), 64, "unknown transport 'soap'; the known ones are ews and graph"},
    {add_args({"--login-endpoint", "http://login.example.com"}), 64,
     "the login endpoint 'http://login.example.com' must use https (plain http only on loopback)"},
    {add_args({"--graph-endpoint", "graph.microsoft.com"}), 64,
     "the Graph endpoint 'graph.microsoft.com' is not a URL"},
    {add_args({"--ews-endpoint", "https://outlook.office365.com/"}), 64,
     "the EWS endpoint 'https://outlook.office365.com' has no path; give the service URL, such as "
     "https://outlook.office365.com/EWS/Exchange.asmx"},
    {add_args({}), 1, "cannot read the client secret: standard input: no secret given"},
    {add_args({"--secret-file", dir_ + "/absent"}), 1,
     "cannot read the client secret: cannot open " + dir_ + "/absent"},
    {{"tenant", "test", "0b5c8a1e-9f2d-4c3b-8a7e-6d5f4e3c2b1a"},
     1,
     "no tenant registration 0b5c8a1e-9f2d-4c3b-8a7e-6d5f4e3c2b1a"},
    {{"tenant", "remove", "not-a-uuid"}, 1, "no tenant registration not-a-uuid"},
  };
  for (const Case& c : cases)
  {
    const Agent_Outcome o = agent(c.args);
    EXPECT_EQ(o.status, c.status) << c.says << "\n" << o.err;
    EXPECT_NE(o.err.find(c.says), std::string::npos) << o.err;
    EXPECT_TRUE(o.out.empty()) << o.out;
  }
  // Nothing was registered, and a refused command never repeats a secret it was handed.
  EXPECT_NE(::access(registry_.c_str(), F_OK), 0);
  EXPECT_EQ(transcript_.find(secret), std::string::npos) << transcript_;
  Agent_Outcome global = agent({"--client-secret=" + secret, "tenant", "list"});
  EXPECT_EQ(global.status, 64);
  EXPECT_EQ(global.err.find(secret), std::string::npos) << global.err;

  // Without a state directory there is no registry.
  const std::string no_state = write("no-state.json", "{}");
  const Agent_Outcome stateless = Agent_Process({"--config", no_state, "tenant", "list"}, dir_, "stateless").wait();
  EXPECT_EQ(stateless.status, 1);
  EXPECT_NE(stateless.err.find("the tenant registry is kept in the agent's state directory"), std::string::npos)
    << stateless.err;

  // A registry that others may read, or that is damaged, is refused by every subcommand.
  ASSERT_EQ(agent(plus(add_args({}), {"--secret-file", secret_file})).status, 0);
  ASSERT_EQ(::chmod(registry_.c_str(), 0644), 0);
  for (const std::vector<std::string>& args :
       {std::vector<std::string>{"tenant", "list"}, std::vector<std::string>{"tenant", "test", "x"},
        std::vector<std::string>{"tenant", "remove", "x"}, plus(add_args({}), {"--secret-file", secret_file})})
  {
    const Agent_Outcome o = agent(args);
    EXPECT_EQ(o.status, 1) << args[1];
    EXPECT_NE(o.err.find("is accessible by other users; run chmod 600 on it"), std::string::npos) << o.err;
  }
  std::ofstream(registry_) << "{\"format_version\": 1, \"tenants\": {";
  ASSERT_EQ(::chmod(registry_.c_str(), 0600), 0);
  const Agent_Outcome damaged = agent({"tenant", "list"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.err.find("is malformed or of an unknown format version"), std::string::npos) << damaged.err;
}
