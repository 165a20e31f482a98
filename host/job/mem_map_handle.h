#ifndef HOST_JOB_MEM_MAP_HANDLE_H
#define HOST_JOB_MEM_MAP_HANDLE_H

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <string>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

// A record of type T kept in a shared memory mapping of SIZE bytes. With a path,
// the mapping is backed by that file (created when missing), so other processes
// can map the same record; a file that does not hold a valid record (wrong size
// or magic) is reinitialised. Without a path (Path_Conf answers ""), the mapping
// is anonymous and private to this process.
//
// Path_Conf::path(key) names the file for a key. T must provide `magic`,
// `version`, MAGIC, VERSION and `init()`.
template <typename T, typename Path_Conf, size_t SIZE>
class Mem_Map_Handle
{
  static_assert(sizeof(T) <= SIZE, "record larger than its mapping");

public:
  explicit Mem_Map_Handle(const std::string& key) : record_(nullptr), path_(Path_Conf::path(key))
  {
    if (!path_.empty() && map_file())
      return;
    void* p = ::mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED)
      throw std::bad_alloc();
    record_ = new (p) T;
    record_->init();
  }

  ~Mem_Map_Handle() { ::munmap(record_, SIZE); }

  T& operator*() const { return *record_; }
  T* operator->() const { return record_; }
  const std::string& path() const { return path_; }

private:
  Mem_Map_Handle(const Mem_Map_Handle&) = delete;
  Mem_Map_Handle& operator=(const Mem_Map_Handle&) = delete;

  bool map_file()
  {
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
      return false;
    struct stat st;
    const bool fresh = ::fstat(fd, &st) != 0 || st.st_size != static_cast<off_t>(SIZE);
    if (fresh && ::ftruncate(fd, SIZE) != 0)
    {
      ::close(fd);
      return false;
    }
    void* p = ::mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    if (p == MAP_FAILED)
      return false;
    T* existing = static_cast<T*>(p);
    const bool valid = !fresh && existing->magic == T::MAGIC && existing->version == T::VERSION;
    record_ = valid ? existing : new (p) T;
    if (!valid)
      record_->init();
    return true;
  }

  T* record_;
  std::string path_;
};

#endif
