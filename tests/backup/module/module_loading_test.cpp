#include "host/job/instance_handler.h"
#include "host/job/job_creator.h"
#include "host/jsonrpc/json_rpc_dispatcher.h"
#include "host/jsonrpc/json_rpc_handler.h"
#include "host/job/object_creator.h"
#include "host/job/yajl_parser.h"

#include <cerrno>
#include <cstdio>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace
{
typedef void (*Gobble)(void*);
typedef void* (*Make)(Gobble*);

const char* const all_names[] = {
  "Exchange_Job_Creator",
  "Exchange_Backup_Job_Options_Parser_Creator",
  "Exchange_Backup_Job_Source_Parser_Creator",
  "Exchange_Restore_Job_Options_Parser_Creator",
  "Exchange_Restore_Job_Source_Parser_Creator",
  "Exchange_Instance_Handler",
  "JSON_RPC_Exchange_Online_Test_Handler",
  "JSON_RPC_Exchange_Online_List_Handler",
  "JSON_RPC_Exchange_Online_List_Folder_Handler",
  "JSON_RPC_Exchange_Online_List_Backupset_Handler",
};

class ModuleLoading : public ::testing::Test
{
protected:
  void SetUp() override
  {
    handle_ = dlopen(EXCHANGE_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override
  {
    if (handle_ != nullptr)
      dlclose(handle_);
  }
  Make make(const std::string& name) { return reinterpret_cast<Make>(dlsym(handle_, ("_make_" + name).c_str())); }
  Gobble gobble(const std::string& name)
  {
    return reinterpret_cast<Gobble>(dlsym(handle_, ("_gobble_" + name).c_str()));
  }

  void* handle_ = nullptr;
};

Job_Definition_var definition(Job_Definition_Type type)
{
  Job_Definition_var def(new Job_Definition());
  def->type(type);
  def->id("module-test");
  def->uid("6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d");
  return def;
}
}  // namespace

TEST_F(ModuleLoading, EveryExportedPairMakesAndGobbles)
{
  int pairs = 0;
  for (const char* name : all_names)
  {
    Make m = make(name);
    Gobble g = gobble(name);
    ASSERT_EQ(m == nullptr, g == nullptr) << name << ": a make without its gobble or the reverse";
    if (m == nullptr)
      continue;
    ++pairs;
    Gobble handed = nullptr;
    void* object = m(&handed);
    ASSERT_NE(object, nullptr) << name;
    EXPECT_EQ(handed, g) << name;
    handed(object);

    void* quiet = m(nullptr);  // a null out-pointer is allowed
    ASSERT_NE(quiet, nullptr) << name;
    g(quiet);
    g(nullptr);  // and so is a null object
  }
  EXPECT_EQ(pairs, static_cast<int>(std::size(all_names)));
}

// The symbols the module's dynamic symbol table defines, as `nm -D` lists them.
std::set<std::string> defined_dynamic_symbols(const char* path)
{
  std::set<std::string> names;
  const std::string command = std::string("nm -D --defined-only '") + path + "'";
  FILE* out = popen(command.c_str(), "r");
  if (out == nullptr)
    return names;
  char line[4096];
  while (fgets(line, sizeof line, out) != nullptr)
  {
    // "<address> <type> <name>[@version]"
    std::istringstream fields(line);
    std::string address, type, name;
    if (fields >> address >> type >> name)
      names.insert(name.substr(0, name.find('@')));
  }
  EXPECT_EQ(pclose(out), 0) << command;
  return names;
}

TEST_F(ModuleLoading, NothingButTheTenFactoryPairsIsExported)
{
  std::set<std::string> expected;
  for (const char* name : all_names)
  {
    expected.insert(std::string("_make_") + name);
    expected.insert(std::string("_gobble_") + name);
  }
  EXPECT_EQ(defined_dynamic_symbols(EXCHANGE_MODULE_PATH), expected);
}

TEST_F(ModuleLoading, JobCreatorMakesBackupAndRestoreJobsOnly)
{
  Gobble g = nullptr;
  Job_Creator* creator = static_cast<Job_Creator*>(make("Exchange_Job_Creator")(&g));
  ASSERT_NE(creator, nullptr);
  {
    Job_var backup = creator->create(definition(JOB_DEFINITION_BACKUP));
    Job_var restore = creator->create(definition(JOB_DEFINITION_RESTORE));
    EXPECT_NE(backup.get(), nullptr);
    EXPECT_NE(restore.get(), nullptr);
    errno = EBADF;
    EXPECT_EQ(creator->create(definition(JOB_DEFINITION_NONE)).get(), nullptr);
    EXPECT_EQ(creator->create(definition(JOB_DEFINITION_STANDBY)).get(), nullptr);
    EXPECT_EQ(errno, EBADF);
  }
  g(creator);
}

TEST_F(ModuleLoading, ParserCreatorsMakeFreshParsersOfTheRightKind)
{
  Gobble g = nullptr;
  auto* creator = static_cast<Object_Creator_T<YAJL_Handler>*>(make("Exchange_Backup_Job_Source_Parser_Creator")(&g));
  ASSERT_NE(creator, nullptr);
  YAJL_Handler* a = creator->create();
  YAJL_Handler* b = creator->create();
  ASSERT_NE(a, b);
  auto* parser = dynamic_cast<YAJL_Parser<Job_Source>*>(a);
  ASSERT_NE(parser, nullptr);
  ASSERT_EQ(a->parse(std::string("{\"id\":\"t\",\"entries\":[\"exchange://t/m\"]}")), 0);
  EXPECT_EQ(parser->result()->id(), "t");
  creator->destroy(a);
  creator->destroy(b);
  g(creator);
}

TEST_F(ModuleLoading, InstanceHandlerReportsTheProxyInstance)
{
  Gobble g = nullptr;
  Instance_Handler* handler = static_cast<Instance_Handler*>(make("Exchange_Instance_Handler")(&g));
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->type(), "exchange");
  Instance_Handler::instances_type instances;
  EXPECT_EQ(handler->probe_instances(instances), 0);
  ASSERT_EQ(instances.count("Exchange_Online_Proxy"), 1u);
  EXPECT_EQ(instances["Exchange_Online_Proxy"]->to_json().dump(),
            R"({"type":"exchange","name":"Exchange_Online_Proxy","uuid":"","options":{"is_proxy":true}})");
  g(handler);
}

TEST_F(ModuleLoading, DispatcherRunsTheModulesHandlersByMethodName)
{
  JSON_RPC_Dispatcher::Method_Table methods;
  const Make list_folders = make("JSON_RPC_Exchange_Online_List_Folder_Handler");
  ASSERT_NE(list_folders, nullptr);
  methods["exchange.list_folders"] = [list_folders](void (**release)(void*))
  { return static_cast<JSON_RPC_Handler*>(list_folders(release)); };
  const JSON_RPC_Dispatcher dispatcher(methods);
  const nlohmann::ordered_json replies = nlohmann::ordered_json::parse(dispatcher.dispatch(R"([
    {"jsonrpc": "2.0", "method": "exchange.list_folders", "params": {"mailbox": "m"}, "id": 1},
    {"jsonrpc": "2.0", "method": "exchange.browse_set", "params": {}, "id": 2}])"));
  ASSERT_EQ(replies.size(), 2u) << replies.dump();
  EXPECT_EQ(replies[0]["error"]["message"], "Invalid params: 'uuid' is expected as string in params.");
  EXPECT_EQ(replies[1]["error"]["code"], -32601);
}
