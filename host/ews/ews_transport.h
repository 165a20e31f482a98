#ifndef HOST_EWS_EWS_TRANSPORT_H
#define HOST_EWS_EWS_TRANSPORT_H

#include "host/ews/ews_export_request.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_folder_creation_request.h"
#include "host/ews/ews_status.h"

#include <string>
#include <vector>

// A folder given by id, or by distinguished folder code when `id` is empty.
struct EWS_Folder_Ref
{
  std::string id;
  int distinguished = ewstype__DistinguishedFolderIdNameType__msgfolderroot;
};

// One page of a folder listing. For deep listings `parent_ids[i]` is the id of
// the parent of `folders[i]`.
struct EWS_Folder_Page
{
  EWS_Folders folders;
  std::vector<std::string> parent_ids;
  int next_offset = 0;
  bool last = true;
};

// One page of an item listing.
struct EWS_Item_Page
{
  EWS_Items items;
  int next_offset = 0;
  bool last = true;
};

// Credentials for the next requests: a bearer token, or a user name and password
// (basic authentication, for on-premises servers).
struct EWS_Credentials
{
  std::string bearer_token;
  std::string user;
  std::string password;
};

// The wire side of EWS_Client: each call makes exactly one request and reports
// how it ended. Retrying, throttling, paging and token renewal are the client's
// job, so that every transport (SOAP today, Microsoft Graph later) shares them.
// One thread at a time.
class EWS_Transport
{
public:
  virtual ~EWS_Transport() = default;

  // The mailbox that later requests act for; empty for the caller's own.
  virtual void set_mailbox(const std::string& mailbox) = 0;
  virtual void set_credentials(const EWS_Credentials& credentials) = 0;

  virtual Host_Status find_folders(const EWS_Folder_Ref& parent, bool deep, int offset, int max,
                                  EWS_Folder_Page& page) = 0;
  virtual Host_Status find_items(const std::string& folder_id, int offset, int max, EWS_Item_Page& page) = 0;
  // Fills `data` of each request the server exported and sets `error` of each it
  // refused. The status is THROTTLED or TRANSIENT when some refusals may pass
  // with time (those requests keep a null `data.ptr` and a transient `error`).
  virtual Host_Status export_items(EWS_Export_Requests& requests) = 0;
  virtual Host_Status create_folder(const EWS_Folder_Ref& parent, EWS_Folder_Creation_Request& request) = 0;
  // Uploads each item as a new item of folder `parent_id`. `ids` receives one
  // entry per item: the new id, or empty when that item was refused, in which
  // case `errors` holds the server's code. The status is THROTTLED or TRANSIENT
  // when the refusals may pass with time.
  virtual Host_Status upload_items(const std::string& parent_id, const std::vector<const ustring*>& items,
                                  std::vector<std::string>& ids, std::vector<std::string>& errors) = 0;
};

#endif
