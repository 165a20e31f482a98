#include "backup/exchange/core/ews/ews_restore_callback.h"

#include "backup/exchange/core/ews/ews_file_writer.h"

#include <cerrno>
#include <new>

bool EWS_Restore_Callback::mkdir_p(const char* path) { return ctx_->mkdir_p(path); }

MTF::IFile_Writer_var EWS_Restore_Callback::make_file_writer()
{
  EWS_Client_Ptr client;
  if (!pool_->borrow(client))
    return MTF::IFile_Writer_var();
  EWS_File_Writer* writer = new (std::nothrow) EWS_File_Writer(client, ctx_, pool_);
  if (writer == nullptr)
  {
    pool_->give_back(client);
    errno = ENOMEM;
    return MTF::IFile_Writer_var();
  }
  return MTF::IFile_Writer_var(writer);
}
