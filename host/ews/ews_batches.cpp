#include "host/ews/ews_batches.h"

std::vector<std::pair<size_t, size_t>> ews_batches(const std::vector<long long>& sizes, int max_items,
                                                   long long max_bytes)
{
  const size_t most = max_items > 0 ? static_cast<size_t>(max_items) : 1;
  std::vector<std::pair<size_t, size_t>> out;
  size_t begin = 0;
  long long bytes = 0;
  for (size_t i = 0; i < sizes.size(); ++i)
  {
    const long long size = sizes[i] > 0 ? sizes[i] : 0;
    const bool full = i - begin >= most || (max_bytes > 0 && i > begin && bytes + size > max_bytes);
    if (full)
    {
      out.emplace_back(begin, i);
      begin = i;
      bytes = 0;
    }
    bytes += size;
  }
  if (begin < sizes.size())
    out.emplace_back(begin, sizes.size());
  return out;
}
