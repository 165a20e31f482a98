#ifndef APPS_BACKUPD_CATALOG_QUERY_H
#define APPS_BACKUPD_CATALOG_QUERY_H

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

// A catalog query of GET /d2/r/v2/sets/restore/sets, read from its decoded query
// keys: exact-match filters ("module", "resource_uuid", "minor_resource_id",
// "host_uuid", "instance", "database", "uuid", "pool_uuid"), "sort" (one of the
// sortable columns, default "backup_start_time"), "order" ("asc" default or
// "desc"), "offset" (default 0) and "limit" (default 100, at most 1000).
struct Catalog_Query
{
  std::vector<std::pair<std::string, std::string>> filters;  // column, value
  std::string sort = "backup_start_time";
  bool descending = false;
  int64_t offset = 0;
  int64_t limit = 100;

  static const int64_t MAX_LIMIT = 1000;

  // False with `error` for an unknown key, sort key or order, a repeated key, or
  // a filter value holding a NUL character, or a number that is not a plain non-negative decimal within range.
  bool parse(const std::multimap<std::string, std::string>& params, std::string& error);

  static bool is_filter_key(const std::string& key);
  static bool is_sort_key(const std::string& key);
};

#endif
