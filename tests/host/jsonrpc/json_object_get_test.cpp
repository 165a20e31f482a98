#include "host/jsonrpc/json_object_get.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace
{
typedef nlohmann::ordered_json json;

const json params = json::parse(R"({
  "s": "text", "empty": "", "i": 42, "neg": -7, "f": 1.5, "whole_float": 5.0, "b": true,
  "big": 5000000000, "huge": 18446744073709551615, "n": null, "arr": [1], "num_str": "12"
})");
}  // namespace

TEST(JsonObjectGet, StringsAreReadOnlyFromStringMembers)
{
  ASSERT_NE(object_get_str(params, "s"), nullptr);
  EXPECT_EQ(*object_get_str(params, "s"), "text");
  ASSERT_NE(object_get_str(params, "empty"), nullptr);
  EXPECT_EQ(*object_get_str(params, "empty"), "");
  for (const char* key : {"i", "b", "n", "arr", "missing"})
    EXPECT_EQ(object_get_str(params, key), nullptr) << key;
  EXPECT_EQ(object_get_str(json::array({"s"}), "s"), nullptr);

  std::string out = "untouched";
  EXPECT_FALSE(object_get_str(params, "i", out));
  EXPECT_EQ(out, "untouched");
  EXPECT_TRUE(object_get_str(params, "s", out));
  EXPECT_EQ(out, "text");
}

TEST(JsonObjectGet, AnyPtrFindsMembersOfEveryType)
{
  EXPECT_NE(object_get_any_ptr(params, "n"), nullptr);
  EXPECT_TRUE(object_get_any_ptr(params, "n")->is_null());
  EXPECT_EQ(object_get_any_ptr(params, "arr"), &params["arr"]);
  EXPECT_EQ(object_get_any_ptr(params, "missing"), nullptr);
  EXPECT_EQ(object_get_any_ptr(json("s"), "s"), nullptr);
}

TEST(JsonObjectGet, IntegersAreTakenOnlyWhenTheyAreWholeJsonIntegersInRange)
{
  EXPECT_EQ(object_get_or_default<int>(params, "i", 100), 42);
  EXPECT_EQ(object_get_or_default<int>(params, "neg", 100), -7);
  for (const char* key : {"f", "whole_float", "b", "big", "huge", "n", "num_str", "missing"})
    EXPECT_EQ(object_get_or_default<int>(params, key, 100), 100) << key;
  EXPECT_EQ(object_get_or_default<int64_t>(params, "big", -1), 5000000000LL);
  EXPECT_EQ(object_get_or_default<int64_t>(params, "huge", -1), -1);
  EXPECT_EQ(object_get_or_default<int64_t>(json{{"m", std::numeric_limits<int64_t>::min()}}, "m", 0),
            std::numeric_limits<int64_t>::min());

  int out = 3;
  EXPECT_FALSE(object_get_int(params, "whole_float", out));
  EXPECT_EQ(out, 3);
  EXPECT_TRUE(object_get_int(params, "neg", out));
  EXPECT_EQ(out, -7);
}

TEST(JsonObjectGet, BooleansAndStringsWithDefaults)
{
  EXPECT_TRUE(object_get_or_default<bool>(params, "b", false));
  EXPECT_FALSE(object_get_or_default<bool>(params, "i", false));
  EXPECT_EQ(object_get_or_default<std::string>(params, "s", "d"), "text");
  EXPECT_EQ(object_get_or_default<std::string>(params, "i", "d"), "d");
}
