#include "apps/backup-agent/folder_path.h"

std::vector<std::string> split_folder_path(const std::string& path)
{
  std::vector<std::string> names;
  size_t begin = 0;
  while (begin <= path.size())
  {
    size_t end = path.find('/', begin);
    if (end == std::string::npos)
      end = path.size();
    if (end > begin)
      names.push_back(path.substr(begin, end - begin));
    begin = end + 1;
  }
  return names;
}
