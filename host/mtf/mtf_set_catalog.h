#ifndef HOST_MTF_MTF_SET_CATALOG_H
#define HOST_MTF_MTF_SET_CATALOG_H

#include <cstdint>
#include <string>
#include <vector>

#include "host/storage/client_io_base.h"

// The per-set catalog file: which data files a backup set has and where each
// backed-up path lies in them, with the SHA-256 of each file's data. Written last
// by the backup (a set without it is incomplete); read first by the restore and
// by verification. Text format, JSON lines (docs/backup-set-format.md):
//   line 1: the set header; then one line per directory and file in the order
//   they were written per data file; last line: {"entries": count}.
// A plain value; not thread-safe.
class MTF_Set_Catalog
{
public:
  static const int VERSION = 1;

  struct Data_File
  {
    std::string name;     // object name beside the catalog
    uint64_t size = 0;    // MTF bytes
    uint64_t stored = 0;  // bytes stored (compressed size with zstd)
  };

  struct Entry
  {
    bool dir = false;
    std::string path;         // as the backup walked it, no trailing separator
    uint32_t data = 0;        // index in files
    uint64_t offset = 0;      // FILE/DIRB block in the MTF bytes
    uint64_t frame = 0;       // stored offset where reading starts (zstd frame or the block)
    uint64_t frame_base = 0;  // MTF offset of that frame's first byte
    uint64_t length = 0;      // data bytes
    std::string sha256;       // hex, files only
    int64_t mtime = 0;
  };

  int version = VERSION;
  int rev = 0;
  std::string agent;
  std::string compression = "none";  // "none" or "zstd"
  char separator = '/';
  int64_t created = 0;
  std::vector<Data_File> files;
  std::vector<Entry> entries;

  std::string to_text() const;
  // False with `error` set on anything malformed, an unknown version or a
  // missing last line.
  bool parse(const std::string& text, std::string& error);

  // Object names of revision `rev`'s set (see docs/backup-set-format.md).
  static std::string data_name(int rev, unsigned channel, bool compressed);
  static std::string catalog_name(int rev);

  // Where a set lives: the pool's URL (looked up with get_pool_info when
  // `pool_url` is empty, which also applies the pool's client settings to
  // `options`), then "/<host_uuid>/<minor_resource_id>". False, logged, when the
  // pool is unknown or a part is not a valid storage name.
  static bool locate(const std::string& pool_uuid, const std::string& pool_url, const std::string& host_uuid,
                     const std::string& minor_resource_id, int access, int max_seconds_retry,
                     Client_IO_Base::Options& options, std::string& location);
};

#endif
