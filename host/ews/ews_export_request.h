#ifndef HOST_EWS_EWS_EXPORT_REQUEST_H
#define HOST_EWS_EWS_EXPORT_REQUEST_H

#include "host/base/host_status.h"
#include "host/ews/ews_b64_data.h"

#include <string>
#include <vector>

// One item of an export call: the caller sets `id` (optionally `change_key`,
// `size`, the item's size as listed, which sizes the batches, and `mailbox`);
// EWS_Client::export_items fills `data`, or leaves its `ptr` null and says why
// in `status` when this item alone could not be exported.
struct EWS_Export_Request
{
  std::string id;
  std::string change_key;
  long long size = 0;   // expected bytes, 0 when unknown
  std::string mailbox;  // whose item it is; empty: the mailbox the client acts for
  EWS_b64_Data data;
  Host_Status status;  // of this item; ok when `data` holds its content
};

typedef std::vector<EWS_Export_Request> EWS_Export_Requests;

#endif
