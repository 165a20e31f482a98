#include "host/storage/storage_name.h"

bool is_valid_storage_name(const std::string& name)
{
  if (name.empty() || name.find('\0') != std::string::npos || name.find('\\') != std::string::npos)
    return false;
  size_t begin = 0;
  while (begin <= name.size())
  {
    size_t end = name.find('/', begin);
    if (end == std::string::npos)
      end = name.size();
    std::string part = name.substr(begin, end - begin);
    if (part.empty() || part == "." || part == ".." || part.compare(0, 2, ".~") == 0)
      return false;
    begin = end + 1;
  }
  return true;
}
