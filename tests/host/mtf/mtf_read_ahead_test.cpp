#include "host/mtf/mtf_read_ahead.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

namespace
{
// Files of the given sizes, and the bytes each holds (byte i of file f is
// (f * 31 + i) % 251, so a piece out of place shows).
struct Files
{
  explicit Files(const std::vector<uint64_t>& sizes)
  {
    entries.resize(sizes.size());
    for (size_t f = 0; f < sizes.size(); ++f)
    {
      entries[f].path = "/m/f" + std::to_string(f);
      entries[f].length = sizes[f];
    }
  }

  static std::string bytes(size_t f, uint64_t from, uint64_t len)
  {
    std::string out;
    for (uint64_t i = from; i < from + len; ++i)
      out += static_cast<char>((f * 31 + i) % 251);
    return out;
  }

  size_t index(const MTF_Set_Catalog::Entry& e) const { return static_cast<size_t>(&e - entries.data()); }

  // Hands out the files in order.
  MTF_Read_Ahead::Next_File next()
  {
    return [this](const MTF_Set_Catalog::Entry*& e)
    {
      size_t at = handed++;
      if (at >= entries.size())
        return false;
      e = &entries[at];
      return true;
    };
  }

  // Reads a file in pieces of `piece` bytes.
  static bool read(const Files& files, const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, uint64_t piece)
  {
    uint64_t done = 0;
    do
    {
      uint64_t len = std::min(piece, e.length - done);
      std::string text = bytes(files.index(e), done, len);
      std::vector<char> data(text.begin(), text.end());
      if (!sink.put(data))
        return false;
      done += len;
    } while (done < e.length);
    return true;
  }

  std::vector<MTF_Set_Catalog::Entry> entries;
  std::atomic<size_t> handed{0};
};

// What the worker side saw of one file.
struct Seen
{
  const MTF_Set_Catalog::Entry* entry = nullptr;
  std::string data;
  bool closed = false;
  bool ok = false;
  std::string error;
};

// Takes every piece, checking that a file's pieces come together, first piece
// first and closing piece last.
std::vector<Seen> take_all(MTF_Read_Ahead& ahead)
{
  std::vector<Seen> seen;
  MTF_Read_Ahead::Piece piece;
  while (ahead.take(piece))
  {
    if (piece.first)
    {
      EXPECT_TRUE(seen.empty() || seen.back().closed) << "a file began inside another";
      seen.push_back(Seen());
      seen.back().entry = piece.entry;
    }
    EXPECT_FALSE(seen.empty());
    if (seen.empty())
      return seen;
    Seen& s = seen.back();
    EXPECT_EQ(s.entry, piece.entry);
    EXPECT_FALSE(s.closed) << "a piece after the file's closing piece";
    if (piece.end)
    {
      EXPECT_TRUE(piece.data.empty());
      s.closed = true;
      s.ok = piece.ok;
      s.error = piece.error;
    }
    else
      s.data.append(piece.data.begin(), piece.data.end());
  }
  return seen;
}
}  // namespace

TEST(MTF_Read_Ahead, HandsEveryFileOnceInOrderWithItsBytes)
{
  // Empty files, one-piece files, files of many pieces and a file whose piece
  // is larger than the whole bound (it still passes, alone).
  Files files({0, 5, 3000, 0, 10000, 1, 70000});
  MTF_Read_Ahead ahead(
    files.next(),
    [&files](const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, std::string&)
    { return Files::read(files, e, sink, e.length > 50000 ? e.length : 1024); },
    4096);
  ahead.start();
  std::vector<Seen> seen = take_all(ahead);
  ahead.stop();
  ASSERT_EQ(seen.size(), files.entries.size());
  for (size_t f = 0; f < seen.size(); ++f)
  {
    EXPECT_EQ(seen[f].entry, &files.entries[f]) << f;
    EXPECT_TRUE(seen[f].closed && seen[f].ok) << f;
    EXPECT_EQ(seen[f].data, Files::bytes(f, 0, files.entries[f].length)) << f;
  }
}

TEST(MTF_Read_Ahead, ReadsOneFileAheadAndHoldsNoMoreThanTheBound)
{
  // The worker has not begun anything: only the first file may be read, and
  // of it only what fits the bound.
  Files files({10 * 1024, 100, 100, 100});
  std::atomic<int> put{0};
  MTF_Read_Ahead ahead(
    files.next(),
    [&](const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, std::string&)
    {
      uint64_t done = 0;
      while (done < e.length)
      {
        std::vector<char> data(std::min<uint64_t>(1024, e.length - done), 'x');
        if (!sink.put(data))
          return false;
        ++put;
        done += 1024;
      }
      return true;
    },
    3 * 1024);
  ahead.start();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LE(put.load(), 3);
  EXPECT_EQ(files.handed.load(), 1u);

  // The worker begins the first file: the second may be read, not the third.
  MTF_Read_Ahead::Piece piece;
  ASSERT_TRUE(ahead.take(piece));
  EXPECT_TRUE(piece.first);
  for (int i = 0; i < 9; ++i)
  {
    ASSERT_TRUE(ahead.take(piece));
    EXPECT_EQ(piece.entry, &files.entries[0]);
  }
  ASSERT_TRUE(ahead.take(piece));
  EXPECT_TRUE(piece.end && piece.ok);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LE(files.handed.load(), 2u);

  std::vector<Seen> rest = take_all(ahead);
  ASSERT_EQ(rest.size(), 3u);
  EXPECT_EQ(rest[2].entry, &files.entries[3]);
  ahead.stop();
}

TEST(MTF_Read_Ahead, AFailedFileAheadIsReportedForItselfAndTheCurrentOneGoesOn)
{
  Files files({3000, 3000, 500});
  std::promise<void> second_failed;
  MTF_Read_Ahead ahead(
    files.next(),
    [&](const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, std::string& error)
    {
      if (files.index(e) != 1)
        return Files::read(files, e, sink, 1000);
      // Half of it, then the set turns out damaged.
      std::string text = Files::bytes(1, 0, 1000);
      std::vector<char> data(text.begin(), text.end());
      sink.put(data);
      error = "damaged at 1000";
      second_failed.set_value();
      return false;
    },
    1 << 20);
  ahead.start();
  // The worker has begun the first file and is busy with it (an upload) while
  // the second one fails.
  MTF_Read_Ahead::Piece piece;
  ASSERT_TRUE(ahead.take(piece));
  ASSERT_EQ(piece.entry, &files.entries[0]);
  ASSERT_EQ(second_failed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  // The first file is still whole.
  std::string first(piece.data.begin(), piece.data.end());
  while (ahead.take(piece) && !piece.end)
  {
    ASSERT_EQ(piece.entry, &files.entries[0]);
    first.append(piece.data.begin(), piece.data.end());
  }
  EXPECT_EQ(piece.entry, &files.entries[0]);
  EXPECT_TRUE(piece.end && piece.ok);
  EXPECT_EQ(first, Files::bytes(0, 0, 3000));
  std::vector<Seen> seen = take_all(ahead);
  ahead.stop();
  ASSERT_EQ(seen.size(), 2u);
  ASSERT_EQ(seen[0].entry, &files.entries[1]);
  EXPECT_EQ(seen[0].data, Files::bytes(1, 0, 1000));
  EXPECT_TRUE(seen[0].closed);
  EXPECT_FALSE(seen[0].ok);
  EXPECT_EQ(seen[0].error, "damaged at 1000");
  EXPECT_EQ(seen[1].entry, &files.entries[2]);
  EXPECT_TRUE(seen[1].ok);
  EXPECT_EQ(seen[1].data, Files::bytes(2, 0, 500));
}

TEST(MTF_Read_Ahead, AFileThatFailsBeforeItsDataIsClosedWithoutData)
{
  Files files({3000, 3000});
  std::promise<void> second_failed;
  MTF_Read_Ahead ahead(
    files.next(),
    [&](const MTF_Set_Catalog::Entry& e, MTF_Read_Ahead::Sink& sink, std::string& error)
    {
      if (files.index(e) == 0)
        return Files::read(files, e, sink, 1000);
      error = "cannot open";
      second_failed.set_value();
      return false;
    },
    1 << 20);
  ahead.start();
  MTF_Read_Ahead::Piece piece;
  ASSERT_TRUE(ahead.take(piece));
  std::string data(piece.data.begin(), piece.data.end());
  ASSERT_EQ(second_failed.get_future().wait_for(std::chrono::seconds(30)), std::future_status::ready);
  for (;;)
  {
    ASSERT_TRUE(ahead.take(piece));
    ASSERT_EQ(piece.entry, &files.entries[0]);
    if (piece.end)
      break;
    data.append(piece.data.begin(), piece.data.end());
  }
  EXPECT_TRUE(piece.ok);
  EXPECT_EQ(data, Files::bytes(0, 0, 3000));
  // The failed file has no data piece: its closing piece is its first.
  ASSERT_TRUE(ahead.take(piece));
  EXPECT_EQ(piece.entry, &files.entries[1]);
  EXPECT_TRUE(piece.first && piece.end);
  EXPECT_FALSE(piece.ok);
  EXPECT_EQ(piece.error, "cannot open");
  EXPECT_FALSE(ahead.take(piece));
  ahead.stop();
}

TEST(MTF_Read_Ahead, StopEndsTheReaderAndTheTaker)
{
  // An endless file: the reader is always either reading or waiting for room.
  MTF_Set_Catalog::Entry endless;
  endless.length = ~0ull;
  std::atomic<bool> handed{false};
  std::atomic<bool> reader_gave_up{false};
  std::atomic<int> hook_calls{0};
  MTF_Read_Ahead ahead(
    [&](const MTF_Set_Catalog::Entry*& e)
    {
      if (handed.exchange(true))
        return false;
      e = &endless;
      return true;
    },
    [&](const MTF_Set_Catalog::Entry&, MTF_Read_Ahead::Sink& sink, std::string&)
    {
      for (;;)
      {
        std::vector<char> data(100, 'y');
        if (!sink.put(data))
        {
          reader_gave_up = true;
          return false;
        }
      }
    },
    1000);
  ahead.start([&](bool) { ++hook_calls; });
  std::atomic<int> taken{0};
  std::atomic<bool> taker_done{false};
  std::thread taker(
    [&]
    {
      MTF_Read_Ahead::Piece piece;
      while (ahead.take(piece))
        ++taken;
      taker_done = true;
    });
  while (taken.load() < 50)
    std::this_thread::yield();
  ahead.stop();
  taker.join();
  EXPECT_TRUE(reader_gave_up.load());
  EXPECT_TRUE(taker_done.load());
  EXPECT_EQ(hook_calls.load(), 2);  // the reading thread ran its hook at its start and end
  MTF_Read_Ahead::Piece piece;
  EXPECT_FALSE(ahead.take(piece));
}
