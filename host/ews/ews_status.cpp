#include "host/ews/ews_status.h"

bool ews_is_transient_code(const std::string& code)
{
  // ErrorExceededFindCountLimit is not here: the same page size would be refused again.
  static const char* const transient[] = {
    "ErrorServerBusy",
    "ErrorExceededConnectionCount",
    "ErrorTooManyObjectsOpened",
    "ErrorTimeoutExpired",
    "ErrorMailboxStoreUnavailable",
    "ErrorMailboxMoveInProgress",
    "ErrorConnectionFailed",
    "ErrorInternalServerError",
    "ErrorInternalServerTransientError",
    "ErrorBatchProcessingStopped",
  };
  for (const char* t : transient)
    if (code == t)
      return true;
  return false;
}
