#include "host/http/http_headers.h"

#include <strings.h>

#include <algorithm>

namespace
{
bool same_name(const std::string& a, const std::string& b)
{
  return a.size() == b.size() && strcasecmp(a.c_str(), b.c_str()) == 0;
}
}  // namespace

void HTTP_Headers::put(const std::string& name, const std::string& value, bool replace)
{
  if (replace)
    remove(name);
  fields_.emplace_back(name, value);
}

const std::string* HTTP_Headers::get(const std::string& name) const
{
  for (const Field& f : fields_)
    if (same_name(f.first, name))
      return &f.second;
  return nullptr;
}

void HTTP_Headers::remove(const std::string& name)
{
  fields_.erase(
    std::remove_if(fields_.begin(), fields_.end(), [&](const Field& f) { return same_name(f.first, name); }),
    fields_.end());
}
