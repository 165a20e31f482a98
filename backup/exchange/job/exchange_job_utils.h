#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_UTILS_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_UTILS_H

#include <cstddef>
#include <string>

// Splits one job source entry ("exchange://<first>/<second>/<rest>") into its
// first two percent-decoded path segments and the decoded remainder. The
// eleven-character prefix is skipped unread. Any output may be null. A segment
// that cannot be read or decoded leaves it and the later outputs empty.
void parse_entry(const char* val, size_t len, std::string* first, std::string* second, std::string* rest);

#endif
