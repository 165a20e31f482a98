#ifndef HOST_STORAGE_OBJECT_WRITER_H
#define HOST_STORAGE_OBJECT_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>

// Writes one object of an Object_Directory: the bytes go to a temporary file;
// `commit` fsyncs it and moves it to its name in one step, so a reader sees either
// the whole object or none. Dropping the writer before `commit` deletes the
// temporary. Not thread-safe; one writer per object being written.
class Object_Writer
{
public:
  Object_Writer() = default;
  ~Object_Writer();
  Object_Writer(const Object_Writer&) = delete;
  Object_Writer& operator=(const Object_Writer&) = delete;

  // Used by Object_Directory::begin_write.
  void start(int fd, const std::string& temp_path, const std::string& final_path);

  bool is_open() const { return fd_ >= 0; }
  // 0 or an errno value.
  int write(const void* data, size_t len);
  // 0, EEXIST when `overwrite` is false and the name exists, or an errno value.
  // The writer is closed afterwards in every case.
  int commit(bool overwrite);
  void abort();

  uint64_t bytes_written() const { return bytes_; }

private:
  int fd_ = -1;
  std::string temp_path_;
  std::string final_path_;
  uint64_t bytes_ = 0;
};

#endif
