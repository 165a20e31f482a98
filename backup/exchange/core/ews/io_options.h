#ifndef BACKUP_EXCHANGE_CORE_EWS_IO_OPTIONS_H
#define BACKUP_EXCHANGE_CORE_EWS_IO_OPTIONS_H

#include <cstddef>
#include <string>
#include <vector>

#include "host/storage/client_io_base.h"
#include "host/storage/client_io_ex.h"
#include "host/base/rate_controller.h"

class Job_Definition;

// How the module fills the storage client's options: from the pool, from this
// host's identity and from the job definition, and how a job's rate limits are
// shared among its parallel channels.

// Sets the header with host code `header` to `value` as an extra option; does
// nothing when the host knows no name for that header.
void set_http_head_to_options(Client_IO_Base::Options& options, int header, const std::string& value);

// Sends `key` in the host's access-key header (code 48).
void set_access_key_to_options(Client_IO_Base::Options& options, const std::string& key);

// Lets the stream stage through disk-to-tape storage (access mode 2).
void set_d2t_access_mode(Client_IO_Base::Options& options);

// The access key of this host: the node key on the backup server's own machine,
// else the agent's key.
void set_options_by_host(Client_IO_Base::Options& options);

// Retry budget, resumption buffer and rate limits of the job definition, the
// limits divided among `channels` channels.
void set_options_by_job_def(Client_IO_Base::Options& options, const Job_Definition& def, size_t channels);

// With 2 or more channels each limit becomes its share, rounded up, so that all
// channels together keep to the job's limit (plus at most one byte per second
// per channel); with 0 or 1 channel the limits stay as they are.
void set_rate_limits_by_channels(std::vector<Rate_Control_Entry>& entries, size_t channels);

// Opens `io` on the pool's storage at `path` (relative to the pool's URL).
// `flag` (0 to write, 1 to read) and `arg` (seconds of retry) go to the host's
// get_pool_info unchanged. False, logged with the pool uuid or the location,
// when the pool is unknown, its settings unusable or the location cannot be
// opened.
bool create_io_channel(const std::string& pool_uuid, const std::string& path, bool flag, Client_IO_Ex& io, int arg);

#endif
