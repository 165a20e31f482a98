#include "host/ews/ews_types.h"

namespace
{
const char* const distinguished_names[] = {
  "calendar", "contacts",  "deleteditems",  "drafts",    "inbox",         "journal",
  "notes",    "outbox",    "sentitems",     "tasks",     "msgfolderroot", "publicfoldersroot",
  "root",     "junkemail", "searchfolders", "voicemail",
};

const char* const folder_elements[] = {"Folder", "CalendarFolder", "ContactsFolder", "SearchFolder", "TasksFolder"};

const char* const item_elements[] = {
  "Item",           "Message",         "CalendarItem",        "Contact", "DistributionList", "MeetingMessage",
  "MeetingRequest", "MeetingResponse", "MeetingCancellation", "Task",    "PostItem",
};
}  // namespace

const char* ews_distinguished_folder_name(int code)
{
  const int count = static_cast<int>(sizeof(distinguished_names) / sizeof(distinguished_names[0]));
  return code >= 0 && code < count ? distinguished_names[code] : nullptr;
}

EWS_Folder_Type ews_folder_type_of(const std::string& element)
{
  for (int i = 0; i < 5; ++i)
    if (element == folder_elements[i])
      return static_cast<EWS_Folder_Type>(i + 1);
  return EWS_FOLDER_TYPE_FOLDER;
}

const char* ews_folder_element(EWS_Folder_Type type)
{
  const int i = static_cast<int>(type) - 1;
  return i >= 0 && i < 5 ? folder_elements[i] : folder_elements[0];
}

EWS_Item_Type ews_item_type_of(const std::string& element)
{
  for (int i = 0; i < 11; ++i)
    if (element == item_elements[i])
      return static_cast<EWS_Item_Type>(i + 1);
  return EWS_ITEM_TYPE_ITEM;
}

const char* ews_item_element(EWS_Item_Type type)
{
  const int i = static_cast<int>(type) - 1;
  return i >= 0 && i < 11 ? item_elements[i] : item_elements[0];
}
