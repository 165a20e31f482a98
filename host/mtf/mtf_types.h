#ifndef HOST_MTF_MTF_TYPES_H
#define HOST_MTF_MTF_TYPES_H

#include <cstdint>
#include <string>
#include <sys/stat.h>

// Plain records shared by the backup and restore streams and their callbacks.
namespace MTF
{
// Results of file readers and writers.
enum Error_Code
{
  E_FAILED = -1,  // the file failed; the stream records it and goes on
  E_OK = 0,
  E_SKIP = 1,  // leave this one file out; not a failure of its source
};

// What a backup callback tells the stream about one path (lstat).
struct Callback_Stat
{
  uint64_t gid = 0;
  uint64_t uid = 0;
  uint64_t mode = 0;  // S_IFDIR / S_IFREG / S_IFLNK and permission bits
  uint64_t dev = 0;
  uint64_t ino = 0;
  uint64_t nlink = 0;
  uint64_t rdev = 0;
  uint64_t size = 0;  // 0 when not known before reading
  uint64_t blksize = 0;
  uint64_t blocks = 0;
  uint64_t atime = 0;
  uint64_t mtime = 0;
  uint64_t ctime = 0;
  std::string owner;
  std::string group;

  void reset() { *this = Callback_Stat(); }
};

// One child of a directory as a backup callback lists it: its name (one path
// component) and its attributes; only st_mode, st_size, st_mtime and st_ctime are read.
struct Directory_Entry
{
  std::string name;
  struct stat stat = {};
  int reparse_types = 0;
};

// A top-level source of a backup: a display name and the path walked.
struct source_entry
{
  std::string name;
  std::string path;
};
}  // namespace MTF

#endif
