#include "host/ews/ews_status.h"

bool ews_is_transient_code(const std::string& code)
{
  static const char* const transient[] = {
    "ErrorServerBusy",          "ErrorExceededConnectionCount", "ErrorExceededFindCountLimit",
    "ErrorTooManyObjectsOpened", "ErrorTimeoutExpired",         "ErrorMailboxStoreUnavailable",
    "ErrorMailboxMoveInProgress", "ErrorConnectionFailed",      "ErrorInternalServerError",
    "ErrorInternalServerTransientError", "ErrorBatchProcessingStopped",
  };
  for (const char* t : transient)
    if (code == t)
      return true;
  return false;
}
