#ifndef HOST_MTF_MTF_FILE_WRITER_H
#define HOST_MTF_MTF_FILE_WRITER_H

#include <ace/Basic_Types.h>
#include <cstddef>
#include <memory>

#include "host/mtf/mtf_types.h"

namespace MTF
{
// Receives one restored file. The restore stream makes a writer per file
// (IRestore_Callback::make_file_writer) and drives it on one worker thread:
// open(path, size), then write in pieces until `size` bytes have come (one
// write of 0 bytes for an empty file), then releases it. The last piece is
// handed over only after the file's data matched its recorded SHA-256, so a
// writer that publishes a file when its announced size is complete never
// publishes damaged data; a writer released before that must drop what it got.
// Both return E_OK (0) or E_FAILED (-1).
class File_Writer_Base
{
public:
  virtual Error_Code open(const char* path, ACE_UINT64 size) = 0;
  virtual Error_Code write(const char* data, size_t size) = 0;
  virtual ~File_Writer_Base() = default;
};

typedef std::shared_ptr<File_Writer_Base> IFile_Writer_var;
}  // namespace MTF

#endif
