#include "backup/exchange/job/exchange_restore_job_source_parser.h"
#include "host/job/job_options.h"
#include "host/job/object_creator.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace
{
struct Result
{
  int rc;
  int err;
  Job_Source_var source;
  Exchange_Restore_Job_Source* get() const { return static_cast<Exchange_Restore_Job_Source*>(source.get()); }
};

Result parse_source(const std::string& json)
{
  Exchange_Restore_Job_Source_Parser parser;
  const int rc = parser.parse(json);
  return Result{rc, parser.err(), parser.result()};
}

const char* const full_source =
  "{\"id\":\"tenant-1\",\"name\":\"Tenant\",\"catalog_id\":\"c-1\",\"original\":\"exchange://t/a\","
  "\"restore_as\":\"exchange://t/b\",\"storages\":[\"s1\",\"s2\"]}";
}  // namespace

TEST(RestoreJobSource, ParsesAndRoundTrips)
{
  Result r = parse_source(full_source);
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.get()->id(), "tenant-1");
  EXPECT_EQ(r.get()->name(), "Tenant");
  EXPECT_EQ(r.get()->catalog_id(), "c-1");
  EXPECT_EQ(r.get()->original(), "exchange://t/a");
  EXPECT_EQ(r.get()->restore_as(), "exchange://t/b");
  EXPECT_EQ(r.get()->storages(), (Exchange_Restore_Job_Source::Storages{"s1", "s2"}));
  EXPECT_EQ(generate_json(*r.get()), full_source);
}

TEST(RestoreJobSource, CatalogUuidIsTheOtherSpellingOfCatalogId)
{
  Result r = parse_source("{\"id\":\"t\",\"catalog_uuid\":\"c-2\",\"restore_as\":\"x\"}");
  ASSERT_EQ(r.rc, 0);
  EXPECT_EQ(r.get()->catalog_id(), "c-2");
  const std::string generated = generate_json(*r.get());
  EXPECT_NE(generated.find("\"catalog_id\":\"c-2\""), std::string::npos);
  EXPECT_EQ(generated.find("catalog_uuid"), std::string::npos);
  // Without a name the key is left out; the array is written even when empty.
  EXPECT_EQ(generated, "{\"id\":\"t\",\"catalog_id\":\"c-2\",\"original\":\"\",\"restore_as\":\"x\",\"storages\":[]}");
}

TEST(RestoreJobSource, MissingRequiredKeysAreLoggedInOrder)
{
  Log_Capture log;
  Result r = parse_source("{\"name\":\"n\",\"catalog_id\":\"c\"}");
  EXPECT_NE(r.rc, 0);
  EXPECT_EQ(r.err, 7);
  const std::vector<std::string> lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("Failed to parse job definition source, lack of 'id'.\n"), std::string::npos);
  EXPECT_NE(lines[1].find("Failed to parse job definition source, lack of 'restore_as'.\n"), std::string::npos);

  Log_Capture all_missing;
  EXPECT_EQ(parse_source("{}").err, 7);
  EXPECT_EQ(all_missing.count("lack of"), 3u);
  EXPECT_TRUE(all_missing.contains("lack of 'catalog_id'"));
}

TEST(RestoreJobSource, StoragesAndNestedValues)
{
  Result empty = parse_source("{\"id\":\"t\",\"catalog_id\":\"c\",\"restore_as\":\"x\",\"storages\":[]}");
  ASSERT_EQ(empty.rc, 0);
  EXPECT_TRUE(empty.get()->storages().empty());

  Result as_string = parse_source("{\"id\":\"t\",\"catalog_id\":\"c\",\"restore_as\":\"x\",\"storages\":\"s\"}");
  EXPECT_NE(as_string.rc, 0);
  EXPECT_EQ(as_string.err, 9);

  Result unknown_array =
    parse_source("{\"id\":\"t\",\"catalog_id\":\"c\",\"restore_as\":\"x\",\"other\":[\"s\"],\"more\":{\"k\":\"v\"}}");
  ASSERT_EQ(unknown_array.rc, 0);
  EXPECT_TRUE(unknown_array.get()->storages().empty());

  Result nested_known = parse_source("{\"id\":{\"k\":\"v\"},\"catalog_id\":\"c\",\"restore_as\":\"x\"}");
  EXPECT_EQ(nested_known.err, 9);

  Result too_deep = parse_source("{\"id\":\"t\",\"catalog_id\":\"c\",\"restore_as\":\"x\",\"storages\":[[\"s\"]]}");
  EXPECT_EQ(too_deep.err, 9);
}

TEST(RestoreJobSource, EachCreatedParserIsFresh)
{
  Object_Creator_Impl_T<Object_Creator_T<YAJL_Handler>, Exchange_Restore_Job_Source_Parser> creator;
  YAJL_Handler* first = creator.create();
  YAJL_Handler* second = creator.create();
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, first);
  ASSERT_EQ(first->parse(std::string(full_source)), 0);
  ASSERT_EQ(second->parse(std::string("{\"id\":\"other\",\"catalog_id\":\"c\",\"restore_as\":\"x\"}")), 0);
  Job_Source_var a = static_cast<YAJL_Parser<Job_Source>*>(first)->result();
  Job_Source_var b = static_cast<YAJL_Parser<Job_Source>*>(second)->result();
  EXPECT_EQ(a->id(), "tenant-1");
  EXPECT_EQ(b->id(), "other");
  creator.destroy(first);
  creator.destroy(second);
  creator.destroy(nullptr);
}
