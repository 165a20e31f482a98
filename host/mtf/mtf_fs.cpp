#include "host/mtf/mtf_fs.h"

#include <cstring>

namespace MTF_FS
{
size_t dirname(const char* path, int len, char sep)
{
  if (path == nullptr)
    return std::string::npos;
  size_t n = len < 0 ? strlen(path) : static_cast<size_t>(len);
  while (n > 1 && path[n - 1] == sep)
    --n;
  while (n > 0 && path[n - 1] != sep)
    --n;
  if (n == 0)
    return std::string::npos;
  return n - 1;
}

std::string basename(const std::string& path, char sep)
{
  std::vector<std::string> parts = split(path, sep);
  return parts.empty() ? std::string() : parts.back();
}

std::string join(const std::string& dir, const std::string& name, char sep)
{
  if (dir.empty())
    return name;
  if (dir.back() == sep)
    return dir + name;
  return dir + sep + name;
}

std::vector<std::string> split(const std::string& path, char sep)
{
  std::vector<std::string> parts;
  size_t start = 0;
  while (start <= path.size())
  {
    size_t end = path.find(sep, start);
    if (end == std::string::npos)
      end = path.size();
    if (end > start)
      parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::string normalize(const std::string& path, char sep)
{
  size_t n = path.size();
  while (n > 1 && path[n - 1] == sep)
    --n;
  return path.substr(0, n);
}
}  // namespace MTF_FS
