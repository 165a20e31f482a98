#ifndef HOST_CATALOG_READ_CATALOGS_H
#define HOST_CATALOG_READ_CATALOGS_H

#include <nlohmann/json_fwd.hpp>

#include "host/base/host_status.h"

// The catalog's backup-set resource, to which a query string is appended.
constexpr char catalog_sets_query[] = "/d2/r/v2/sets/restore/sets?";

// GETs a catalog resource of this agent's backup server ("/d2/r/v2/sets/restore/
// sets?module=exchange&…", query already percent-encoded) and parses the JSON
// answer into `result` ({"total": N, "rows": [record, …]}). `timeout_seconds`
// bounds one attempt (-1: 60 s); transient failures are retried with back-off
// for `max_seconds_retry`. False on failure or when the answer is not JSON;
// `result` is then left as it was. A failure is logged here (callers need not
// log it again) and, when `status` is given, classified into it.
bool read_catalogs(const char* resource, nlohmann::ordered_json& result, int timeout_seconds, int max_seconds_retry,
                   Host_Status* status = nullptr);

#endif
