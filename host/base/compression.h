#ifndef HOST_BASE_COMPRESSION_H
#define HOST_BASE_COMPRESSION_H

// Compression of backup-set data.
enum Compression_Method
{
  COMPR_NONE = 0,
  COMPR_AUTO = 1,
  COMPR_LZOP = 2,
  COMPR_ZSTD = 3,
};

// "none", "auto", "lzop", "zstd" (exact case) to the method. `len` 0 means
// strlen(name). A null or unknown name gives COMPR_NONE.
Compression_Method compression_name_to_value(const char* name, int len);

// The name of a method, or null for a value that has none.
const char* compression_value_to_name(int value);

#endif
