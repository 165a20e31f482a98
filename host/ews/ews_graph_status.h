#ifndef HOST_EWS_EWS_GRAPH_STATUS_H
#define HOST_EWS_EWS_GRAPH_STATUS_H

#include "host/base/host_status.h"
#include "host/http/http_request.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

// Reads Microsoft Graph's failures into Host_Status kinds, the way the SOAP
// transport reads EWS faults, so that EWS_Client retries both alike:
// - 429 and 503 are throttled with their Retry-After wait; 504 too when it
//   carries one, else transient like the other 5xx and 408;
// - 401 is unauthorized (the client renews its token once);
// - anything else (400, 403, 404, 409...) is permanent.
// The code is the envelope's ("error": {"code", "message"}), or the bare
// {"Message": ...} the import endpoint answers with, else "HTTP <status>".
class EWS_Graph_Status
{
public:
  // The code of a status whose mailbox the directory does not know by the name
  // given (no user with that principal name or SMTP address).
  static const char* const unknown_mailbox;

  // The status of a non-2xx answer.
  static Host_Status of_answer(const HTTP_Response& response);
  // The status of one element's "error" (or "Error") object of an exportItems
  // answer: {"code", "message"}. Codes that pass with time (busy, time-outs)
  // are transient or throttled; the others permanent.
  static Host_Status of_item_error(const nlohmann::ordered_json& error);
  // The member `key` of `object`, matched without regard to case; null when absent.
  static const nlohmann::ordered_json* member(const nlohmann::ordered_json& object, const char* key);
  // True for a code saying a folder of that name exists already.
  static bool is_folder_exists(const Host_Status& status);
};

#endif
