#ifndef BACKUP_EXCHANGE_CORE_EWS_EWS_ITEM_NAME_COMPARATOR_H
#define BACKUP_EXCHANGE_CORE_EWS_EWS_ITEM_NAME_COMPARATOR_H

#include "backup/exchange/core/ews/ews_utils.h"
#include "host/ews/ews_item.h"

#include <cstring>

// Orders items by the bytes of their names (get_item_name), ascending: the order
// in which a folder's items are backed up and exported. Equal names keep no
// particular order.
struct EWS_Item_Name_Comparator
{
  bool operator()(const EWS_Item& a, const EWS_Item& b) const
  {
    return std::strcmp(get_item_name(a), get_item_name(b)) < 0;
  }
};

#endif
