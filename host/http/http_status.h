#ifndef HOST_HTTP_HTTP_STATUS_H
#define HOST_HTTP_HTTP_STATUS_H

#include "host/base/host_status.h"
#include "host/http/http_request.h"
#include "host/http/http_session.h"

#include <string>

// The one classification of HTTP outcomes into Host_Status for every client of
// the host layer (storage, backupd, catalog, token, Graph, EWS).

// The wait a "Retry-After" field asks for, in milliseconds: delta-seconds or an
// HTTP date (a date in the past is 0). -1 when the field is absent or unreadable.
long http_retry_after_ms(const HTTP_Response& response);

// A request that got no answer: connect and DNS failures, dropped connections and
// time-outs are TRANSIENT; certificate and handshake failures PERMANENT; a transfer
// stopped by its own body callback CANCELLED. The message is the transport's.
Host_Status http_transport_status(const HTTP_Session& session);

// An answer: 2xx is OK; 429 and 503 THROTTLED with the Retry-After wait; 408 and
// other 5xx TRANSIENT; 401 UNAUTHORIZED; any other status PERMANENT. The code is
// "HTTP <status>", the message `detail` (the service's own reason, may be empty).
Host_Status http_answer_status(const HTTP_Response& response, const std::string& detail);

#endif
