#include "host/ews/ews_graph_shapes.h"

#include "host/ews/ews_xml.h"

#include <nlohmann/json.hpp>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <sstream>

namespace
{
std::string text_of(const nlohmann::ordered_json& json, const char* key)
{
  const auto it = json.find(key);
  return it != json.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// True when `cls` is `base` or derived from it ("IPF.Contact" and "IPF.Contact.X").
bool is_class(const std::string& cls, const char* base)
{
  const size_t n = std::strlen(base);
  return cls.size() >= n && cls.compare(0, n, base) == 0 && (cls.size() == n || cls[n] == '.');
}
}  // namespace

bool EWS_Graph_Shapes::read_folder(const nlohmann::ordered_json& json, EWS_Folder& folder, std::string& parent_id)
{
  if (!json.is_object())
    return false;
  folder.id = text_of(json, "id");
  if (folder.id.empty())
    return false;
  folder.display_name = text_of(json, "displayName");
  folder.type = folder_type_of(text_of(json, "type"));
  const auto total = json.find("totalItemCount");
  folder.items_count = total != json.end() && total->is_number_integer() ? total->get<int>() : 0;
  // Only a count given says whether the folder has subfolders.
  const auto children = json.find("childFolderCount");
  folder.subfolders_counted = children != json.end() && children->is_number_integer() && children->get<int>() >= 0;
  folder.subfolders_count = folder.subfolders_counted ? children->get<int>() : 0;
  parent_id = text_of(json, "parentFolderId");
  return true;
}

bool EWS_Graph_Shapes::read_item(const nlohmann::ordered_json& json, EWS_Item& item)
{
  if (!json.is_object())
    return false;
  item.id = text_of(json, "id");
  if (item.id.empty())
    return false;
  item.change_key = text_of(json, "changeKey");
  item.item_class = text_of(json, "type");
  item.type = item_type_of(item.item_class);
  item.ctime = ews_xml::parse_time(text_of(json, "createdDateTime").c_str());
  item.mtime = ews_xml::parse_time(text_of(json, "lastModifiedDateTime").c_str());
  const auto size = json.find("size");
  item.size = size != json.end() && size->is_number_integer() ? size->get<long long>() : 0;
  item.subject = subject_of(json);
  return true;
}

std::string EWS_Graph_Shapes::subject_of(const nlohmann::ordered_json& item)
{
  const auto properties = item.find("singleValueExtendedProperties");
  if (properties == item.end() || !properties->is_array())
    return std::string();
  for (const auto& property : *properties)
  {
    if (!property.is_object())
      continue;
    // Graph answers the id in its own spelling ("String 0x37"): compare the tag's value.
    std::string id = text_of(property, "id");
    std::string kind, tag;
    std::istringstream words(id);
    words >> kind >> tag;
    if (strcasecmp(kind.c_str(), "String") == 0 && tag.size() > 2 && (tag[1] == 'x' || tag[1] == 'X') &&
        std::strtoul(tag.c_str() + 2, nullptr, 16) == 0x0037)
      return text_of(property, "value");
  }
  return std::string();
}

EWS_Folder_Type EWS_Graph_Shapes::folder_type_of(const std::string& folder_class)
{
  if (is_class(folder_class, "IPF.Appointment"))
    return EWS_FOLDER_TYPE_CALENDAR;
  if (is_class(folder_class, "IPF.Contact"))
    return EWS_FOLDER_TYPE_CONTACTS;
  if (is_class(folder_class, "IPF.Task"))
    return EWS_FOLDER_TYPE_TASKS;
  return EWS_FOLDER_TYPE_FOLDER;
}

EWS_Item_Type EWS_Graph_Shapes::item_type_of(const std::string& message_class)
{
  struct Kind
  {
    const char* cls;
    EWS_Item_Type type;
  };
  // Most specific first: meeting classes derive from IPM.Schedule.Meeting.
  static const Kind kinds[] = {
    {"IPM.Schedule.Meeting.Request", EWS_ITEM_TYPE_MEETINGREQUEST},
    {"IPM.Schedule.Meeting.Canceled", EWS_ITEM_TYPE_MEETINGCANCELLATION},
    {"IPM.Schedule.Meeting.Resp", EWS_ITEM_TYPE_MEETINGRESPONSE},
    {"IPM.Schedule.Meeting", EWS_ITEM_TYPE_MEETINGMESSAGE},
    {"IPM.Appointment", EWS_ITEM_TYPE_CALENDARITEM},
    {"IPM.Contact", EWS_ITEM_TYPE_CONTACT},
    {"IPM.DistList", EWS_ITEM_TYPE_DISTRIBUTIONLIST},
    {"IPM.Task", EWS_ITEM_TYPE_TASK},
    {"IPM.Post", EWS_ITEM_TYPE_POSTITEM},
    {"IPM.Note", EWS_ITEM_TYPE_MESSAGE},
  };
  for (const Kind& k : kinds)
    if (is_class(message_class, k.cls))
      return k.type;
  return EWS_ITEM_TYPE_ITEM;
}

const char* EWS_Graph_Shapes::folder_class_of(EWS_Folder_Type type)
{
  switch (type)
  {
  case EWS_FOLDER_TYPE_CALENDAR:
    return "IPF.Appointment";
  case EWS_FOLDER_TYPE_CONTACTS:
    return "IPF.Contact";
  case EWS_FOLDER_TYPE_TASKS:
    return "IPF.Task";
  default:
    return "IPF.Note";
  }
}

const char* EWS_Graph_Shapes::well_known_name(int distinguished)
{
  if (distinguished == ewstype__DistinguishedFolderIdNameType__msgfolderroot)
    return nullptr;
  // Graph's well-known folder names are the EWS distinguished names.
  return ews_distinguished_folder_name(distinguished);
}
