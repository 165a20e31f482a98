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

// What a failed request may have done on the server, for callers that must not
// repeat an operation that is not idempotent (creating a folder, adding an item).
enum Http_Outcome
{
  HTTP_OUTCOME_ANSWERED = 0,     // an answer came back whole: it says what happened
  HTTP_OUTCOME_NOT_APPLIED = 1,  // the server cannot have acted on it: it never got the whole
                                 // request (DNS, connect, TLS handshake, broken while sending),
                                 // or it refused before acting (429, 503)
  HTTP_OUTCOME_UNKNOWN = 2,      // the request went out whole and no whole answer came back
                                 // (reset or closed while waiting, time-out, a cut answer, a
                                 // gateway's 502/504): it may have been applied
};

// The outcome of the last perform() of `session` that returned false.
Http_Outcome http_transport_outcome(const HTTP_Session& session);
// The outcome told by an answer that was read whole.
Http_Outcome http_answer_outcome(const HTTP_Response& response);
// "answered", "not applied", "unknown".
const char* http_outcome_name(Http_Outcome outcome);

#endif
