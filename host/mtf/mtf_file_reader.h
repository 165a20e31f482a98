#ifndef HOST_MTF_MTF_FILE_READER_H
#define HOST_MTF_MTF_FILE_READER_H

#include <ace/Basic_Types.h>
#include <memory>

#include "host/mtf/mtf_buffer.h"
#include "host/mtf/mtf_file_blk.h"
#include "host/mtf/mtf_types.h"

namespace MTF
{
// Delivers one file's data to the backup stream. The stream makes a reader per
// file (IBackup_Callback::make_file_reader) and drives it on one channel thread:
//   open(path) -> handle_file_blk(blk, size) -> read(buf) until blk.size() bytes
//   have come -> close().
// `open` may answer E_SKIP to leave the file out. `read` appends to `buf`
// (preferably no more than buf.room() bytes; more is accepted, see Buffer) and
// returns E_OK; appending nothing means the data ended early. The stream never
// calls `read` again once the announced size has arrived.
class IFile_Reader
{
public:
  virtual Error_Code open(const char* path) = 0;
  virtual bool is_open() = 0;
  virtual Error_Code read(Buffer& buf) = 0;
  virtual Error_Code close() = 0;
  // Sets blk's data size when the reader knows it better than the listing, and
  // reports through `size` the space the data takes (the reader's rounding).
  // False fails the file.
  virtual bool handle_file_blk(File_Blk& blk, ACE_UINT64& size) = 0;
  virtual ~IFile_Reader() = default;
};

typedef std::shared_ptr<IFile_Reader> IFile_Reader_var;
}  // namespace MTF

#endif
