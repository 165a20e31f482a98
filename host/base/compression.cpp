#include "host/base/compression.h"

#include <cstring>

namespace
{
const char* const compression_names[] = {"none", "auto", "lzop", "zstd"};
const int compression_count = sizeof(compression_names) / sizeof(compression_names[0]);
}  // namespace

Compression_Method compression_name_to_value(const char* name, int len)
{
  if (name == nullptr || len < 0)
    return COMPR_NONE;
  const size_t n = len == 0 ? std::strlen(name) : static_cast<size_t>(len);
  for (int i = 0; i < compression_count; ++i)
    if (std::strlen(compression_names[i]) == n && std::strncmp(compression_names[i], name, n) == 0)
      return static_cast<Compression_Method>(i);
  return COMPR_NONE;
}

const char* compression_value_to_name(int value)
{
  if (value < 0 || value >= compression_count)
    return nullptr;
  return compression_names[value];
}
