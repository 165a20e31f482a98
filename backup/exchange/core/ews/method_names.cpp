#include "backup/exchange/core/ews/method_names.h"

#include "backup/exchange/core/ews/key_value.h"

#include <cstring>

namespace
{
const Key2_Value_T<Exchange_Backup_Method> method_table[] = {
  {"vss", 3, EXCHANGE_BACKUP_METHOD_VSS},    {"streaming", 9, EXCHANGE_BACKUP_METHOD_STREAMING},
  {"mapi", 4, EXCHANGE_BACKUP_METHOD_MAPI},  {"ews", 3, EXCHANGE_BACKUP_METHOD_EWS},
  {nullptr, 0, EXCHANGE_BACKUP_METHOD_NONE},
};
}  // namespace

Exchange_Backup_Method name_to_method(const char* name, int len)
{
  size_t n = static_cast<size_t>(len < 0 ? 0 : len);
  if (name != nullptr && len == 0)
    n = std::strlen(name);
  return get_key_value_entry(method_table, name, n)->value;
}

const char* method_to_name(Exchange_Backup_Method method) { return get_key_value_entry(method_table, method)->key; }
