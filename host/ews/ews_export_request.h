#ifndef HOST_EWS_EWS_EXPORT_REQUEST_H
#define HOST_EWS_EWS_EXPORT_REQUEST_H

#include "host/ews/ews_b64_data.h"

#include <string>
#include <vector>

// One item of an export call: the caller sets `id` (and optionally
// `change_key`); EWS_Client::export_items fills `data`, leaving its `ptr` null
// when the server reported an error for this item.
struct EWS_Export_Request
{
  std::string id;
  std::string change_key;
  EWS_b64_Data data;
  std::string error;  // the server's response code for a failed item
};

typedef std::vector<EWS_Export_Request> EWS_Export_Requests;

#endif
