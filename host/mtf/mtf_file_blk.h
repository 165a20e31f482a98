#ifndef HOST_MTF_MTF_FILE_BLK_H
#define HOST_MTF_MTF_FILE_BLK_H

#include <ace/Basic_Types.h>

namespace MTF
{
// The part of a file's descriptor block (FILE DBLK) that a file reader may set
// before its data is written: the length of the file's data stream. The stream
// starts it at the size the callback listed and asks the reader
// (IFile_Reader::handle_file_blk) after `open`; the stream then expects exactly
// that many bytes from the reader.
class File_Blk
{
public:
  explicit File_Blk(ACE_UINT64 size = 0) : size_(size) {}

  ACE_UINT64 size() const { return size_; }
  void set_size(ACE_UINT64 size) { size_ = size; }

private:
  ACE_UINT64 size_;
};
}  // namespace MTF

#endif
