#ifndef HOST_EWS_EWS_FOLDER_H
#define HOST_EWS_EWS_FOLDER_H

#include "host/ews/ews_item.h"
#include "host/ews/ews_types.h"

#include <string>
#include <vector>

namespace pugi
{
class xml_node;
}

struct EWS_Folder;
typedef std::vector<EWS_Folder> EWS_Folders;

// One mailbox folder, with the subfolders and items a listing filled in.
struct EWS_Folder
{
  std::string id;
  std::string change_key;
  std::string display_name;
  int items_count = 0;       // TotalCount
  int subfolders_count = 0;  // ChildFolderCount
  // Whether the answer gave ChildFolderCount: only then does a count of 0 mean
  // that the folder had no subfolders when it was listed.
  bool subfolders_counted = false;
  EWS_Folder_Type type = EWS_FOLDER_TYPE_FOLDER;
  EWS_Folders subfolders;
  EWS_Items items;

  EWS_Folder() = default;
  // From a folder element of a FindFolder or CreateFolder answer (t:Folder,
  // t:CalendarFolder, ...): its FolderId, DisplayName, TotalCount and ChildFolderCount.
  explicit EWS_Folder(const pugi::xml_node& element);
};

#endif
