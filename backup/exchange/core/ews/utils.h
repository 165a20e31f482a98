#ifndef BACKUP_EXCHANGE_CORE_EWS_UTILS_H
#define BACKUP_EXCHANGE_CORE_EWS_UTILS_H

// The module's shared Exchange utilities, one header per theme.
#include "backup/exchange/core/ews/ews_utils.h"
#include "backup/exchange/core/ews/io_options.h"
#include "backup/exchange/core/ews/method_names.h"

#endif
