#ifndef BACKUP_EXCHANGE_JOB_JSON_STATE_H
#define BACKUP_EXCHANGE_JOB_JSON_STATE_H

#include "backup/exchange/core/ews/key_value.h"

#include <cstdint>
#include <string>
#include <vector>

// One open map (obj true) or array of a JSON document being parsed: the table
// bit of the current key (0 for an unknown key) and the bits of the keys seen so
// far in this map.
struct JSON_State
{
  bool obj;
  uint64_t key;
  uint64_t masks;
};

typedef std::vector<JSON_State> JSON_States;

// Error codes that the option and source parsers leave for the host.
enum JSON_Parse_Error
{
  JSON_ERROR_UNBALANCED = 3,       // a map or array closed or keyed with none open
  JSON_ERROR_MISSING_KEY = 7,      // a required key is missing
  JSON_ERROR_MISPLACED_VALUE = 9,  // a value where none is expected
};

void push_json_state(JSON_States& states, bool obj);

// Records the current key of the top-level object from `table` (0 when unknown);
// keys of nested maps are ignored. False, with `err` = 3, when no map is open.
bool set_json_state_key(JSON_States& states, const Key2_Value_T<unsigned int>* table, const char* key, size_t len,
                        int& err);

// Closes the innermost map or array. False, with `err` = 3, when none is open.
bool pop_json_state(JSON_States& states, int& err);

// Reads a count such as "channels" into `field` (stored before it is checked);
// false, after logging why, when it overflows an int or is not at least 1.
bool read_json_count(const char* text, size_t len, int& field);

#endif
