// The format layer: field encodings, the writer's block grid and checksums, the
// reader's checks, and what an independent tool (zstd -dc) makes of a data file.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <zstd.h>

#include "host/mtf/mtf_buffer.h"
#include "host/mtf/mtf_format.h"
#include "host/mtf/mtf_fs.h"
#include "host/mtf/mtf_sha256.h"
#include "host/mtf/mtf_verifier.h"
#include "host/mtf/mtf_writer.h"

using namespace MTF_Format;

TEST(MTF_Format, StringsDatesAndPaths)
{
  std::string wide, back;
  ASSERT_TRUE(utf8_to_utf16le("a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80", wide));  // a é 日 😀
  EXPECT_EQ(wide.size(), 2u * 5);                                               // the emoji takes a surrogate pair
  EXPECT_EQ(get16(wide.data() + 6), 0xd83d);
  ASSERT_TRUE(utf16le_to_utf8(wide, back));
  EXPECT_EQ(back, "a\xC3\xA9\xE6\x97\xA5\xF0\x9F\x98\x80");
  EXPECT_FALSE(utf8_to_utf16le("\xC3", wide));                      // cut sequence
  EXPECT_FALSE(utf8_to_utf16le("\xC0\xAF", wide));                  // overlong
  EXPECT_FALSE(utf16le_to_utf8(std::string("\x3d\xd8", 2), back));  // lone surrogate

  char date[5];
  put_date(date, 1700000000);  // 2023-11-14 22:13:20 UTC
  EXPECT_EQ(get_date(date), 1700000000);
  EXPECT_EQ(static_cast<unsigned char>(date[0]), (2023 >> 6) & 0xff);
  put_date(date, 0);
  EXPECT_EQ(get_date(date), 0);

  EXPECT_EQ(MTF_FS::dirname("/a/b", -1, '/'), 2u);
  EXPECT_EQ(MTF_FS::dirname("/a", -1, '/'), 0u);
  EXPECT_EQ(MTF_FS::dirname("/a/b/", -1, '/'), 2u);
  EXPECT_EQ(MTF_FS::dirname("ab", -1, '/'), std::string::npos);
  EXPECT_EQ(MTF_FS::join("/a/", "b", '/'), "/a/b");
  EXPECT_EQ(MTF_FS::join("/a", "b", '/'), "/a/b");
  EXPECT_EQ(MTF_FS::normalize("/a/b//", '/'), "/a/b");
  EXPECT_EQ(MTF_FS::normalize("/", '/'), "/");

  MTF_Sha256 sha;
  EXPECT_EQ(sha.hex(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  sha.update("abc", 3);
  EXPECT_EQ(sha.hex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

// A data file with files of 0 bytes, exactly one block, an odd size and a
// multi-block size, written to memory.
static std::string write_sample(int level, std::vector<MTF_Writer::Location>& where)
{
  std::string out;
  MTF_Writer w(
    [&out](const char* p, size_t n)
    {
      out.append(p, n);
      return true;
    },
    level);
  MTF_Writer::Set_Info info;
  info.set_name = "sample";
  info.when = 1700000000;
  uint32_t root = 0, sub = 0;
  EXPECT_TRUE(w.begin(info));
  EXPECT_TRUE(w.add_directory({}, 0, 0, root));
  EXPECT_TRUE(w.add_directory({"d\xC3\xA9j\xC3\xA0", "sub"}, 1700000000, 0, sub));
  std::vector<std::pair<std::string, std::string>> files = {
    {"empty", ""}, {"one-block", std::string(1024, 'x')}, {"odd", "hello"}, {"big", std::string(5000, 'b')}};
  for (const auto& f : files)
  {
    MTF_Writer::Location loc;
    bool complete = false;
    EXPECT_TRUE(w.begin_file(sub, f.first, 1700000000, 0, f.second.size(), loc));
    EXPECT_TRUE(w.file_data(f.second.data(), f.second.size()));
    EXPECT_TRUE(w.end_file(complete));
    EXPECT_TRUE(complete);
    where.push_back(loc);
  }
  EXPECT_TRUE(w.finish(0));
  EXPECT_FALSE(w.file_data("x", 1));  // out of order: the writer refuses
  return out;
}

static std::function<long long(void*, size_t)> from_string(const std::string& s)
{
  auto pos = std::make_shared<size_t>(0);
  return [&s, pos](void* p, size_t n) -> long long
  {
    size_t k = std::min(n, s.size() - *pos);
    memcpy(p, s.data() + *pos, k);
    *pos += k;
    return static_cast<long long>(k);
  };
}

// A reader's buffer: filled in place or by copy, bounded by max_size, shrunk back
// to its preferred capacity with what it holds kept.
TEST(MTF_Format, BufferGrowsInPlaceAndShrinksBack)
{
  MTF::Buffer buf(8, 20);
  EXPECT_EQ(buf.room(), 8u);
  char* space = buf.extend(6);
  ASSERT_NE(space, nullptr);
  memcpy(space, "abcdef", 6);
  buf.commit(4);  // only what was read counts
  EXPECT_EQ(std::string(buf.data(), buf.size()), "abcd");
  EXPECT_EQ(buf.room(), 4u);
  ASSERT_TRUE(buf.copy("0123456789", 10));  // beyond the capacity, within max_size
  EXPECT_EQ(std::string(buf.data(), buf.size()), "abcd0123456789");
  EXPECT_EQ(buf.room(), 0u);
  EXPECT_EQ(buf.extend(7), nullptr);  // 21 > max_size: nothing changes
  buf.commit(7);
  EXPECT_FALSE(buf.copy("0123456", 7));
  EXPECT_EQ(buf.size(), 14u);
  space = buf.extend(6);
  ASSERT_NE(space, nullptr);
  memcpy(space, "XYZ", 3);
  buf.commit(9);  // no more than was offered
  EXPECT_EQ(buf.size(), 20u);
  buf.clear();
  buf.copy("xy", 2);
  buf.shrink();
  EXPECT_EQ(std::string(buf.data(), buf.size()), "xy");
  EXPECT_EQ(buf.room(), 6u);
}

TEST(MTF_Format, WriterKeepsTheGridAndTheVerifierListsEveryFile)
{
  std::vector<MTF_Writer::Location> where;
  std::string plain = write_sample(0, where);
  ASSERT_EQ(plain.size() % BLOCK_SIZE, 0u);
  EXPECT_EQ(plain.compare(0, 4, "TAPE"), 0);
  EXPECT_EQ(plain.compare(BLOCK_SIZE, 4, "SSET"), 0);
  EXPECT_EQ(plain.compare(2 * BLOCK_SIZE, 4, "VOLB"), 0);
  EXPECT_EQ(plain.compare(plain.size() - BLOCK_SIZE, 4, "ESET"), 0);
  for (const auto& loc : where)
  {
    EXPECT_EQ(loc.offset % BLOCK_SIZE, 0u);
    EXPECT_EQ(plain.compare(loc.offset, 4, "FILE"), 0);
    EXPECT_EQ(xor_checksum(plain.data() + loc.offset, 25), get16(plain.data() + loc.offset + 50));
  }
  // The one-block file's data fills a block of its own after its header part.
  EXPECT_EQ(where[2].offset - where[1].offset, 2 * BLOCK_SIZE);

  MTF_Verifier verifier;
  std::vector<MTF_Verifier::File> files;
  std::vector<std::string> dirs;
  std::string error;
  ASSERT_TRUE(verifier.check_data_file(from_string(plain), false, "sample", files, dirs, error)) << error;
  ASSERT_EQ(files.size(), 4u);
  EXPECT_EQ(dirs, (std::vector<std::string>{"/", "/d\xC3\xA9j\xC3\xA0/sub"}));
  EXPECT_EQ(files[0].path, "/d\xC3\xA9j\xC3\xA0/sub/empty");
  EXPECT_EQ(files[1].length, 1024u);
  EXPECT_EQ(files[2].sha256, "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824");

  // Compressed: independent frames starting at blocks; zstd alone gives back the
  // very same MTF bytes.
  std::vector<MTF_Writer::Location> zwhere;
  std::string packed = write_sample(3, zwhere);
  std::string unpacked(plain.size(), '\0');
  EXPECT_EQ(ZSTD_decompress(&unpacked[0], unpacked.size(), packed.data(), packed.size()), plain.size());
  EXPECT_EQ(unpacked, plain);
  files.clear();
  dirs.clear();
  ASSERT_TRUE(verifier.check_data_file(from_string(packed), true, "sample.zst", files, dirs, error)) << error;
  EXPECT_EQ(files.size(), 4u);
}

TEST(MTF_Format, ReaderRejectsDamageWithTheOffset)
{
  std::vector<MTF_Writer::Location> where;
  std::string good = write_sample(0, where);
  MTF_Verifier verifier;
  std::vector<MTF_Verifier::File> files;
  std::vector<std::string> dirs;
  std::string error;

  std::string bad = good;
  bad[where[2].offset + 30] ^= 1;  // inside the FILE header: checksum no longer fits
  EXPECT_FALSE(verifier.check_data_file(from_string(bad), false, "f", files, dirs, error));
  EXPECT_NE(error.find("offset " + std::to_string(where[2].offset)), std::string::npos) << error;
  EXPECT_NE(error.find("checksum"), std::string::npos) << error;

  bad = good.substr(0, good.size() - 2000);  // cut inside the last file
  files.clear();
  EXPECT_FALSE(verifier.check_data_file(from_string(bad), false, "f", files, dirs, error));
  EXPECT_NE(error.find("ends"), std::string::npos) << error;
  EXPECT_NE(error.find("big"), std::string::npos) << error;  // names the file concerned

  bad = good;  // a stream length that disagrees with the FILE block, checksum fixed
  size_t stan = bad.find("STAN", where[2].offset);
  put64(&bad[stan + 8], 4);
  put16(&bad[stan + 20], xor_checksum(bad.data() + stan, 10));
  files.clear();
  EXPECT_FALSE(verifier.check_data_file(from_string(bad), false, "f", files, dirs, error));
  EXPECT_NE(error.find("odd"), std::string::npos) << error;

  bad = good + std::string(1024, '\0');  // something after the ESET
  files.clear();
  EXPECT_FALSE(verifier.check_data_file(from_string(bad), false, "f", files, dirs, error));
  EXPECT_NE(error.find("after the ESET"), std::string::npos) << error;
}

TEST(MTF_Format, ZstdCommandLineReadsACompressedDataFile)
{
  std::vector<MTF_Writer::Location> where;
  std::string plain = write_sample(0, where);
  std::string packed = write_sample(5, where);
  char tmpl[] = "/tmp/mtf_zstd_XXXXXX";
  int fd = mkstemp(tmpl);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(write(fd, packed.data(), packed.size()), static_cast<ssize_t>(packed.size()));
  close(fd);
  std::string command = std::string("zstd -q -dc ") + tmpl + " > " + tmpl + ".out";
  ASSERT_EQ(system(command.c_str()), 0);
  std::ifstream in(std::string(tmpl) + ".out", std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  EXPECT_EQ(s.str(), plain);
  unlink(tmpl);
  unlink((std::string(tmpl) + ".out").c_str());
}
