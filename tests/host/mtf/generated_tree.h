#ifndef TESTS_HOST_MTF_GENERATED_TREE_H
#define TESTS_HOST_MTF_GENERATED_TREE_H

// Test callbacks over files that exist nowhere on disk: the backup reads bytes
// computed from (file seed, offset), and the restore compares what it is given
// with the same computation instead of writing it. A set of hundreds of MiB is
// thus stored once, in the pool, and checked byte by byte.

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "host/mtf/mtf_backup_callback_factory.h"
#include "host/mtf/mtf_restore_callback_factory.h"

// The bytes of a generated file: word i (8 bytes, little-endian) is a mix of the
// seed and i, so any range can be produced or checked without the rest.
inline void generated_bytes(uint64_t seed, uint64_t offset, char* out, size_t len)
{
  while (len > 0)
  {
    uint64_t word = offset / 8;
    uint64_t z = seed * 0x9E3779B97F4A7C15ull + word;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    z ^= z >> 31;
    size_t at = static_cast<size_t>(offset % 8);
    size_t n = std::min(len, 8 - at);
    for (size_t k = 0; k < n; ++k)
      out[k] = static_cast<char>(z >> (8 * (at + k)));
    out += n;
    offset += n;
    len -= n;
  }
}

// Files of one directory "/gen": name -> (size, seed).
struct Generated_Tree
{
  std::map<std::string, std::pair<uint64_t, uint64_t>> files;
  uint64_t seed_of(const std::string& path) const
  {
    auto it = files.find(path.substr(path.rfind('/') + 1));
    return it == files.end() ? 0 : it->second.second;
  }
};

class Generated_File_Reader : public MTF::IFile_Reader
{
public:
  explicit Generated_File_Reader(const Generated_Tree& tree) : tree_(tree) {}
  MTF::Error_Code open(const char* path) override
  {
    std::string p(path);
    auto it = tree_.files.find(p.substr(p.rfind('/') + 1));
    if (it == tree_.files.end())
      return MTF::E_FAILED;
    size_ = it->second.first;
    seed_ = it->second.second;
    open_ = true;
    return MTF::E_OK;
  }
  bool is_open() override { return open_; }
  MTF::Error_Code read(MTF::Buffer& buf) override
  {
    size_t n = static_cast<size_t>(std::min<uint64_t>(buf.room(), size_ - done_));
    char* space = buf.extend(n);
    if (space == nullptr)
      return MTF::E_FAILED;
    generated_bytes(seed_, done_, space, n);
    buf.commit(n);
    done_ += n;
    return MTF::E_OK;
  }
  MTF::Error_Code close() override
  {
    open_ = false;
    return MTF::E_OK;
  }
  bool handle_file_blk(MTF::File_Blk& blk, ACE_UINT64& size) override
  {
    blk.set_size(size_);
    size = size_;
    return true;
  }

private:
  const Generated_Tree& tree_;
  uint64_t size_ = 0;
  uint64_t seed_ = 0;
  uint64_t done_ = 0;
  bool open_ = false;
};

class Generated_Backup_Callback : public MTF::IBackup_Callback
{
public:
  explicit Generated_Backup_Callback(const Generated_Tree& tree) : tree_(tree) {}
  char directory_separator() override { return '/'; }
  bool lstat(const char* path, MTF::Callback_Stat& st) override
  {
    st.reset();
    if (std::string(path) != "/gen")
      return false;
    st.mode = S_IFDIR | 0755;
    return true;
  }
  ssize_t readlink(const char*, char*, size_t) override { return -1; }
  MTF::IFile_Reader_var make_file_reader() override { return std::make_shared<Generated_File_Reader>(tree_); }
  MTF::ISrc_Lister_var make_source_lister() override { return MTF::ISrc_Lister_var(); }
  bool read_dirs(const char* path, std::list<MTF::Directory_Entry>& out) override
  {
    if (std::string(path) != "/gen")
      return false;
    for (const auto& f : tree_.files)
    {
      MTF::Directory_Entry e;
      e.name = f.first;
      e.stat.st_mode = S_IFREG | 0644;
      e.stat.st_size = static_cast<off_t>(f.second.first);
      out.push_back(e);
    }
    return true;
  }
  bool handle_source_entry_begin(const MTF::source_entry&) override { return true; }
  bool handle_source_entry_end(const MTF::source_entry&, bool) override { return true; }
  bool handle_source_produce_end() override { return true; }
  uint64_t file_count_one_percent() override { return 1; }
  int max_file_count_percent() override { return 99; }

private:
  const Generated_Tree& tree_;
};

class Generated_Backup_Factory : public MTF::IBackup_Callback_Factory
{
public:
  Generated_Tree tree;
  MTF::IBackup_Callback_var make() override { return std::make_shared<Generated_Backup_Callback>(tree); }
};

// What a checking restore saw: per path, the bytes that matched the generator
// and whether the writer got all of them; mismatches are counted.
struct Check_Record
{
  std::mutex lock;
  std::map<std::string, uint64_t> matched;
  std::atomic<int> mismatches{0};
};

class Checking_File_Writer : public MTF::File_Writer_Base
{
public:
  Checking_File_Writer(const Generated_Tree& tree, Check_Record& record) : tree_(tree), record_(record) {}
  ~Checking_File_Writer() override
  {
    std::lock_guard<std::mutex> guard(record_.lock);
    record_.matched[path_] = done_;
  }
  MTF::Error_Code open(const char* path, ACE_UINT64) override
  {
    path_ = path;
    seed_ = tree_.seed_of(path_);
    return MTF::E_OK;
  }
  MTF::Error_Code write(const char* data, size_t size) override
  {
    expect_.resize(size);
    generated_bytes(seed_, done_, expect_.data(), size);
    if (size > 0 && memcmp(expect_.data(), data, size) != 0)
    {
      ++record_.mismatches;
      return MTF::E_FAILED;
    }
    done_ += size;
    return MTF::E_OK;
  }

private:
  const Generated_Tree& tree_;
  Check_Record& record_;
  std::string path_;
  uint64_t seed_ = 0;
  uint64_t done_ = 0;
  std::vector<char> expect_;
};

class Checking_Restore_Callback : public MTF::Restore_Callback_Base
{
public:
  Checking_Restore_Callback(const Generated_Tree& tree, Check_Record& record) : tree_(tree), record_(record) {}
  MTF::IFile_Writer_var make_file_writer() override { return std::make_shared<Checking_File_Writer>(tree_, record_); }

private:
  const Generated_Tree& tree_;
  Check_Record& record_;
};

class Checking_Restore_Factory : public MTF::IRestore_Callback_Factory
{
public:
  explicit Checking_Restore_Factory(const Generated_Tree& tree) : tree_(tree) {}
  Check_Record record;
  MTF::IRestore_Callback_var make() override { return std::make_shared<Checking_Restore_Callback>(tree_, record); }

private:
  const Generated_Tree& tree_;
};

#endif
