#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_UTILS_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_UTILS_H

#include "host/ews/ews_client.h"
#include "host/ews/ews_folder.h"
#include "host/ews/ews_item.h"
#include "host/base/secure_allocator.h"
#include "host/office365/office365_auth.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <vector>

class ACE_Log_Msg_Callback;

// For each folder, one {"entry_id": id, "name": display_name} object, appended.
void jsonify_ews_folders(const std::vector<EWS_Folder>& folders, std::vector<nlohmann::ordered_json>& out);
// For each item, one {"entry_id": id, "subject": get_item_name(item)} object, appended.
void jsonify_ews_items(const std::vector<EWS_Item>& items, std::vector<nlohmann::ordered_json>& out);

// The display name, else the subject, else "(no subject)".
const char* get_item_name(const EWS_Item& item);

// The EWS token scope for an EWS endpoint URL: its scheme, host and port
// followed by "/.default" ("https://outlook.office365.com/.default"). Empty
// (logged) when the endpoint is not a URL.
std::string ews_default_scope(const std::string& ews_endpoint);

// Makes a client for the entry's EWS endpoint and puts it into `out` (replacing
// what it held), acting for `mailbox` when not null or empty. An empty `auth`
// fails and leaves `out` untouched. The result is that of EWS_Client::init.
bool create_ews_client(const std::string& user, const Secure_String& password, std::shared_ptr<Office365_Auth> auth,
                       EWS_Client_Ptr& out, const char* mailbox);
// As above; the client's log lines also go to `log_cb` (the job's log).
bool create_ews_client(const std::string& user, const Secure_String& password, std::shared_ptr<Office365_Auth> auth,
                       EWS_Client_Ptr& out, const std::shared_ptr<ACE_Log_Msg_Callback>& log_cb,
                       const std::string& mailbox);

// Searches over a folder tree. Each returns false when nothing matched.

// The folder of this level (no deeper search) whose id is `id`; logs
// "EWS folder not found, id = %s\n" when there is none.
bool find_folder_by_id(const EWS_Folders& folders, const std::string& id, const EWS_Folder*& out);
// The first folder of this level whose display name is exactly `name`; logs
// "EWS folder '%s' not found\n" with the name when there is none.
bool find_folder_by_name(const EWS_Folders& folders, const std::string& name, const EWS_Folder*& out);
// Walks `components` (display names) from the top level down; logs
// "EWS folder '%s' not found\n" with the components joined by "/" when a level is
// missing. An empty list finds nothing (silently).
bool find_folder_path(const EWS_Folders& folders, const std::vector<std::string>& components, const EWS_Folder*& out);
// The item `id` of the folder that `components` leads to; logs
// "EWS item not found, id = %s\n" when that folder has no such item.
bool find_item_by_id(const EWS_Folders& folders, const std::vector<std::string>& components, const std::string& id,
                     const EWS_Item*& out);
// First as a folder: with no components the top-level folder `id`; with
// components the subfolder `id` of the folder they lead to. Then as an item
// (find_item_by_id). Exactly one of `folder` and `item` is set on success, the
// other null.
bool find_folder_or_item_by_id(const EWS_Folders& folders, const std::vector<std::string>& components,
                               const std::string& id, const EWS_Folder*& folder, const EWS_Item*& item);

#endif
