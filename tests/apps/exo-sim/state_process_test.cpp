// State directory save/load, and the program itself: port line on stdout, clean SIGTERM.
#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "apps/exo-sim/base64_codec.h"
#include "sim_harness.h"

extern char** environ;

using namespace exo_sim_test;
using json = nlohmann::ordered_json;

namespace
{

// A fresh directory under /tmp, removed with its contents when the test ends (also on failure).
struct Temp_Dir
{
  std::string path;
  Temp_Dir()
  {
    char tmpl[] = "/tmp/exo-sim-test-XXXXXX";
    const char* dir = mkdtemp(tmpl);
    path = dir ? dir : "";
  }
  ~Temp_Dir()
  {
    if (path.rfind("/tmp/exo-sim-test-", 0) == 0)
      std::system(("rm -rf '" + path + "'").c_str());
  }
};

std::string export_data(Sim_Fixture& sim, const std::string& id)
{
  Soap_Doc d;
  parse_soap(sim.ews(export_items_body({id})).body, d);
  std::string bytes;
  exo_sim::base64_decode(d.first(M, "Data").text().get(), bytes);
  return bytes;
}

// A child exo-sim process with its stdout on a pipe.
struct Child
{
  pid_t pid = -1;
  FILE* out = nullptr;
  std::string first_line;

  bool start(const std::vector<std::string>& args)
  {
    int fds[2];
    if (pipe(fds) != 0)
      return false;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    std::vector<char*> argv;
    std::vector<std::string> all = {EXO_SIM_BINARY};
    all.insert(all.end(), args.begin(), args.end());
    for (auto& a : all)
      argv.push_back(&a[0]);
    argv.push_back(nullptr);
    int rc = posix_spawn(&pid, EXO_SIM_BINARY, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0)
    {
      close(fds[0]);
      pid = -1;
      return false;
    }
    out = fdopen(fds[0], "r");
    char line[256] = {0};
    if (fgets(line, sizeof line, out))
      first_line = line;
    return true;
  }

  int stop()
  {
    int status = -1;
    if (pid > 0)
    {
      kill(pid, SIGTERM);
      waitpid(pid, &status, 0);
      pid = -1;
    }
    if (out)
      fclose(out);
    out = nullptr;
    return status;
  }

  ~Child() { stop(); }
};

}  // namespace

TEST(ExoSimState, SavedStateReloadsCreatedFoldersAndUploads)
{
  Temp_Dir temp;
  const std::string& dir = temp.path;
  ASSERT_FALSE(dir.empty());
  exo_sim::Sim_Options o = tiny_options();
  o.seed = 4242;
  o.state_dir = dir;
  std::string folder, item, data, generated, generated_data;
  {
    Sim_Fixture sim(o);
    Soap_Doc c;
    parse_soap(sim.ews(create_folder_body(distinguished("msgfolderroot"), "Restored \xE2\x9C\x93")).body, c);
    folder = c.first(T, "FolderId").attribute("Id").value();
    ASSERT_FALSE(folder.empty());
    generated = all_item_ids(sim, folder_id_by_name(sim, "Inbox"), 50).at(0);
    generated_data = export_data(sim, generated);
    static const char k_raw[] = "opaque \x00\x01 bytes not made by the simulator";
    data = std::string(k_raw, sizeof k_raw - 1);
    Soap_Doc u;
    parse_soap(sim
                 .ews("<m:UploadItems><m:Items>" + upload_item_xml(folder, exo_sim::base64_encode(data)) +
                      "</m:Items></m:UploadItems>")
                 .body,
               u);
    item = u.first(M, "ItemId").attribute("Id").value();
    ASSERT_FALSE(item.empty());
    Http_Result saved = http_request("POST", sim.base() + "/_sim/save", "", {});
    ASSERT_EQ(saved.status, 200) << saved.body;
  }
  struct stat st;
  ASSERT_EQ(stat((dir + "/state.json").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u) << "the state holds client secrets";

  exo_sim::Sim_Options fresh = tiny_options();  // another seed: the saved one must win
  fresh.seed = 1;
  fresh.state_dir = dir;
  {
    Sim_Fixture sim(fresh);
    EXPECT_EQ(sim.status()["seed"], 4242);
    EXPECT_EQ(folder_id_by_name(sim, "Restored \xE2\x9C\x93"), folder);
    EXPECT_EQ(all_item_ids(sim, folder, 10), std::vector<std::string>{item});
    EXPECT_EQ(export_data(sim, item), data);
    EXPECT_EQ(export_data(sim, generated), generated_data);
    // Ids go on where they stopped: a new upload gets a new id.
    Soap_Doc u;
    parse_soap(sim
                 .ews("<m:UploadItems><m:Items>" + upload_item_xml(folder, exo_sim::base64_encode("x")) +
                      "</m:Items></m:UploadItems>")
                 .body,
               u);
    EXPECT_NE(std::string(u.first(M, "ItemId").attribute("Id").value()), item);
  }
}

TEST(ExoSimState, DamagedStateIsRefused)
{
  Temp_Dir temp;
  const std::string& dir = temp.path;
  ASSERT_FALSE(dir.empty());
  std::ofstream(dir + "/state.json") << "{\"format\": 1, \"seed\": ";
  exo_sim::Sim_Options o = tiny_options();
  o.state_dir = dir;
  exo_sim::Sim_Server server(o, nullptr);
  std::string error;
  EXPECT_FALSE(server.load_state(error));
  EXPECT_FALSE(error.empty());
  exo_sim::Sim_Options none = tiny_options();
  exo_sim::Sim_Server no_dir(none, nullptr);
  EXPECT_FALSE(no_dir.save_state(error)) << "saving needs a state directory";
}

TEST(ExoSimProgram, PrintsPortServesAndStopsCleanlyOnSigterm)
{
  Temp_Dir temp;
  const std::string& dir = temp.path;
  ASSERT_FALSE(dir.empty());
  Child child;
  ASSERT_TRUE(child.start({"--port", "0", "--profile", "tiny", "--state-dir", dir, "--request-log", dir + "/log"}));
  const std::string prefix = "listening on 127.0.0.1:";
  ASSERT_EQ(child.first_line.rfind(prefix, 0), 0u) << child.first_line;
  int port = std::atoi(child.first_line.c_str() + prefix.size());
  ASSERT_GT(port, 0);
  std::string base = "http://127.0.0.1:" + std::to_string(port);
  Http_Result token =
    http_request("POST", base + "/" + std::string(k_tenant_id) + "/oauth2/v2.0/token",
                 std::string("client_id=") + k_client_id + "&client_secret=" + k_client_secret +
                   "&grant_type=client_credentials&scope=https%3A%2F%2Fgraph.microsoft.com%2F.default",
                 {});
  ASSERT_EQ(token.status, 200) << token.body;
  Http_Result users =
    http_request("GET", base + "/v1.0/users", "",
                 {"Authorization: Bearer " + json::parse(token.body)["access_token"].get<std::string>()});
  EXPECT_EQ(users.status, 200);
  int status = child.stop();
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  struct stat st;
  EXPECT_EQ(stat((dir + "/state.json").c_str(), &st), 0) << "state saved on SIGTERM";
  std::ifstream log(dir + "/log");
  std::string line, all;
  int lines = 0;
  while (std::getline(log, line))
  {
    ++lines;
    all += line;
    auto j = json::parse(line, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << line;
  }
  EXPECT_EQ(lines, 2);
  EXPECT_EQ(all.find(k_client_secret), std::string::npos);
  EXPECT_EQ(all.find(json::parse(token.body)["access_token"].get<std::string>()), std::string::npos);
}

TEST(ExoSimProgram, RejectsUnknownOptions)
{
  Child child;
  ASSERT_TRUE(child.start({"--no-such-flag", "1"}));
  EXPECT_EQ(child.first_line, "");
  int status = -1;
  waitpid(child.pid, &status, 0);
  child.pid = -1;
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 2);
}
