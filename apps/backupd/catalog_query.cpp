#include "apps/backupd/catalog_query.h"

#include <set>

static const char* const FILTER_KEYS[] = {"module",   "resource_uuid", "minor_resource_id", "host_uuid", "instance",
                                          "database", "uuid",          "pool_uuid"};
static const char* const SORT_KEYS[] = {"backup_start_time", "rev",       "uuid",     "module",   "resource_uuid",
                                        "minor_resource_id", "host_uuid", "instance", "database", "committed"};

bool Catalog_Query::is_filter_key(const std::string& key)
{
  for (const char* k : FILTER_KEYS)
    if (key == k)
      return true;
  return false;
}

bool Catalog_Query::is_sort_key(const std::string& key)
{
  for (const char* k : SORT_KEYS)
    if (key == k)
      return true;
  return false;
}

// Plain decimal digits only: no sign, no spaces, no exponent.
static bool parse_count(const std::string& text, int64_t max, int64_t& out)
{
  if (text.empty() || text.size() > 18)
    return false;
  int64_t value = 0;
  for (char c : text)
  {
    if (c < '0' || c > '9')
      return false;
    value = value * 10 + (c - '0');
  }
  if (value > max)
    return false;
  out = value;
  return true;
}

bool Catalog_Query::parse(const std::multimap<std::string, std::string>& params, std::string& error)
{
  std::set<std::string> seen;
  for (const auto& param : params)
  {
    const std::string& key = param.first;
    const std::string& value = param.second;
    if (!seen.insert(key).second)
    {
      error = "query key '" + key + "' is repeated";
      return false;
    }
    if (is_filter_key(key))
    {
      // Catalog values never hold a NUL; one in a filter could only match by
      // being cut short somewhere.
      if (value.find('\0') != std::string::npos)
      {
        error = "the value of '" + key + "' holds a NUL character";
        return false;
      }
      filters.emplace_back(key, value);
    }
    else if (key == "sort")
    {
      if (!is_sort_key(value))
      {
        error = "unknown sort key '" + value + "'";
        return false;
      }
      sort = value;
    }
    else if (key == "order")
    {
      if (value != "asc" && value != "desc")
      {
        error = "order must be asc or desc";
        return false;
      }
      descending = value == "desc";
    }
    else if (key == "offset")
    {
      if (!parse_count(value, INT64_MAX / 2, offset))
      {
        error = "offset must be a non-negative integer";
        return false;
      }
    }
    else if (key == "limit")
    {
      if (!parse_count(value, MAX_LIMIT, limit))
      {
        error = "limit must be an integer from 0 to " + std::to_string(MAX_LIMIT);
        return false;
      }
    }
    else
    {
      error = "unknown query key '" + key + "'";
      return false;
    }
  }
  return true;
}
