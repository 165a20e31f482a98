#include "backup/exchange/core/ews/io_options.h"

#include "host/base/compression.h"
#include "host/job/job_definition.h"
#include "host/base/log.h"
#include "host/storage/host_manager.h"
#include "host/storage/http_head.h"
#include "host/storage/pool_info.h"

void set_http_head_to_options(Client_IO_Base::Options& options, int header, const std::string& value)
{
  const char* name = http_head_string(header, 0, value);
  if (name != nullptr)
    options.set_extra_option(name, value);
}

void set_access_key_to_options(Client_IO_Base::Options& options, const std::string& key)
{
  set_http_head_to_options(options, HTTP_HEAD_ACCESS_KEY, key);
}

void set_d2t_access_mode(Client_IO_Base::Options& options) { options.d2t_access_mode = 2; }

void set_options_by_host(Client_IO_Base::Options& options)
{
  Host_Manager& host = Host_Manager::instance();
  set_access_key_to_options(options, host.on_backupd() ? host.node_access_key() : host.access_key());
}

void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& def, size_t channels)
{
  options.max_seconds_retry = def.max_seconds_retry();
  options.resumption_buffer_size = def.resumption_buffer_size();
  options.rate_control_entries = def.max_rate_limits();
  set_rate_limits_by_channels(options.rate_control_entries, channels);
}

void set_rate_limits_by_channels(std::vector<Rate_Control_Entry>& entries, size_t channels)
{
  if (channels < 2)
    return;
  // Rounded up: a share of 0 would mean "no limit".
  for (Rate_Control_Entry& entry : entries)
    entry.max_bytes_per_second = (entry.max_bytes_per_second + channels - 1) / channels;
}

bool create_io_channel(const std::string& pool_uuid, const std::string& path, bool flag, Client_IO_Ex& io, int arg)
{
  Pool_Info info;
  if (!get_pool_info(pool_uuid, nullptr, info, flag, arg, nullptr))
  {
    LOG_MSG(LM_ERROR, "Failed to get pool info, uuid = %s\n", pool_uuid.c_str());
    return false;
  }
  Client_IO_Base::Options options;
  if (!set_options_by_pool(options, info))
  {
    LOG_MSG(LM_ERROR, "Failed to set IO options by pool, uuid = %s\n", pool_uuid.c_str());
    return false;
  }
  set_options_by_host(options);
  set_d2t_access_mode(options);
  options.compression_method = COMPR_AUTO;
  options.dedup_chunk_size = 1;

  std::string location = info.url;
  if (!path.empty() && path[0] != '/')
    location += "/";
  location += path;
  if (!io.open(location, options))
  {
    LOG_MSG(LM_ERROR, "Failed to connect to '%s': %s\n", location.c_str(), io.last_error().c_str());
    return false;
  }
  return true;
}
