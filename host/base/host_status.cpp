#include "host/base/host_status.h"

const char* host_status_kind_name(Host_Status_Kind kind)
{
  switch (kind)
  {
  case HOST_STATUS_OK:
    return "ok";
  case HOST_STATUS_THROTTLED:
    return "throttled";
  case HOST_STATUS_TRANSIENT:
    return "transient";
  case HOST_STATUS_UNAUTHORIZED:
    return "unauthorized";
  case HOST_STATUS_PERMANENT:
    return "permanent";
  case HOST_STATUS_CANCELLED:
    return "cancelled";
  }
  return "unknown";
}
