#include "apps/backup-agent/flag_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
struct Flags
{
  bool help = false;
  bool json = false;
  std::string set;
  std::vector<std::string> mailboxes;
  int channels = 4;
  std::string compression = "zstd";

  bool read(const std::vector<std::string>& args, std::string& error)
  {
    return Flag_Reader(help)
      .flag("--json", json)
      .value("--set", set)
      .values("--mailbox", mailboxes)
      .number("--channels", channels, 1, 64)
      .choice("--compression", compression, {"none", "zstd", "lz4"})
      .read(args, error);
  }
};
}  // namespace

TEST(Flag_Reader, ReadsEachKindOfFlagAndRefusesWhatItDoesNotKnow)
{
  Flags f;
  std::string error;
  ASSERT_TRUE(f.read({"--mailbox", "a@x", "--set", "s1", "--json", "--mailbox", "b@x", "--set", "s2", "--channels",
                      "64", "--compression", "none"},
                     error))
    << error;
  EXPECT_TRUE(f.json);
  EXPECT_FALSE(f.help);
  EXPECT_EQ(f.set, "s2");  // the last value counts
  EXPECT_EQ(f.mailboxes, (std::vector<std::string>{"a@x", "b@x"}));
  EXPECT_EQ(f.channels, 64);
  EXPECT_EQ(f.compression, "none");

  Flags h;
  EXPECT_TRUE(h.read({"-h"}, error));
  EXPECT_TRUE(h.help);
  Flags empty;
  EXPECT_TRUE(empty.read({}, error));
  EXPECT_EQ(empty.channels, 4);

  const struct
  {
    std::vector<std::string> args;
    std::string error;
  } refused[] = {
    {{"--set"}, "--set needs a value"},
    {{"--json", "--mailbox"}, "--mailbox needs a value"},
    {{"--channels", "0"}, "--channels takes a number from 1 to 64"},
    {{"--channels", "65"}, "--channels takes a number from 1 to 64"},
    {{"--channels", "4x"}, "--channels takes a number from 1 to 64"},
    {{"--channels", ""}, "--channels takes a number from 1 to 64"},
    {{"--compression", "lzop"}, "--compression takes none, zstd or lz4"},
    {{"stray"}, "unexpected argument stray"},
    {{"--secret=hunter2"}, "unexpected argument --secret"},
    {{"--Json"}, "unexpected argument --Json"},
  };
  for (const auto& r : refused)
  {
    Flags g;
    std::string text;
    EXPECT_FALSE(g.read(r.args, text)) << r.error;
    EXPECT_EQ(text, r.error);
  }
}
