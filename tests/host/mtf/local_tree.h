#ifndef TESTS_HOST_MTF_LOCAL_TREE_H
#define TESTS_HOST_MTF_LOCAL_TREE_H

// Test callbacks of the backup and restore streams over a local directory tree:
// the backup walks real directories (paths are absolute), the restore re-creates
// what it is given under a target directory. Files are published on their last
// byte (written to a temporary name first), as a careful writer does.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <list>
#include <atomic>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "host/mtf/mtf_backup_callback_factory.h"
#include "host/mtf/mtf_event_handler.h"
#include "host/mtf/mtf_restore_callback_factory.h"

struct Backup_Record
{
  std::string root;  // stream path "/x" is the local path root + "/x"
  std::mutex lock;
  std::vector<std::pair<std::string, bool>> ended;  // source path, verdict
  std::vector<std::string> begun;
  std::atomic<int> produce_end{0};
  std::atomic<int> callbacks{0};
  std::set<std::string> failing_reads;  // paths whose reader fails at open
};

class Local_File_Reader : public MTF::IFile_Reader
{
public:
  explicit Local_File_Reader(Backup_Record& record) : record_(record) {}
  ~Local_File_Reader() override { close(); }
  MTF::Error_Code open(const char* path) override
  {
    if (record_.failing_reads.count(path))
      return MTF::E_FAILED;
    fd_ = ::open((record_.root + path).c_str(), O_RDONLY);
    return fd_ < 0 ? MTF::E_FAILED : MTF::E_OK;
  }
  bool is_open() override { return fd_ >= 0; }
  MTF::Error_Code read(MTF::Buffer& buf) override
  {
    // Straight into the stream's buffer, no more than the file holds.
    size_t want = buf.room() > 0 ? buf.room() : 4096;
    if (left_ > 0 && left_ < want)
      want = static_cast<size_t>(left_);
    char* space = buf.extend(want);
    if (space == nullptr)
      return MTF::E_FAILED;
    ssize_t n = ::read(fd_, space, want);
    if (n < 0)
      return MTF::E_FAILED;
    buf.commit(static_cast<size_t>(n));
    left_ -= std::min<uint64_t>(left_, static_cast<uint64_t>(n));
    return MTF::E_OK;
  }
  MTF::Error_Code close() override
  {
    if (fd_ >= 0)
      ::close(fd_);
    fd_ = -1;
    return MTF::E_OK;
  }
  bool handle_file_blk(MTF::File_Blk& blk, ACE_UINT64& size) override
  {
    struct stat st;
    if (fstat(fd_, &st) != 0)
      return false;
    blk.set_size(static_cast<ACE_UINT64>(st.st_size));
    left_ = blk.size();
    size = (blk.size() + 511) & ~511ull;
    return true;
  }

private:
  Backup_Record& record_;
  int fd_ = -1;
  uint64_t left_ = 0;  // bytes still expected (as fstat saw the file)
};

class Local_Backup_Callback : public MTF::IBackup_Callback
{
public:
  explicit Local_Backup_Callback(Backup_Record& record) : record_(record) {}
  char directory_separator() override { return '/'; }
  bool lstat(const char* path, MTF::Callback_Stat& st) override
  {
    struct stat s;
    st.reset();
    if (::lstat((record_.root + path).c_str(), &s) != 0)
      return false;
    st.mode = s.st_mode;
    st.size = static_cast<uint64_t>(s.st_size);
    st.mtime = static_cast<uint64_t>(s.st_mtime);
    return true;
  }
  ssize_t readlink(const char*, char*, size_t) override { return -1; }
  MTF::IFile_Reader_var make_file_reader() override { return std::make_shared<Local_File_Reader>(record_); }
  MTF::ISrc_Lister_var make_source_lister() override { return MTF::ISrc_Lister_var(); }
  bool read_dirs(const char* path, std::list<MTF::Directory_Entry>& out) override
  {
    std::string local = record_.root + path;
    DIR* d = opendir(local.c_str());
    if (d == nullptr)
      return false;
    std::vector<std::string> names;
    while (dirent* e = ::readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
        names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string& name : names)
    {
      MTF::Directory_Entry entry;
      entry.name = name;
      if (::lstat((local + "/" + name).c_str(), &entry.stat) != 0)
        return false;
      out.push_back(entry);
    }
    return true;
  }
  bool handle_source_entry_begin(const MTF::source_entry& entry) override
  {
    std::lock_guard<std::mutex> guard(record_.lock);
    record_.begun.push_back(entry.path);
    return true;
  }
  bool handle_source_entry_end(const MTF::source_entry& entry, bool ok) override
  {
    std::lock_guard<std::mutex> guard(record_.lock);
    record_.ended.emplace_back(entry.path, ok);
    return true;
  }
  bool handle_source_produce_end() override
  {
    ++record_.produce_end;
    return true;
  }
  uint64_t file_count_one_percent() override { return 1; }
  int max_file_count_percent() override { return 99; }

private:
  Backup_Record& record_;
};

class Local_Backup_Factory : public MTF::IBackup_Callback_Factory
{
public:
  Backup_Record record;
  MTF::IBackup_Callback_var make() override
  {
    ++record.callbacks;
    return std::make_shared<Local_Backup_Callback>(record);
  }
};

class Local_File_Writer : public MTF::File_Writer_Base
{
public:
  Local_File_Writer(const std::string& root, std::atomic<int>& refuse,
                    std::function<void(const std::string&)> opened = nullptr)
    : root_(root), refuse_(refuse), opened_(std::move(opened))
  {
  }
  ~Local_File_Writer() override
  {
    if (fd_ >= 0)
      ::close(fd_);
    if (!temp_.empty())
      unlink(temp_.c_str());
  }
  MTF::Error_Code open(const char* path, ACE_UINT64 size) override
  {
    if (opened_)
      opened_(path);
    if (refuse_ > 0 && --refuse_ >= 0)
      return MTF::E_FAILED;
    final_ = root_ + path;
    temp_ = final_ + ".part";
    fd_ = ::open(temp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    size_ = size;
    if (fd_ < 0)
      temp_.clear();
    return fd_ >= 0 ? MTF::E_OK : MTF::E_FAILED;
  }
  MTF::Error_Code write(const char* data, size_t size) override
  {
    if (fd_ < 0 || written_ + size > size_)
      return MTF::E_FAILED;
    while (size > 0)
    {
      ssize_t n = ::write(fd_, data, size);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return MTF::E_FAILED;
      data += n;
      size -= static_cast<size_t>(n);
      written_ += static_cast<uint64_t>(n);
    }
    if (written_ == size_)
    {
      int rc = ::close(fd_);
      fd_ = -1;
      if (rc != 0 || rename(temp_.c_str(), final_.c_str()) != 0)
        return MTF::E_FAILED;
      temp_.clear();
    }
    return MTF::E_OK;
  }

private:
  std::string root_;
  std::atomic<int>& refuse_;
  std::function<void(const std::string&)> opened_;
  std::string final_;
  std::string temp_;
  int fd_ = -1;
  uint64_t size_ = 0;
  uint64_t written_ = 0;
};

class Local_Restore_Factory;

class Local_Restore_Callback : public MTF::Restore_Callback_Base
{
public:
  Local_Restore_Callback(const std::string& root, Local_Restore_Factory& factory) : root_(root), factory_(factory) {}
  bool mkdir_p(const char* path) override;
  MTF::IFile_Writer_var make_file_writer() override;

private:
  std::string root_;
  Local_Restore_Factory& factory_;
};

class Local_Restore_Factory : public MTF::IRestore_Callback_Factory
{
public:
  explicit Local_Restore_Factory(const std::string& root) : root_(root) {}
  MTF::IRestore_Callback_var make() override { return std::make_shared<Local_Restore_Callback>(root_, *this); }
  std::atomic<int> refuse_writers{0};  // the next n writers refuse to open
  std::mutex lock;
  std::vector<std::string> dirs;  // directories announced, in order
  std::set<std::string> created;  // directories whose mkdir_p has returned
  int orphans = 0;                // announced while their parent's was still under way
  int homeless = 0;               // files opened before their directory's mkdir_p returned
  int files_opened = 0;
  int mkdirs_under_way = 0;
  // mkdir_p of this directory waits (up to 10 s) until some file has been
  // opened; whether one was is recorded.
  std::string hold_dir;
  bool hold_released_by_file = false;
  std::condition_variable file_opened;
  int mkdir_delay_ms = 0;  // makes each mkdir_p slow, to show its overlaps

private:
  std::string root_;
};

inline bool Local_Restore_Callback::mkdir_p(const char* path)
{
  std::string p(path);
  {
    std::lock_guard<std::mutex> guard(factory_.lock);
    factory_.dirs.push_back(p);
    size_t slash = p.rfind('/');
    if (slash != std::string::npos && slash > 0 && factory_.created.count(p.substr(0, slash)) == 0)
      ++factory_.orphans;
    ++factory_.mkdirs_under_way;
  }
  if (factory_.mkdir_delay_ms > 0)
    usleep(static_cast<useconds_t>(factory_.mkdir_delay_ms) * 1000);
  if (p == factory_.hold_dir)
  {
    std::unique_lock<std::mutex> guard(factory_.lock);
    factory_.hold_released_by_file =
      factory_.file_opened.wait_for(guard, std::chrono::seconds(10), [this] { return factory_.files_opened > 0; });
  }
  // Each missing component in turn, as mkdir -p does.
  std::string full = root_ + p;
  for (size_t slash = full.find('/', 1);; slash = full.find('/', slash + 1))
  {
    std::string part = full.substr(0, slash);
    if (::mkdir(part.c_str(), 0755) != 0 && errno != EEXIST)
      return false;
    if (slash == std::string::npos)
      break;
  }
  std::lock_guard<std::mutex> guard(factory_.lock);
  factory_.created.insert(p);
  --factory_.mkdirs_under_way;
  return true;
}

inline MTF::IFile_Writer_var Local_Restore_Callback::make_file_writer()
{
  Local_Restore_Factory& factory = factory_;
  return std::make_shared<Local_File_Writer>(
    root_, factory_.refuse_writers,
    [&factory](const std::string& path)
    {
      std::lock_guard<std::mutex> guard(factory.lock);
      size_t slash = path.rfind('/');
      if (slash != std::string::npos && slash > 0 && factory.created.count(path.substr(0, slash)) == 0)
        ++factory.homeless;
      ++factory.files_opened;
      factory.file_opened.notify_all();
    });
}

// Cancels once `after` files have been reported.
class Cancel_Handler : public MTF::Event_Handler
{
public:
  explicit Cancel_Handler(ACE_UINT64 after) : MTF::Event_Handler(PRM_FILE_COUNT), after_(after) {}
  int handle_progress(int, ACE_UINT64, ACE_UINT64, ACE_UINT64 files) override
  {
    if (files >= after_)
      cancel_ = true;
    return 0;
  }
  bool canceling() override { return cancel_; }

private:
  ACE_UINT64 after_;
  std::atomic<bool> cancel_{false};
};

inline void write_file(const std::string& path, const std::string& data)
{
  std::ofstream(path, std::ios::binary) << data;
}

inline std::string read_file(const std::string& path)
{
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

#endif
