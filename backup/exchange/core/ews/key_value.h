#ifndef BACKUP_EXCHANGE_CORE_EWS_KEY_VALUE_H
#define BACKUP_EXCHANGE_CORE_EWS_KEY_VALUE_H

#include <cstddef>
#include <cstring>

// One entry of a constant lookup table. A table is an array of entries ended by
// an entry whose key is null and whose value is zero; lookups that miss return
// that terminator, so a miss reads as the value zero.
template <typename V>
struct Key2_Value_T
{
  const char* key;
  size_t len;
  V value;
};

// The first entry whose key has exactly length `n` and equals the first `n` bytes
// of `key` (case-sensitive), or the terminator. Never null.
template <typename V>
const Key2_Value_T<V>* get_key_value_entry(const Key2_Value_T<V>* table, const char* key, size_t n)
{
  const Key2_Value_T<V>* entry = table;
  for (; entry->key != nullptr; ++entry)
    if (entry->len == n && key != nullptr && std::strncmp(entry->key, key, n) == 0)
      return entry;
  return entry;
}

// The first entry whose value equals `value`, or the terminator. Never null.
template <typename V>
const Key2_Value_T<V>* get_key_value_entry(const Key2_Value_T<V>* table, V value)
{
  const Key2_Value_T<V>* entry = table;
  for (; entry->key != nullptr; ++entry)
    if (entry->value == value)
      return entry;
  return entry;
}

#endif
