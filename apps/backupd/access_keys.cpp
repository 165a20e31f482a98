#include "apps/backupd/access_keys.h"

#include <fstream>
#include <sys/stat.h>

#include "host/base/log.h"
#include "host/base/trim.h"

bool Access_Keys::load(const std::string& path, std::string& error)
{
  std::ifstream in(path);
  if (!in)
  {
    error = "cannot read the access key file " + path;
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && (st.st_mode & 077) != 0)
    LOG_MSG(LM_WARNING, "The access key file %s is readable by others than its owner\n", path.c_str());
  keys_.clear();
  std::string line;
  for (int number = 1; std::getline(in, line); ++number)
  {
    line = trim_space(line);
    if (line.empty() || line[0] == '#')
      continue;
    // The key itself never goes into the message.
    if (line.size() < MIN_KEY_LENGTH)
    {
      error = "the key on line " + std::to_string(number) + " of " + path + " is shorter than " +
              std::to_string(MIN_KEY_LENGTH) + " characters";
      keys_.clear();
      return false;
    }
    keys_.push_back(line);
  }
  if (keys_.empty())
  {
    error = "the access key file " + path + " holds no key";
    return false;
  }
  return true;
}

bool Access_Keys::accepts(const std::string& key) const
{
  bool found = false;
  for (const std::string& k : keys_)
  {
    unsigned char diff = k.size() == key.size() ? 0 : 1;
    for (size_t i = 0; i < key.size(); ++i)
      diff |= static_cast<unsigned char>(key[i] ^ k[i % k.size()]);
    found |= diff == 0;
  }
  return found;
}
