#ifndef HOST_EWS_EWS_GRAPH_SHAPES_H
#define HOST_EWS_EWS_GRAPH_SHAPES_H

#include "host/ews/ews_folder.h"
#include "host/ews/ews_item.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

// The JSON shapes of Microsoft Graph's mailbox import/export API read into (and
// written from) what the EWS client carries, so that the module sees the same
// folders and items over either transport:
// - mailboxFolder {id, displayName, parentFolderId, childFolderCount,
//   totalItemCount, type (folder class), wellKnownName};
// - mailboxItem {id, changeKey, createdDateTime, lastModifiedDateTime, size, type
//   (message class)}.
class EWS_Graph_Shapes
{
public:
  // A mailboxFolder. False when it has no id.
  static bool read_folder(const nlohmann::ordered_json& json, EWS_Folder& folder, std::string& parent_id);
  // A mailboxItem. False when it has no id.
  static bool read_item(const nlohmann::ordered_json& json, EWS_Item& item);
  // The subject of a listed item: its expanded PidTagSubject ("String 0x0037")
  // single-value extended property, or empty.
  static std::string subject_of(const nlohmann::ordered_json& item);

  // Folder classes ("IPF.Appointment") and message classes ("IPM.Note") as the
  // kinds EWS names by element; derived classes ("IPF.Contact.MOC.QuickContacts")
  // take their base's kind, unknown ones the generic kind.
  static EWS_Folder_Type folder_type_of(const std::string& folder_class);
  static EWS_Item_Type item_type_of(const std::string& message_class);
  // The folder class a new folder of `type` is created with.
  static const char* folder_class_of(EWS_Folder_Type type);
  // The well-known folder name Graph takes in a path for a distinguished folder
  // ("inbox"); null for msgfolderroot (the folders collection itself) and codes
  // that are not distinguished folders.
  static const char* well_known_name(int distinguished);
};

#endif
