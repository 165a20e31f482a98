#ifndef HOST_EWS_EWS_ITEM_H
#define HOST_EWS_EWS_ITEM_H

#include "host/ews/ews_b64_data.h"
#include "host/ews/ews_types.h"

#include <ctime>
#include <functional>
#include <string>
#include <vector>

// One mailbox item as listed by FindItem (and, once exported, its content).
struct EWS_Item
{
  std::string id;
  std::string change_key;
  std::string display_name;
  std::string subject;
  EWS_b64_Data data;
  EWS_Item_Type type = EWS_ITEM_TYPE_ITEM;
  std::string item_class;  // the message class ("IPM.Note") when the listing gave it
  time_t ctime = 0;        // DateTimeCreated
  time_t mtime = 0;        // LastModifiedTime
  long long size = 0;      // item:Size in bytes as listed, 0 when the server gave none
};

typedef std::vector<EWS_Item> EWS_Items;

// Receives the items of a listing one by one, in the order the server gives them.
typedef std::function<void(const EWS_Item&)> EWS_Item_Appender;

// An appender that appends to `items`.
inline EWS_Item_Appender make_ews_item_appender(EWS_Items& items)
{
  return [&items](const EWS_Item& item) { items.push_back(item); };
}

#endif
