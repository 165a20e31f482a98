#include "host/job/job_creator.h"
#include "host/job/object_creator.h"
#include "host/job/yajl_parser.h"

#include <cerrno>
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
  // The job creator and the four parser creators are always there.
  EXPECT_GE(pairs, 5);
}

TEST_F(ModuleLoading, NothingButFactoryPairsIsExported)
{
  // Internal functions of the module stay hidden.
  EXPECT_EQ(dlsym(handle_, "_Z14name_to_methodPKci"), nullptr);
  EXPECT_EQ(dlsym(handle_, "_Z11parse_entryPKcmPNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEES6_S6_"),
            nullptr);
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
