#include "host/base/uuid.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <thread>
#include <vector>

TEST(Uuid, ParsesFormatsAndGenerates)
{
  unsigned char bytes[16];
  ASSERT_EQ(uuid_string_to_binary("6F1C2B7E-3d4a-4f5b-9c8d-1e2f3a4b5c6d", bytes), 0);
  EXPECT_EQ(bytes[0], 0x6f);
  EXPECT_EQ(uuid_binary_to_string(bytes), "6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6d");
  for (const char* bad : {"", "6f1c2b7e3d4a4f5b9c8d1e2f3a4b5c6d", "6f1c2b7e-3d4a-4f5b-9c8d-1e2f3a4b5c6g",
                          "6f1c2b7e-3d4a-4f5b-9c8d1-e2f3a4b5c6d"})
  {
    EXPECT_EQ(uuid_string_to_binary(bad, bytes), -1) << bad;
    EXPECT_EQ(bytes[0], 0);
  }
  EXPECT_EQ(uuid_string_to_binary(nullptr, bytes), -1);
  const std::string a = uuid_generate_string(), b = uuid_generate_string();
  EXPECT_NE(a, b);
  ASSERT_EQ(uuid_string_to_binary(a.c_str(), bytes), 0);
  EXPECT_EQ(bytes[6] >> 4, 4);  // version 4
  EXPECT_EQ(bytes[8] >> 6, 2);  // RFC 4122 variant
}

// Set uuids make catalog commits idempotent: threads that start at the same instant
// must never draw the same one (a time-seeded generator per thread would).
TEST(Uuid, ThreadsStartedTogetherDrawDistinctUuids)
{
  constexpr int threads = 8, per_thread = 2000;
  std::vector<std::vector<std::string>> drawn(threads);
  std::vector<std::thread> workers;
  for (int t = 0; t < threads; ++t)
    workers.emplace_back(
      [&drawn, t]
      {
        for (int i = 0; i < per_thread; ++i)
          drawn[t].push_back(uuid_generate_string());
      });
  for (std::thread& w : workers)
    w.join();
  std::set<std::string> all;
  for (const auto& d : drawn)
    all.insert(d.begin(), d.end());
  EXPECT_EQ(all.size(), static_cast<size_t>(threads * per_thread));
}
