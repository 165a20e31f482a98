#ifndef BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_UTILS_H
#define BACKUP_EXCHANGE_JOB_EXCHANGE_JOB_UTILS_H

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string>

// Splits one job source entry ("exchange://<first>/<second>/<rest>") into its
// first two percent-decoded path segments and the decoded remainder. The
// eleven-character prefix is skipped unread. Any output may be null. A segment
// that cannot be read or decoded leaves it and the later outputs empty.
void parse_entry(const char* val, size_t len, std::string* first, std::string* second, std::string* rest);

// Reads `key` of a catalog row as a string, or as an integer; false (with `error`
// naming the key) when it is missing or of another type.
bool read_json_string(const nlohmann::ordered_json& row, const char* key, std::string& out, std::string& error);
bool read_json_int(const nlohmann::ordered_json& row, const char* key, int& out, std::string& error);

#endif
