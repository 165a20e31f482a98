#ifndef HOST_MTF_MTF_RESTORE_CALLBACK_H
#define HOST_MTF_MTF_RESTORE_CALLBACK_H

#include <memory>

#include "host/mtf/mtf_file_writer.h"

namespace MTF
{
// Where the restore stream puts what it reads. Each worker of MTF_Restore has its
// own callback (IRestore_Callback_Factory::make, called on the worker's thread)
// and calls it only from that thread. Paths are the backed-up paths with
// directory_separator() between components and no trailing separator. A
// directory is announced (mkdir_p) only after its parent's announcement has
// returned, and a file is opened only after its directory's has; meanwhile
// other workers may be announcing other directories or writing files of
// directories already announced.
class IRestore_Callback
{
public:
  virtual char directory_separator() const = 0;
  virtual bool mkdir_p(const char* path) = 0;
  // Empty: the file fails (counted, logged) and the restore goes on.
  virtual IFile_Writer_var make_file_writer() = 0;
  // The outcome of one file, after its writer was released.
  virtual void handle_file_end(const char* path, bool ok) = 0;
  virtual ~IRestore_Callback() = default;
};

// Defaults for restore callbacks: '/' as separator, directories need nothing
// created, no writers (every file fails until a writer is given), outcomes
// ignored.
class Restore_Callback_Base : public IRestore_Callback
{
public:
  char directory_separator() const override { return '/'; }
  bool mkdir_p(const char*) override { return true; }
  IFile_Writer_var make_file_writer() override { return IFile_Writer_var(); }
  void handle_file_end(const char*, bool) override {}
};

typedef std::shared_ptr<IRestore_Callback> IRestore_Callback_var;
}  // namespace MTF

#endif
