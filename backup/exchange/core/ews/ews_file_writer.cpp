#include "backup/exchange/core/ews/ews_file_writer.h"

#include "host/base/log.h"
#include "host/mtf/mtf_fs.h"

#include <cstring>
#include <vector>

EWS_File_Writer::~EWS_File_Writer()
{
  if (pool_.get() != nullptr)
    pool_->give_back(ews_);
}

MTF::Error_Code EWS_File_Writer::open(const char* path, ACE_UINT64 size)
{
  const size_t len = MTF_FS::dirname(path, -1, '/');
  if (len == std::string::npos)
  {
    LOG_MSG(LM_ERROR, "Failed to get dirname of '%s'\n", path == nullptr ? "" : path);
    return MTF::E_FAILED;
  }
  if (!ctx_->get_folder_id(std::string(path, len), parent_id_))
    return MTF::E_FAILED;
  curr_ = 0;
  buffer_.resize(static_cast<size_t>(size));
  return MTF::E_OK;
}

MTF::Error_Code EWS_File_Writer::write(const char* data, size_t size)
{
  if (curr_ + size > buffer_.size())
  {
    LOG_MSG(LM_EMERGENCY, "Unexpected error in %N:%l, curr_ + size <= buffer_.size() is false:\n%?\n");
    return MTF::E_FAILED;
  }
  if (size != 0)
    memcpy(&buffer_[curr_], data, size);
  curr_ += size;
  if (curr_ != buffer_.size())
    return MTF::E_OK;
  // Complete: the buffer moves into the request without a copy.
  std::vector<ustring> items(1);
  items[0].swap(buffer_);
  // The upload is recorded with the folder's other uploads of this run, so that
  // a request whose answer is lost is settled against the folder's contents
  // instead of being sent again blindly.
  boost::shared_ptr<EWS_Folder_Uploads> uploads;
  if (!ctx_->folder_uploads(parent_id_, uploads) || !uploads->begin())
    return MTF::E_FAILED;
  EWS_Client* client = ews_.get();
  EWS_Folder_Uploads* record = uploads.get();
  ews_->set_upload_reconciler([client, record](const std::string&, size_t count, std::vector<std::string>& landed)
                              { return record->reconcile(*client, count, landed); });
  const bool uploaded = ews_->upload_items(parent_id_, items);
  ews_->set_upload_reconciler(EWS_Upload_Reconciler());
  record->end(ews_->uploaded_ids());
  return uploaded ? MTF::E_OK : MTF::E_FAILED;
}
