#ifndef TESTS_BACKUP_EXCHANGE_SET_CONTENTS_H
#define TESTS_BACKUP_EXCHANGE_SET_CONTENTS_H

// Reads a whole backup set back with the restore stream, into memory: every
// file's path and bytes (each checked by the stream against its recorded hash).

#include "backup/exchange/core/ews/io_options.h"
#include "host/mtf/mtf_restore.h"
#include "host/mtf/mtf_restore_callback.h"
#include "host/mtf/mtf_restore_callback_factory.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class Set_Contents : public MTF::IRestore_Callback_Factory
{
public:
  // Path -> bytes (the last file of that path when several share it).
  std::map<std::string, std::string> files;
  // Path -> bytes of every file of that path (items of one name in one folder).
  std::map<std::string, std::vector<std::string>> versions;
  std::mutex lock;

  MTF::IRestore_Callback_var make() override { return std::make_shared<Callback>(*this); }

  // Restores revision `rev` of the set at pool_uuid/host_uuid/minor_resource_id.
  bool read(const std::string& pool_uuid, const std::string& host_uuid, const std::string& minor_resource_id, int rev)
  {
    MTF::Event_Handler handler;
    MTF_Restore restore(handler);
    restore.callback_factory(this);
    restore.pool_uuid(pool_uuid);
    restore.backup_host_uuid(host_uuid);
    restore.backup_minor_resource_id(minor_resource_id);
    restore.seq(rev);
    restore.restore_select(nlohmann::ordered_json::array({{{"dir", "/"}}}));
    restore.channel_num(1);
    set_options_by_host(restore.extra_client_io_opts());
    return restore.restore() == 0 && restore.failed_count() == 0;
  }

private:
  class Writer : public MTF::File_Writer_Base
  {
  public:
    explicit Writer(Set_Contents& owner) : owner_(owner) {}
    ~Writer() override
    {
      std::lock_guard<std::mutex> guard(owner_.lock);
      owner_.files[path_] = bytes_;
      owner_.versions[path_].push_back(bytes_);
    }
    MTF::Error_Code open(const char* path, ACE_UINT64) override
    {
      path_ = path;
      return MTF::E_OK;
    }
    MTF::Error_Code write(const char* data, size_t size) override
    {
      bytes_.append(data, size);
      return MTF::E_OK;
    }

  private:
    Set_Contents& owner_;
    std::string path_;
    std::string bytes_;
  };

  class Callback : public MTF::Restore_Callback_Base
  {
  public:
    explicit Callback(Set_Contents& owner) : owner_(owner) {}
    MTF::IFile_Writer_var make_file_writer() override { return std::make_shared<Writer>(owner_); }

  private:
    Set_Contents& owner_;
  };
};

#endif
