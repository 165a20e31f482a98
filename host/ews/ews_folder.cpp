#include "host/ews/ews_folder.h"

#include "host/ews/ews_xml.h"

#include <pugixml.hpp>

#include <cstring>

EWS_Folder::EWS_Folder(const pugi::xml_node& element)
{
  type = ews_folder_type_of(ews_xml::local_name(element));
  const pugi::xml_node folder_id = ews_xml::child(element, "FolderId");
  id = folder_id.attribute("Id").value();
  change_key = folder_id.attribute("ChangeKey").value();
  display_name = ews_xml::child(element, "DisplayName").text().get();
  items_count = ews_xml::child(element, "TotalCount").text().as_int(0);
  // A missing or unreadable count says nothing about the subfolders.
  const pugi::xml_text children = ews_xml::child(element, "ChildFolderCount").text();
  const char* text = children.get();
  subfolders_counted = *text != '\0' && std::strspn(text, "0123456789") == std::strlen(text);
  subfolders_count = subfolders_counted ? children.as_int(0) : 0;
}
