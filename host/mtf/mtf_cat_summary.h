#ifndef HOST_MTF_MTF_CAT_SUMMARY_H
#define HOST_MTF_MTF_CAT_SUMMARY_H

#include <ace/Basic_Types.h>

namespace MTF
{
// The figures of one backup run, read after MTF_Backup::backup() returns.
class Cat_Summary
{
public:
  ACE_UINT64 size() const { return size_; }                  // file data bytes backed up
  ACE_UINT64 set_size() const { return set_size_; }          // MTF bytes of the data files plus the catalog
  ACE_UINT64 storage_size() const { return storage_size_; }  // bytes stored (after compression)
  ACE_UINT64 file_count() const { return file_count_; }
  ACE_UINT64 dir_count() const { return dir_count_; }
  ACE_UINT64 failed_count() const { return failed_count_; }    // files that could not be backed up
  ACE_UINT64 skipped_count() const { return skipped_count_; }  // files their reader left out

  void set(ACE_UINT64 size, ACE_UINT64 set_size, ACE_UINT64 storage_size, ACE_UINT64 files, ACE_UINT64 dirs,
           ACE_UINT64 failed, ACE_UINT64 skipped)
  {
    size_ = size;
    set_size_ = set_size;
    storage_size_ = storage_size;
    file_count_ = files;
    dir_count_ = dirs;
    failed_count_ = failed;
    skipped_count_ = skipped;
  }

private:
  ACE_UINT64 size_ = 0;
  ACE_UINT64 set_size_ = 0;
  ACE_UINT64 storage_size_ = 0;
  ACE_UINT64 file_count_ = 0;
  ACE_UINT64 dir_count_ = 0;
  ACE_UINT64 failed_count_ = 0;
  ACE_UINT64 skipped_count_ = 0;
};
}  // namespace MTF

#endif
