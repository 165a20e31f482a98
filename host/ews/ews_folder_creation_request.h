#ifndef HOST_EWS_EWS_FOLDER_CREATION_REQUEST_H
#define HOST_EWS_EWS_FOLDER_CREATION_REQUEST_H

#include "host/ews/ews_types.h"

#include <string>

// A folder to create: the caller sets `display_name` (and `type`); on success
// EWS_Client::create_folder writes the new folder's id and change key.
struct EWS_Folder_Creation_Request
{
  std::string id;
  std::string change_key;
  std::string display_name;
  EWS_Folder_Type type = EWS_FOLDER_TYPE_FOLDER;
};

#endif
