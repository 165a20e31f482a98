#ifndef BACKUP_EXCHANGE_CORE_EWS_METHOD_NAMES_H
#define BACKUP_EXCHANGE_CORE_EWS_METHOD_NAMES_H

#include "backup/exchange/core/ews/exchange_common.h"

// The backup method by its JSON name ("vss", "streaming", "mapi", "ews"; exact
// case). `len` 0 means strlen(name). A null or unknown name gives
// EXCHANGE_BACKUP_METHOD_NONE.
Exchange_Backup_Method name_to_method(const char* name, int len);

// The JSON name of a method, or null for EXCHANGE_BACKUP_METHOD_NONE and for any
// value outside the table.
const char* method_to_name(Exchange_Backup_Method method);

#endif
