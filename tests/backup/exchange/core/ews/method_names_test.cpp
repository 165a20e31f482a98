#include "backup/exchange/core/ews/key_value.h"
#include "backup/exchange/core/ews/method_names.h"

#include <gtest/gtest.h>

TEST(MethodNames, NameToMethodComparesExactLengthAndCase)
{
  EXPECT_EQ(name_to_method("ews", 0), EXCHANGE_BACKUP_METHOD_EWS);
  EXPECT_EQ(name_to_method("vss", 0), EXCHANGE_BACKUP_METHOD_VSS);
  EXPECT_EQ(name_to_method("streaming", 0), EXCHANGE_BACKUP_METHOD_STREAMING);
  EXPECT_EQ(name_to_method("mapi", 4), EXCHANGE_BACKUP_METHOD_MAPI);
  // Only the given length is compared.
  EXPECT_EQ(name_to_method("ewsx", 3), EXCHANGE_BACKUP_METHOD_EWS);
  EXPECT_EQ(name_to_method("ewsx", 0), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(name_to_method("VSS", 0), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(name_to_method("EWS", 0), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(name_to_method(nullptr, 0), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(name_to_method(nullptr, 3), EXCHANGE_BACKUP_METHOD_NONE);
  EXPECT_EQ(name_to_method("", 0), EXCHANGE_BACKUP_METHOD_NONE);
}

TEST(MethodNames, MethodToNameRoundTripsAndMissesAreNull)
{
  for (Exchange_Backup_Method m : {EXCHANGE_BACKUP_METHOD_VSS, EXCHANGE_BACKUP_METHOD_STREAMING,
                                   EXCHANGE_BACKUP_METHOD_MAPI, EXCHANGE_BACKUP_METHOD_EWS})
  {
    const char* name = method_to_name(m);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name_to_method(name, 0), m);
  }
  EXPECT_EQ(method_to_name(EXCHANGE_BACKUP_METHOD_NONE), nullptr);
  EXPECT_EQ(method_to_name(static_cast<Exchange_Backup_Method>(7)), nullptr);
}

TEST(KeyValue, LookupReturnsFirstMatchOrTerminator)
{
  const Key2_Value_T<unsigned int> table[] = {
    {"id", 2, 1}, {"catalog_id", 10, 4}, {"catalog_uuid", 12, 4}, {"id", 2, 99}, {nullptr, 0, 0}};
  EXPECT_EQ(get_key_value_entry(table, "id", 2)->value, 1u);
  EXPECT_EQ(get_key_value_entry(table, "catalog_uuid", 12)->value, 4u);
  EXPECT_EQ(get_key_value_entry(table, "ID", 2)->key, nullptr);
  EXPECT_EQ(get_key_value_entry(table, "i", 1)->value, 0u);
  EXPECT_EQ(get_key_value_entry(table, nullptr, 2)->key, nullptr);
  EXPECT_STREQ(get_key_value_entry(table, 4u)->key, "catalog_id");
  EXPECT_EQ(get_key_value_entry(table, 5u)->key, nullptr);
}
