#include "host/base/text_file.h"

#include <fstream>
#include <sstream>

bool read_text_file(const std::string& path, std::string& out)
{
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return false;
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad())
    return false;
  out = text.str();
  return true;
}
