#ifndef HOST_EWS_EWS_STATUS_H
#define HOST_EWS_EWS_STATUS_H

#include "host/base/host_status.h"

#include <string>

// Response codes after which a retry may succeed (time budgets, busy or
// unavailable stores, passing internal errors).
bool ews_is_transient_code(const std::string& code);

#endif
