#ifndef HOST_STORAGE_COMPRESSION_METHOD_H
#define HOST_STORAGE_COMPRESSION_METHOD_H

// How a backup set's data is compressed on its way to storage.
enum Compression_Method
{
  COMPR_NONE = 0,
  COMPR_AUTO = 1,  // the storage client picks (zstd)
  COMPR_LZOP = 2,
  COMPR_ZSTD = 3,
};

#endif
