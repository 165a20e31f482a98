#include <gtest/gtest.h>

#include <chrono>
#include <unistd.h>

#include "host/storage/client_io_ex.h"
#include "host/base/rate_controller.h"

static double seconds_since(std::chrono::steady_clock::time_point start)
{
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(Rate_Controller, PicksTheWindowOfTheTimeOfDay)
{
  Rate_Controller rc({{8 * 3600, 18 * 3600, 1000}, {22 * 3600, 6 * 3600, 5000}, {0, 86400, 1}});
  EXPECT_EQ(rc.limit_at(8 * 3600), 1000u);
  EXPECT_EQ(rc.limit_at(18 * 3600 - 1), 1000u);
  EXPECT_EQ(rc.limit_at(23 * 3600), 5000u);  // wraps over midnight
  EXPECT_EQ(rc.limit_at(3 * 3600), 5000u);
  EXPECT_EQ(rc.limit_at(6 * 3600), 1u);  // end is exclusive: the catch-all applies
  Rate_Controller none({{8 * 3600, 9 * 3600, 1000}});
  EXPECT_EQ(none.limit_at(10 * 3600), 0u);
  EXPECT_EQ(Rate_Controller().limit_at(0), 0u);
}

TEST(Rate_Controller, ThrottleKeepsToTheLimit)
{
  Rate_Controller rc({{0, 86400, 400000}});
  auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < 10; ++i)
    rc.throttle(40000);
  EXPECT_GE(seconds_since(start), 0.95);
}

TEST(Rate_Controller, FileClientTransferKeepsToItsLimit)
{
  char tmpl[] = "/tmp/rate_test_XXXXXX";
  std::string dir = mkdtemp(tmpl);
  Client_IO_Base::Options options;
  options.rate_control_entries = {{0, 86400, 1024 * 1024}};
  Client_IO_Ex io;
  ASSERT_TRUE(io.open("file://" + dir, options)) << io.last_error();
  std::string payload(1536 * 1024, 'r');
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(io.put_contents("limited", payload, true)) << io.last_error();
  EXPECT_GE(seconds_since(start), 1.45);
  std::string back;
  start = std::chrono::steady_clock::now();
  ASSERT_TRUE(io.get_contents("limited", back));
  EXPECT_GE(seconds_since(start), 1.45);
  EXPECT_EQ(back, payload);
  std::string command = "rm -rf '" + dir + "'";
  ASSERT_EQ(system(command.c_str()), 0);
}
